// What a bitmap does when the system has no file, room or addresses to give.
#include "BitmapTesting.h"

#include <csignal>
#include <sys/resource.h>
#include <vector>

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool LIMITS_ADDRESSES = false; // the sanitizer needs more than can be limited
#elif defined(__has_feature)
constexpr bool LIMITS_ADDRESSES = !__has_feature(address_sanitizer);
#else
constexpr bool LIMITS_ADDRESSES = true;
#endif

constexpr unsigned long GIBIBYTE_SECTORS = 1UL << 33;

// A limit of the process, as long as it lives.
class Limit {
  public:
    Limit(__rlimit_resource resource, rlim_t value) : m_resource(resource) {
        getrlimit(m_resource, &m_before);
        const rlimit lowered = {value, m_before.rlim_max};
        EXPECT_EQ(setrlimit(m_resource, &lowered), 0);
    }
    ~Limit() { setrlimit(m_resource, &m_before); }
    Limit(const Limit&) = delete;
    Limit& operator=(const Limit&) = delete;

  private:
    __rlimit_resource m_resource;
    rlimit m_before = {};
};

// `init` must fail with `error` and these lines; then there are no bits, and no file once the
// bitmap is gone.
void expectFailingInit(int kind, const char* prefix, unsigned long sectors,
                       const std::string& error, const std::vector<std::string>& lastLines) {
    LogCapture log;
    {
        RvpBitmap bitmap(kind);
        EXPECT_EQ(raisedBy([&] { bitmap.init(sectors, true, 0, prefix); }), error);
        std::vector<std::string> lines = log.lines();
        ASSERT_GE(lines.size(), lastLines.size());
        lines.erase(lines.begin(), lines.end() - static_cast<std::ptrdiff_t>(lastLines.size()));
        EXPECT_EQ(lines, lastLines);
        EXPECT_EQ(bitmap.getSize(), sectors / 8);
        EXPECT_EQ(raisedBy([&] { bitmap.setBit(0); }), raisedIn("setBit"));
        EXPECT_EQ(raisedBy([&] { bitmap.isSet(0); }), refusedInHeader("isSet"));
    }
    EXPECT_FALSE(exists(tempFileIn(log)));
}

TEST(BitmapFailure, TheFileCannotBeOpened) {
    expectFailingInit(RvpBitmap::FILE_MAPPING, "no such folder/x", 640,
                      raisedIn("createBitmapFile", KMP_ERRNO_BASE + ENOENT),
                      {"createBitmapFile:RvpBitmapX64 <ERROR> Exception: VERIFY_LINUX_BOOL"});
}

TEST(BitmapFailure, FileSizeLimit) {
    std::signal(SIGXFSZ, SIG_IGN);
    const Limit limit(RLIMIT_FSIZE, 79'999);
    expectFailingInit(RvpBitmap::FILE_MAPPING, PREFIX, 64'000,
                      raisedIn("allocMemory", KMP_ERRNO_BASE + EFBIG),
                      {"allocMemory:RvpBitmapX64 <ERROR> Fail to truncate file to size: [80000] ",
                       "allocMemory:RvpBitmapX64 <ERROR> Exception: VERIFY_LINUX_BOOL"});
    // A bitmap that failed serves after a second, smaller init.
    LogCapture log;
    RvpBitmap bitmap(RvpBitmap::FILE_MAPPING);
    EXPECT_THROW(bitmap.init(64'000, true, 0, PREFIX), LinuxError);
    EXPECT_EQ(bitmap.init(63'936, true, 0, PREFIX), 0);
    EXPECT_FALSE(exists(tempFileIn(log)));
    bitmap.setRegion(5, 990);
    bool set = false;
    EXPECT_EQ(bitmap.getExtent(5, 995, set), 990U);
}

TEST(BitmapFailure, AddressSpaceLimit) {
    if (!LIMITS_ADDRESSES) {
        GTEST_SKIP() << "no address space limit under a sanitizer";
    }
    const Limit limit(RLIMIT_AS, 1UL << 29);
    expectFailingInit(RvpBitmap::FILE_MAPPING, PREFIX, GIBIBYTE_SECTORS,
                      raisedIn("allocMemory", KMP_ERRNO_BASE + ENOMEM),
                      {"allocMemory:RvpBitmapX64 <INFO> File map done, allocated [1073745920] ",
                       "allocMemory:RvpBitmapX64 <ERROR> Exception: VERIFY_LINUX errno: 12 "
                       "error: Cannot allocate memory "});
    expectFailingInit(RvpBitmap::HEAP, PREFIX, GIBIBYTE_SECTORS, raisedIn("allocMemory"),
                      {"allocMemory:RvpBitmapX64 <ERROR> Exception: VERIFY_PTR"});
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
        EXPECT_EQ(raisedBy([&] { bitmap.setRegion(0, ~0UL); }), raisedIn("setRegion"));
    }
}

} // namespace
