// What a bitmap does when the system has no file, room or addresses to give. Where a limit of the
// process is lowered, a child does it.
#include "BitmapTesting.h"

#include <csignal>
#include <cstdlib>
#include <sys/resource.h>
#include <sys/wait.h>
#include <vector>

namespace {

const bool LOGGING = (km_debug_level = 1) != 0;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool LIMITS_ADDRESSES = false; // the sanitizer needs more than can be limited
#elif defined(__has_feature)
constexpr bool LIMITS_ADDRESSES = !__has_feature(address_sanitizer);
#else
constexpr bool LIMITS_ADDRESSES = true;
#endif

constexpr const char* PREFIX = "dorado_bitmap_test";
constexpr unsigned long GIBIBYTE_SECTORS = 1UL << 33;

void lower(int resource, rlim_t value) {
    rlimit limit = {};
    getrlimit(static_cast<__rlimit_resource>(resource), &limit);
    limit.rlim_cur = value;
    ASSERT_EQ(setrlimit(static_cast<__rlimit_resource>(resource), &limit), 0);
}

// Runs `test` in a child, whose failed expectations have then been printed.
template <typename Test>
void inChild(const Test& test) {
    const pid_t child = fork();
    if (child == 0) {
        test();
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

// `init` must fail with `code` and these lines; then there are no bits, and no file once the bitmap
// is gone.
void expectFailingInit(int kind, const char* prefix, unsigned long sectors, int code,
                       const char* function, const std::vector<std::string>& lastLines) {
    LogCapture log;
    {
        RvpBitmap bitmap(kind);
        try {
            bitmap.init(sectors, true, 0, prefix);
            ADD_FAILURE() << "did not fail";
        } catch (const Error& error) {
            EXPECT_EQ(error.m_code, code);
            EXPECT_STREQ(error.m_file, BITMAP_SOURCE);
            EXPECT_STREQ(error.m_function, function);
        }
        const std::vector<std::string> lines = log.lines();
        ASSERT_GE(lines.size(), lastLines.size());
        EXPECT_EQ(
            std::vector(lines.end() - static_cast<std::ptrdiff_t>(lastLines.size()), lines.end()),
            lastLines);
        EXPECT_EQ(bitmap.getSize(), sectors / 8);
        expectRefused([&] { bitmap.setBit(0); }, BITMAP_SOURCE, "setBit");
        expectRefused([&] { bitmap.isSet(0); }, BITMAP_HEADER, "isSet");
    }
    EXPECT_FALSE(exists(tempFileIn(log)));
}

TEST(BitmapFailure, TheFileCannotBeOpened) {
    expectFailingInit(RvpBitmap::FILE_MAPPING, "no such folder/x", 640, KMP_ERRNO_BASE + ENOENT,
                      "createBitmapFile",
                      {"createBitmapFile:RvpBitmapX64 <ERROR> Exception: VERIFY_LINUX_BOOL"});
}

TEST(BitmapFailure, FileSizeLimit) {
    inChild([] {
        std::signal(SIGXFSZ, SIG_IGN);
        lower(RLIMIT_FSIZE, 79'999);
        expectFailingInit(
            RvpBitmap::FILE_MAPPING, PREFIX, 64'000, KMP_ERRNO_BASE + EFBIG, "allocMemory",
            {"allocMemory:RvpBitmapX64 <ERROR> Fail to truncate file to size: [80000] ",
             "allocMemory:RvpBitmapX64 <ERROR> Exception: VERIFY_LINUX_BOOL"});
        RvpBitmap bitmap(RvpBitmap::FILE_MAPPING);
        EXPECT_EQ(bitmap.init(63'936, true, 0, PREFIX), 0);
    });
}

TEST(BitmapFailure, AddressSpaceLimit) {
    if (!LIMITS_ADDRESSES) {
        GTEST_SKIP() << "no address space limit under a sanitizer";
    }
    inChild([] {
        lower(RLIMIT_AS, 1UL << 29);
        expectFailingInit(RvpBitmap::FILE_MAPPING, PREFIX, GIBIBYTE_SECTORS,
                          KMP_ERRNO_BASE + ENOMEM, "allocMemory",
                          {"allocMemory:RvpBitmapX64 <INFO> File map done, allocated [1073745920] ",
                           "allocMemory:RvpBitmapX64 <ERROR> Exception: VERIFY_LINUX errno: 12 "
                           "error: Cannot allocate memory "});
        expectFailingInit(RvpBitmap::HEAP, PREFIX, GIBIBYTE_SECTORS, KMP_EINVAL, "allocMemory",
                          {"allocMemory:RvpBitmapX64 <ERROR> Exception: VERIFY_PTR"});
    });
}

// The number of bytes must not wrap around to a small one.
TEST(BitmapFailure, MoreSectorsThanAddresses) {
    if (!LIMITS_ADDRESSES) {
        GTEST_SKIP() << "the sanitizer's malloc ends the process";
    }
    for (const int kind : KINDS) {
        RvpBitmap bitmap(kind);
        EXPECT_THROW(bitmap.init(~0UL, true, 0, PREFIX), Error);
        EXPECT_EQ(bitmap.getSize(), 1UL << 61);
        expectRefused([&] { bitmap.setRegion(0, ~0UL); }, BITMAP_SOURCE, "setRegion");
    }
}

// A bitmap that failed serves after a second, smaller init.
TEST(BitmapFailure, InitCanBeRepeated) {
    inChild([] {
        std::signal(SIGXFSZ, SIG_IGN);
        lower(RLIMIT_FSIZE, 1 << 20);
        LogCapture log;
        RvpBitmap bitmap(RvpBitmap::FILE_MAPPING);
        EXPECT_THROW(bitmap.init(1UL << 20, true, 0, PREFIX), LinuxError);
        bitmap.init(1000, true, 0, PREFIX);
        EXPECT_FALSE(exists(tempFileIn(log)));
        bitmap.setRegion(5, 990);
        bool set = false;
        EXPECT_EQ(bitmap.getExtent(5, 995, set), 990U);
    });
}

} // namespace
