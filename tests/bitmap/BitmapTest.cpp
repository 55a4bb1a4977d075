// The bitmap beside a plain model, its layout, its refusals and its dump.
#include "BitmapTesting.h"
#include "support/Layout.h"

#include <algorithm>
#include <cstring>
#include <malloc.h>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

// A bitmap and the std::vector<bool> that it must agree with.
class Modelled {
  public:
    Modelled(int kind, unsigned long sectors) : bitmap(kind), model(sectors, false) {
        bitmap.init(sectors, true, 0, PREFIX);
        if (sectors != 0) {
            bitmap.clearRegion(0, sectors);
        }
    }

    void fill(unsigned long start, unsigned long count, bool set) {
        set ? bitmap.setRegion(start, count) : bitmap.clearRegion(start, count);
        std::fill_n(model.begin() + static_cast<std::ptrdiff_t>(start), count, set);
    }

    void expectRun(unsigned long start, unsigned long count) {
        const bool expectedSet = model[start];
        unsigned long expected = 0;
        while (expected < count && model[start + expected] == expectedSet) {
            ++expected;
        }
        bool set = !expectedSet;
        ASSERT_EQ(bitmap.getExtent(start, count, set), expected) << start << " " << count;
        ASSERT_EQ(set, expectedSet) << start;
    }

    void expectEqual() {
        for (unsigned long sector = 0; sector < model.size(); ++sector) {
            ASSERT_EQ(bitmap.isSet(sector), model[sector]) << sector;
        }
    }

    RvpBitmap bitmap;
    std::vector<bool> model;
};

class BitmapKinds : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Storage, BitmapKinds, testing::ValuesIn(KINDS));

// Sizes on both sides of bytes, words and the blocks of long runs.
TEST_P(BitmapKinds, RandomOperationsAgreeWithTheModel) {
    std::mt19937_64 random(20240229);
    const auto upTo = [&random](unsigned long limit) { return random() % (limit + 1); };
    for (const unsigned long sectors : {1UL, 7UL, 8UL, 63UL, 64UL, 65UL, 1000UL, 4096UL, 99999UL}) {
        Modelled tested(GetParam(), sectors);
        EXPECT_EQ(tested.bitmap.getSize(), (sectors + 63) / 64 * 8);
        for (int step = 0; step < 3000; ++step) {
            const unsigned long start = upTo(sectors - 1);
            const unsigned long rest = sectors - start;
            const unsigned long count = 1 + upTo(random() % 4 == 0 ? rest - 1 : (rest - 1) % 130);
            switch (random() % 4) {
            case 0:
                tested.bitmap.setBit(start);
                tested.model[start] = true;
                break;
            case 1:
                tested.fill(start, count, random() % 2 == 0);
                break;
            default:
                tested.expectRun(start, count);
                tested.expectRun(start, rest);
            }
            if (HasFatalFailure()) {
                return;
            }
        }
        tested.expectEqual();
    }
}

// The sector behind the last has a bit of its own, even when it lies in a word of its own.
TEST_P(BitmapKinds, TheSectorEqualToTheirNumberIsAccepted) {
    for (const unsigned long sectors : {0UL, 64UL, 100UL, 128UL, 4096UL * 8, 4096UL * 16}) {
        Modelled tested(GetParam(), sectors);
        tested.bitmap.setBit(sectors);
        EXPECT_TRUE(tested.bitmap.isSet(sectors)) << sectors;
        if (sectors != 0) {
            tested.expectRun(0, sectors);
        }
        EXPECT_EQ(raisedBy([&] { tested.bitmap.setBit(sectors + 1); }), raisedIn("setBit"));
        EXPECT_EQ(raisedBy([&] { tested.bitmap.isSet(sectors + 1); }), refusedInHeader("isSet"));
    }
}

TEST_P(BitmapKinds, RefusalsNameThePlaceAndChangeNothing) {
    Modelled tested(GetParam(), 100);
    RvpBitmap& bitmap = tested.bitmap;
    LogCapture log;
    bool set = true;
    const unsigned long huge = ~0UL;
    struct Region {
        unsigned long start;
        unsigned long count;
    };
    for (const Region r : {Region{0, 101}, {100, 1}, {1, huge}, {huge, 2}}) {
        EXPECT_EQ(raisedBy([&] { bitmap.setRegion(r.start, r.count); }), raisedIn("setRegion"));
        EXPECT_EQ(raisedBy([&] { bitmap.clearRegion(r.start, r.count); }), raisedIn("clearRegion"));
        EXPECT_EQ(raisedBy([&] { bitmap.getExtent(r.start, r.count, set); }),
                  raisedIn("getExtent"));
    }
    EXPECT_EQ(raisedBy([&] { bitmap.setRegion(3, 0); }), raisedIn("setRegion"));
    EXPECT_EQ(raisedBy([&] { bitmap.clearRegion(3, 0); }), raisedIn("clearRegion"));
    EXPECT_EQ(raisedBy([&] { bitmap.isUint8Set(101, true); }), refusedInHeader("isUint8Set"));
    EXPECT_EQ(raisedBy([&] { bitmap.isUint64Set(101, true); }), refusedInHeader("isUint64Set"));
    EXPECT_EQ(bitmap.getExtent(100, 0, set), 0U);
    EXPECT_TRUE(set);
    tested.expectEqual();
    EXPECT_EQ(log.lines().front(), "setRegion:RvpBitmapX64 <ERROR> Exception: VERIFY_ORMA_BOOL");
    EXPECT_EQ(log.lines().back(), "isUint64Set:RvpBitmapX64.h <ERROR> Exception: VERIFY_ORMA_BOOL");
}

TEST_P(BitmapKinds, WholeBytesAndWords) {
    Modelled tested(GetParam(), 192);
    tested.fill(3, 70, true);
    RvpBitmap& bitmap = tested.bitmap;
    EXPECT_FALSE(bitmap.isUint8Set(7, true) || bitmap.isUint8Set(0, false));
    EXPECT_TRUE(bitmap.isUint8Set(8, true) && bitmap.isUint8Set(71, true));
    EXPECT_TRUE(bitmap.isUint8Set(191, false) && bitmap.isUint64Set(128, false));
    EXPECT_FALSE(bitmap.isUint64Set(63, true));
    tested.fill(64, 64, true);
    EXPECT_TRUE(bitmap.isUint64Set(64, true));
}

TEST_P(BitmapKinds, AnInactiveBitmapIsOneSetRun) {
    RvpBitmap bitmap(GetParam());
    LogCapture log;
    EXPECT_EQ(bitmap.init(100, false, 0, PREFIX), 0);
    EXPECT_EQ(log.lines(), Lines{"init:RvpBitmapX64 <INFO> Using RvpBitmap"});
    EXPECT_EQ(bitmap.getSize(), 16U);
    EXPECT_TRUE(bitmap.isSet(0));
    EXPECT_TRUE(bitmap.isSet(1'000'000));
    bool set = false;
    EXPECT_EQ(bitmap.getExtent(10, 80, set), 80U);
    EXPECT_TRUE(set);
    EXPECT_EQ(raisedBy([&] { bitmap.getExtent(0, 101, set); }), raisedIn("getExtent"));
    EXPECT_EQ(raisedBy([&] { bitmap.setBit(1); }), raisedIn("setBit"));
    EXPECT_EQ(raisedBy([&] { bitmap.setRegion(1, 1); }), raisedIn("setRegion"));
    EXPECT_EQ(raisedBy([&] { bitmap.clearRegion(1, 1); }), raisedIn("clearRegion"));
}

// Nothing may be read or written where there are no bits: before `init` and after `freeMemory`.
TEST_P(BitmapKinds, WithoutBitsEverythingIsRefused) {
    const auto expectNoBits = [](RvpBitmap& bitmap, unsigned long sectors) {
        EXPECT_EQ(raisedBy([&] { bitmap.setBit(0); }), raisedIn("setBit"));
        EXPECT_EQ(raisedBy([&] { bitmap.isSet(0); }), refusedInHeader("isSet"));
        EXPECT_EQ(raisedBy([&] { bitmap.isUint64Set(0, true); }), refusedInHeader("isUint64Set"));
        EXPECT_EQ(raisedBy([&] { bitmap.setRegion(0, sectors); }), raisedIn("setRegion"));
        EXPECT_EQ(bitmap.getSize(), 0U);
    };
    RvpBitmap bitmap(GetParam());
    expectNoBits(bitmap, 0);
    LogCapture log;
    bitmap.init(1000, true, 0, PREFIX);
    bitmap.init(200, true, 0, PREFIX);
    EXPECT_FALSE(exists(tempFileIn(log))); // the first one's
    bitmap.freeMemory();
    expectNoBits(bitmap, 200);
    TemporaryFolder folder;
    EXPECT_EQ(raisedBy([&] { bitmap.dump(folder / "freed"); }), raisedIn("getExtent"));
}

TEST_P(BitmapKinds, DumpWritesTheSetRuns) {
    TemporaryFolder folder;
    const std::string path = folder / (GetParam() == RvpBitmap::HEAP ? "runs.dump" : "runs.mmf");
    const auto expectDump = [&](Modelled& tested, const std::string& content) {
        LogCapture log;
        tested.bitmap.dump(folder / "runs");
        EXPECT_EQ(readFile(path), content);
        EXPECT_EQ(log.lines(), Lines{"dump:RvpBitmapX64 <DEBUG> Opening log file: " + path});
    };
    Modelled tested(GetParam(), 300); // 40 bytes: the first look ends at sector 40
    const std::string lead = "Size of file = [40] bytes. Number of sectors = [300] \n";
    tested.fill(30, 20, true);
    tested.fill(299, 1, true);
    expectDump(tested, lead + " [30]   [20] \n [299]   [1] \n");
    tested.fill(0, 300, true);
    expectDump(tested, lead + " [0]   [40] \n [40]   [260] \n");
    EXPECT_NO_THROW(tested.bitmap.dump(folder / "no such folder/runs"));

    // With fewer than eight sectors the bytes of the array are more than there are sectors.
    Modelled few(GetParam(), 7);
    EXPECT_EQ(raisedBy([&] { few.bitmap.dump(folder / "runs"); }), raisedIn("getExtent"));
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
#ifdef __SANITIZE_ADDRESS__
    EXPECT_GE(clear, SECTORS / 8);
#else
    EXPECT_LT(clear - SECTORS / 8, 8U) << "the rest is as it was allocated";
#endif
}

TEST(Bitmap, TheMappedKindIsClearAndItsFileNeverHoldsABit) {
    LogCapture log;
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
        EXPECT_EQ(
            log.lines(),
            (Lines{"init:RvpBitmapX64 <INFO> Using RvpBitmap",
                   "init:RvpBitmapX64 <INFO>  Size of file = [4096] bytes. Number of sectors = "
                   "[32768] ",
                   "createBitmapFile:RvpBitmapX64 <DEBUG> Temp file name for bitmapfile: " + path,
                   "allocMemory:RvpBitmapX64 <INFO> File map done, allocated [8192] ",
                   "allocMemory:RvpBitmapX64 <INFO> Map view done "}));
    }
    EXPECT_FALSE(exists(path));
}

// The file that is named like the heap kind's prefix goes with the bitmap; hosts count on it.
TEST(Bitmap, TheHeapKindRemovesTheFileNamedLikeItsPrefix) {
    TemporaryFolder folder;
    const std::string path = folder / "prefix";
    std::ofstream(path) << "x";
    {
        RvpBitmap bitmap(RvpBitmap::HEAP);
        bitmap.init(100, true, 0, path);
        EXPECT_TRUE(exists(path));
    }
    EXPECT_FALSE(exists(path));
}

// 128 GiB of bits; only the pages that are touched need memory.
TEST(Bitmap, AMappedBitmapMayBeLargerThanTheMemory) {
    constexpr unsigned long SECTORS = 1UL << 40;
    RvpBitmap bitmap(RvpBitmap::FILE_MAPPING);
    try {
        bitmap.init(SECTORS, true, 0, PREFIX);
    } catch (const LinuxError& error) {
        GTEST_SKIP() << "the system allows no such file or mapping: " << error.m_code;
    }
    bitmap.setRegion(SECTORS - 1000, 1000);
    bool set = false;
    EXPECT_EQ(bitmap.getExtent(SECTORS - 1000, 1000, set), 1000U);
    EXPECT_TRUE(set);
    EXPECT_EQ(bitmap.getExtent(SECTORS - 100'000, 100'000, set), 99'000U);
    EXPECT_FALSE(set);
}

TEST_P(BitmapKinds, ASilentHostIsToldNothing) {
    km_debug_level = 0;
    TemporaryFolder folder;
    LogCapture log;
    Modelled tested(GetParam(), 300);
    tested.fill(30, 20, true);
    tested.bitmap.dump(folder / "runs");
    EXPECT_EQ(raisedBy([&] { tested.bitmap.setRegion(300, 1); }), raisedIn("setRegion"));
    tested.expectEqual();
    EXPECT_TRUE(log.caught.empty());
}

// Bit and field positions are part of the binary interface.
TEST(BitmapLayout, Fields) {
    LogCapture log;
    RvpBitmap bitmap(RvpBitmap::FILE_MAPPING);
    bitmap.init(100, true, 0, PREFIX);
    bitmap.setBit(9);
    const auto field = [&bitmap]<typename Type>(std::size_t offset, Type) {
        Type value;
        std::memcpy(&value, reinterpret_cast<const char*>(&bitmap) + offset, sizeof value);
        return value;
    };
    EXPECT_EQ(field(8, int{}), RvpBitmap::FILE_MAPPING);
    EXPECT_EQ(field(12, bool{}), false);
    const auto* bits = field(16, static_cast<const unsigned char*>(nullptr));
    EXPECT_EQ(bits[1], 0x02);
    EXPECT_EQ(field(24, 0UL), 16U);
    EXPECT_EQ(field(32, 0UL), 100U);
    EXPECT_EQ(field(40, 0UL), static_cast<unsigned long>(sysconf(_SC_PAGESIZE)));
    EXPECT_EQ(*reinterpret_cast<const std::string*>(reinterpret_cast<const char*>(&bitmap) + 48),
              tempFileIn(log));
    EXPECT_GE(field(80, int{}), 0);
    EXPECT_EQ(field(88, 0UL), 16U);
}

TEST(BitmapLayout, Slots) {
    EXPECT_TRUE(lieInOrder(&RvpMap::isSet, &RvpMap::setBit, &RvpMap::init));
}

} // namespace
