// The bitmap beside a plain model, its refusals and failures, its file and its dump.
#include "RvpBitmapX64.h"
#include "support/Files.h"
#include "support/Layout.h"
#include "support/LogCapture.h"
#include "support/Raised.h"

#include <algorithm>
#include <csignal>
#include <functional>
#include <gmock/gmock.h>
#include <malloc.h>
#include <random>
#include <sys/resource.h>
#include <utility>

using std::filesystem::exists;
using testing::Contains;

namespace {

constexpr const char* PREFIX = "dorado_bitmap_test";
constexpr const char* ALL = "setBit setRegion clearRegion getExtent isSet isUint8Set isUint64Set ";

// The operations that refuse a region or its first sector, by an error and a line that name them.
std::string refusedBy(RvpBitmap& bitmap, unsigned long start, unsigned long count) {
    bool set = false;
    const std::pair<std::string, std::function<void()>> operations[] = {
        {"setBit", [&] { bitmap.setBit(start); }},
        {"setRegion", [&] { bitmap.setRegion(start, count); }},
        {"clearRegion", [&] { bitmap.clearRegion(start, count); }},
        {"getExtent", [&] { bitmap.getExtent(start, count, set); }},
        {"isSet", [&] { bitmap.isSet(start); }},
        {"isUint8Set", [&] { bitmap.isUint8Set(start, true); }},
        {"isUint64Set", [&] { bitmap.isUint64Set(start, true); }},
    };
    std::string refused;
    for (const auto& [name, operation] : operations) {
        const std::string file = name.starts_with("is") ? "RvpBitmapX64.h" : "RvpBitmapX64";
        const LogCapture log;
        const std::string raised = raisedBy(operation);
        if (raised != "nothing") {
            EXPECT_EQ(raised, "3 plugin/common/map_v2/rvp/" + file + " " + name);
            EXPECT_THAT(log.lines(),
                        Contains(name + ":" + file + " <ERROR> Exception: VERIFY_ORMA_BOOL"));
            refused += name + " ";
        }
    }
    return refused;
}

class BitmapKinds : public testing::TestWithParam<int> {
  protected:
    // All clear, which the heap kind is not by itself.
    void init(unsigned long sectors) {
        bitmap.init(sectors, true, 0, PREFIX);
        if (sectors != 0) {
            bitmap.clearRegion(0, sectors);
        }
    }

    RvpBitmap bitmap{GetParam()};
    bool set = false;
};
INSTANTIATE_TEST_SUITE_P(, BitmapKinds, testing::Values(RvpBitmap::HEAP, RvpBitmap::FILE_MAPPING));

// Sizes on both sides of bytes, words and the blocks of long runs.
TEST_P(BitmapKinds, RandomOperationsAgreeWithAModel) {
    std::mt19937_64 random(20240229);
    for (const unsigned long sectors : {1UL, 7UL, 8UL, 63UL, 64UL, 65UL, 1000UL, 4096UL, 99999UL}) {
        init(sectors);
        EXPECT_EQ(bitmap.getSize(), (sectors + 63) / 64 * 8);
        std::vector<bool> model(sectors, false);
        for (int step = 0; step < 3000; ++step) {
            const unsigned long start = random() % sectors;
            const unsigned long rest = sectors - start;
            const unsigned long count =
                1 + random() % (random() % 4 == 0 ? rest : std::min(rest, 130UL));
            const auto first = model.begin() + static_cast<std::ptrdiff_t>(start);
            const auto other = std::find(first, model.end(), !*first);
            const auto run = static_cast<unsigned long>(other - first);
            ASSERT_EQ(bitmap.isSet(start), *first);
            ASSERT_EQ(bitmap.getExtent(start, rest, set), run);
            ASSERT_EQ(set, *first);
            ASSERT_EQ(bitmap.getExtent(start, count, set), std::min(run, count));
            const bool fills = random() % 2 == 0;
            fills ? bitmap.setRegion(start, count) : bitmap.clearRegion(start, count);
            std::fill_n(first, count, fills);
        }
    }
}

// The sector behind the last has a bit of its own, even when it lies in a word of its own.
TEST_P(BitmapKinds, TheSectorEqualToTheirNumberIsAccepted) {
    for (const unsigned long sectors : {0UL, 64UL, 100UL, 128UL, 4096UL * 8, 4096UL * 16}) {
        init(sectors);
        bitmap.setBit(sectors);
        EXPECT_TRUE(bitmap.isSet(sectors)) << sectors;
        EXPECT_EQ(bitmap.getExtent(0, sectors, set), sectors);
        EXPECT_EQ(refusedBy(bitmap, sectors + 1, 1), ALL);
    }
}

TEST_P(BitmapKinds, RefusesRegionsThatEndBehindTheLastSector) {
    init(100);
    bitmap.setRegion(0, 100);
    for (const auto& [start, count] : {std::pair{0UL, 101UL}, {100UL, 1UL}, {1UL, ~0UL}}) {
        EXPECT_EQ(refusedBy(bitmap, start, count), "setRegion clearRegion getExtent ") << start;
    }
    EXPECT_EQ(refusedBy(bitmap, ~0UL, 2), ALL);
    EXPECT_EQ(refusedBy(bitmap, 3, 0), "setRegion clearRegion ");
    EXPECT_EQ(bitmap.getExtent(0, 100, set), 100U);
    EXPECT_EQ(bitmap.getExtent(100, 0, set), 0U);
    EXPECT_TRUE(set);
}

TEST_P(BitmapKinds, WholeBytesAndWords) {
    init(192);
    bitmap.setRegion(3, 70);
    EXPECT_FALSE(bitmap.isUint8Set(7, true) || bitmap.isUint8Set(0, false));
    EXPECT_TRUE(bitmap.isUint8Set(8, true) && bitmap.isUint8Set(71, true));
    EXPECT_TRUE(bitmap.isUint8Set(191, false) && bitmap.isUint64Set(128, false));
    EXPECT_FALSE(bitmap.isUint64Set(63, true));
    bitmap.setRegion(64, 64);
    EXPECT_TRUE(bitmap.isUint64Set(64, true));
}

TEST_P(BitmapKinds, AnInactiveBitmapIsOneSetRun) {
    EXPECT_EQ(bitmap.init(100, false, 0, PREFIX), 0);
    EXPECT_TRUE(bitmap.isSet(1'000'000));
    EXPECT_EQ(bitmap.getExtent(10, 80, set), 80U);
    EXPECT_TRUE(set);
    EXPECT_EQ(refusedBy(bitmap, 0, 100), "setBit setRegion clearRegion isUint8Set isUint64Set ");
}

// Nothing may be read or written where there are no bits: before `init` and after `freeMemory`.
TEST_P(BitmapKinds, WithoutBitsEverythingIsRefused) {
    EXPECT_EQ(refusedBy(bitmap, 0, 1), ALL);
    init(200);
    bitmap.freeMemory();
    EXPECT_EQ(bitmap.getSize(), 0U);
    EXPECT_EQ(refusedBy(bitmap, 0, 200), ALL);
}

TEST_P(BitmapKinds, DumpWritesTheSetRuns) {
    const TemporaryFolder folder;
    const std::string path = folder / (GetParam() == RvpBitmap::HEAP ? "runs.dump" : "runs.mmf");
    init(300);
    bitmap.setRegion(0, 60);
    bitmap.setRegion(299, 1);
    const LogCapture log;
    bitmap.dump(folder / "runs");
    EXPECT_THAT(log.lines(), Contains("dump:RvpBitmapX64 <DEBUG> Opening log file: " + path));
    // The first look takes the bytes for a number of sectors.
    EXPECT_EQ(readFile(path), "Size of file = [40] bytes. Number of sectors = [300] \n"
                              " [0]   [40] \n [40]   [20] \n [299]   [1] \n");
    init(7);
    EXPECT_THROW(bitmap.dump(folder / "runs"), OrmaError);
    EXPECT_EQ(readFile(path), "Size of file = [8] bytes. Number of sectors = [7] \n");
}

// The heap may hand out memory that was in use: only an eighth of the array is cleared.
TEST(Bitmap, TheHeapKindClearsAnEighthOfItsArray) {
    constexpr unsigned long SECTORS = 64 * 1024;
    mallopt(M_PERTURB, 0x55); // fresh memory is full of set bits
    RvpBitmap bitmap(RvpBitmap::HEAP);
    bitmap.init(SECTORS, true, 0, "");
    mallopt(M_PERTURB, 0);
    bool set = true;
    const unsigned long clear = bitmap.getExtent(0, SECTORS, set);
    EXPECT_FALSE(set);
    EXPECT_LT(clear - SECTORS / 8, 8U) << "the rest is as it was allocated";
}

// The file that is named like the heap kind's prefix goes with the bitmap; hosts count on it.
TEST(Bitmap, TheHeapKindRemovesTheFileNamedLikeItsPrefix) {
    const TemporaryFolder folder;
    const std::string path = folder / "prefix";
    writeFile(path, "x");
    RvpBitmap bitmap(RvpBitmap::HEAP);
    bitmap.init(100, true, 0, path);
    EXPECT_TRUE(exists(path));
    bitmap.freeMemory();
    EXPECT_FALSE(exists(path));
}

// The path of the first temporary file, or nothing.
std::string tempFileIn(const LogCapture& log) {
    const std::string lead = "Temp file name for bitmapfile: ";
    for (const std::string& line : log.lines()) {
        if (const auto at = line.find(lead); at != line.npos) {
            return line.substr(at + lead.size());
        }
    }
    return {};
}

TEST(Bitmap, TheMappedKindIsClearAndItsFileNeverHoldsABit) {
    const LogCapture log;
    std::string path;
    {
        RvpBitmap bitmap(RvpBitmap::FILE_MAPPING);
        bitmap.init(4096 * 8, true, 0, PREFIX);
        bool set = true;
        EXPECT_EQ(bitmap.getExtent(0, 4096 * 8, set), 4096UL * 8);
        EXPECT_FALSE(set);
        bitmap.setRegion(0, 4096 * 8);
        path = tempFileIn(log);
        EXPECT_TRUE(path.starts_with("/tmp/dorado_bitmap_test")) << path;
        EXPECT_EQ(readFile(path), std::string(40960, '\0'));
    }
    EXPECT_FALSE(exists(path));
    const std::vector<std::string> expected = {
        "init:RvpBitmapX64 <INFO> Using RvpBitmap",
        "init:RvpBitmapX64 <INFO>  Size of file = [4096] bytes. Number of sectors = [32768] ",
        "createBitmapFile:RvpBitmapX64 <DEBUG> Temp file name for bitmapfile: " + path,
        "allocMemory:RvpBitmapX64 <INFO> File map done, allocated [8192] ",
        "allocMemory:RvpBitmapX64 <INFO> Map view done "};
    EXPECT_EQ(log.lines(), expected);
    EXPECT_TRUE(lieInOrder(&RvpMap::isSet, &RvpMap::setBit, &RvpMap::init));
}

// 32 GiB of bits; only the pages that are touched need memory. A silent host is told nothing of it.
TEST(Bitmap, AMappedBitmapMayBeLargerThanTheMemory) {
    km_debug_level = 0;
    const LogCapture log;
    constexpr unsigned long LAST = (1UL << 38) - 1;
    RvpBitmap bitmap(RvpBitmap::FILE_MAPPING);
    bitmap.init(LAST + 1, true, 0, PREFIX);
    bitmap.setBit(LAST);
    bool set = true;
    EXPECT_EQ(bitmap.getExtent(LAST - 99'999, 100'000, set), 99'999U);
    bitmap.dump("no such folder/runs");
    EXPECT_TRUE(log.caught.empty());
}

void setLimit(__rlimit_resource resource, rlim_t value) {
    rlimit limit = {};
    getrlimit(resource, &limit);
    limit.rlim_cur = std::min(value, limit.rlim_max);
    EXPECT_EQ(setrlimit(resource, &limit), 0);
}

// `init` must fail in the function; then there are no bits, and no file once the bitmap is gone.
void expectFailingInit(int kind, const char* prefix, unsigned long sectors,
                       const std::string& function, int code, const std::string& check) {
    const LogCapture log;
    RvpBitmap bitmap(kind);
    EXPECT_EQ(raisedBy([&] { bitmap.init(sectors, true, 0, prefix); }),
              std::to_string(code) + " plugin/common/map_v2/rvp/RvpBitmapX64 " + function);
    EXPECT_EQ(log.lines().back(), function + ":RvpBitmapX64 <ERROR> Exception: " + check);
    EXPECT_EQ(refusedBy(bitmap, 0, 1), ALL);
    bitmap.freeMemory();
    EXPECT_FALSE(exists(tempFileIn(log)));
}

TEST(BitmapFailure, TheFileCannotBeOpenedOrSized) {
    expectFailingInit(RvpBitmap::FILE_MAPPING, "no such folder/x", 640, "createBitmapFile",
                      KMP_ERRNO_BASE + ENOENT, "VERIFY_LINUX_BOOL");
    std::signal(SIGXFSZ, SIG_IGN);
    setLimit(RLIMIT_FSIZE, 79'999);
    expectFailingInit(RvpBitmap::FILE_MAPPING, PREFIX, 64'000, "allocMemory",
                      KMP_ERRNO_BASE + EFBIG, "VERIFY_LINUX_BOOL");
    // A bitmap that failed serves after a second, smaller init.
    const LogCapture log;
    RvpBitmap bitmap(RvpBitmap::FILE_MAPPING);
    EXPECT_THROW(bitmap.init(64'000, true, 0, PREFIX), LinuxError);
    EXPECT_THAT(
        log.lines(),
        Contains("allocMemory:RvpBitmapX64 <ERROR> Fail to truncate file to size: [80000] "));
    EXPECT_EQ(bitmap.init(63'936, true, 0, PREFIX), 0);
    EXPECT_FALSE(exists(tempFileIn(log)));
    EXPECT_EQ(refusedBy(bitmap, 5, 990), "");
    setLimit(RLIMIT_FSIZE, RLIM_INFINITY);
}

TEST(BitmapFailure, NoAddresses) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer needs more addresses than can be limited";
#endif
    setLimit(RLIMIT_AS, 1UL << 29);
    expectFailingInit(RvpBitmap::FILE_MAPPING, PREFIX, 1UL << 33, "allocMemory",
                      KMP_ERRNO_BASE + ENOMEM,
                      "VERIFY_LINUX errno: 12 error: Cannot allocate memory ");
    expectFailingInit(RvpBitmap::HEAP, PREFIX, ~0UL, "allocMemory", KMP_EINVAL, "VERIFY_PTR");
    setLimit(RLIMIT_AS, RLIM_INFINITY);
}

} // namespace
