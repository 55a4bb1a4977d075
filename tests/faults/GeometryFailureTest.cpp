// The same for the geometry classes: memory runs short at every allocation of an assembly, a parse,
// a bitmap; what fails says so, leaves what was there as it was, and works once more.
#include "FaultyHeap.h"
#include "LvmConfig.h"
#include "RvpBitmapX64.h"
#include "raid/RaidTesting.h"
#include "support/Files.h"

#include <gtest/gtest.h>

namespace {

// The errors that an operation reports instead of throwing.
int s_heard = 0;
kmp_ehandler s_listener = {[](kmp_ehandler*, const char*, const char*, int) { ++s_heard; }};

template <typename Call>
bool works(Call call) {
    s_heard = 0;
    try {
        const FaultyHeap::Watch watch;
        call();
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const OrmaError& error) {
        EXPECT_EQ(error.m_code, KMP_EINVAL);
        return false;
    }
    return s_heard == 0;
}

// Once more when it failed.
template <typename Call>
void insist(Call call) {
    if (!works(call)) {
        FaultyHeap::fault.number = 0;
        EXPECT_TRUE(works(call));
    }
}

bool readSuperblock(void* superblock, RvpDisk&, unsigned long, unsigned long, char* buffer) {
    std::memcpy(buffer, superblock, 4096);
    return true;
}

// Members of unequal size. The answer is where parts of the array lie.
std::string assemble(bool isV1, SuperblockValues values) {
    RvpRaid raid;
    values.setName = "a name long enough for the heap";
    for (values.role = 0; values.role < values.disks; ++values.role) {
        const std::string name = "disk number " + std::to_string(values.role);
        RvpDisk disk = makeDisk(name, 2048, 4096 + 1024 * values.role);
        SuperblockBytes bytes = isV1 ? v1Bytes(values) : v090Bytes(values);
        insist([&] {
            isV1 ? raid.addPartitionToVolume_v1(disk, bytes.v1())
                 : raid.addMbrPartition(disk, readSuperblock, bytes.data());
        });
    }
    const RvpVolume volume = {"disk number 0", 2048};
    std::string mapped;
    for (unsigned long offset = 0; offset < 8 << 20; offset += 300'000) {
        mapped += testing::PrintToString(mapAddress(raid, volume, offset, 1 << 20));
    }
    return mapped;
}

std::string parseRealText() {
    const std::string text = readFile(LVM_DATA_DIR "/linear.vgcfg");
    LvmConfig config;
    std::string dumped;
    insist([&] { config.parse(text); });
    EXPECT_EQ(config.getErrorCode(), 0);
    insist([&] { dumped = config.root.strValue(); });
    return dumped;
}

std::string makeGroup() {
    LvmConfig config;
    insist([&] {
        config.initNew("a group whose name is on the heap");
        config.addPv("id", "/dev/a-device-with-a-long-name", 1UL << 30);
    });
    config.vg()["id"] = "fixed";
    config.root["creation_time"] = 1UL;
    return config.root.strValue();
}

std::string useBitmap(int kind) {
    RvpBitmap bitmap(kind);
    insist([&] { bitmap.init(100'000, true, 0, "dorado-faults-a-long-prefix"); });
    bitmap.clearRegion(0, 100'000);
    bitmap.setRegion(5000, 7000);
    insist([&] { bitmap.dump("/dev/null/none"); });
    bool set = false;
    return std::to_string(bitmap.getExtent(5000, 95'000, set)) + (set ? " set" : " clear");
}

const std::pair<const char*, std::string (*)()> OPERATIONS[] = {
    {"stripes by 0.90", [] { return assemble(false, {.level = 0, .disks = 3}); }},
    {"parity by 1.0", [] { return assemble(true, {.level = 5, .disks = 3}); }},
    {"mirrored stripes by 1.0", [] { return assemble(true, {.level = 10, .disks = 4}); }},
    {"parse", parseRealText},
    {"generate", makeGroup},
    {"heap bitmap", [] { return useBitmap(RvpBitmap::HEAP); }},
    {"mapped bitmap", [] { return useBitmap(RvpBitmap::FILE_MAPPING); }},
};

class GeometryFailure : public testing::TestWithParam<bool> {};

TEST_P(GeometryFailure, AtEveryAllocation) {
    const bool onwards = GetParam();
    Error::s_pHandler = &s_listener;
    kmhost_log_to(nullptr, nullptr);
    for (const auto& [name, operation] : OPERATIONS) {
        FaultyHeap::fault = {};
        const std::string usual = operation();
        FaultyHeap::fault = {1, onwards};
        operation(); // what is kept once in a process, such as the time zone, comes now
        long number = 0;
        do {
            FaultyHeap::fault = {++number, onwards};
            const long before = FaultyHeap::liveBlocks;
            EXPECT_EQ(operation(), usual) << name << ": " << number;
            EXPECT_EQ(FaultyHeap::liveBlocks, before) << name << ": " << number;
        } while (FaultyHeap::fault.strikes != 0);
        RecordProperty(name, static_cast<int>(number - 1));
    }
}

INSTANTIATE_TEST_SUITE_P(, GeometryFailure, testing::Bool(),
                         [](const auto& test) { return test.param ? "Onwards" : "Once"; });

TEST(SystemErrorFailure, HasItsTextWithoutMemory) {
    const LinuxError error(KMP_ERRNO_BASE, "file", 1, "function");
    std::string text = "none";
    FaultyHeap::fault = {1, true};
    EXPECT_TRUE(works([&] { text = error.getEnglishText(); }));
    EXPECT_EQ(text, "Unknown error");
}

} // namespace
