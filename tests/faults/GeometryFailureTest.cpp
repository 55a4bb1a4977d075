// The same for the geometry classes: memory runs short at every allocation of an assembly, a parse,
// a bitmap, a block; what fails says so, leaves what was there as it was, and works once more.
#include "Error.h"
#include "FaultyHeap.h"
#include "LvmConfig.h"
#include "RvpBitmapX64.h"
#include "RvpMemory.h"
#include "raid/RaidTesting.h"

#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <new>

namespace {

// The errors that an operation reports instead of throwing.
struct Listener : kmp_ehandler {
    Listener() : kmp_ehandler{hear} { Error::s_pHandler = this; }
    ~Listener() { Error::s_pHandler = nullptr; }
    static void hear(kmp_ehandler* self, const char*, const char*, int) {
        ++static_cast<Listener*>(self)->heard;
    }
    int heard = 0;
};

template <typename Call>
bool works(Call call) {
    Listener listener;
    bool good = true;
    FaultyHeap::watch(true);
    try {
        call();
    } catch (const std::bad_alloc&) {
        good = false;
    } catch (const OrmaError& error) {
        FaultyHeap::watch(false);
        EXPECT_EQ(error.m_code, KMP_EINVAL);
        good = false;
    }
    FaultyHeap::watch(false);
    return good && listener.heard == 0;
}

// Once more when it failed.
template <typename Call>
void insist(Call call) {
    if (!works(call)) {
        FaultyHeap::heal();
        EXPECT_TRUE(works(call));
    }
}

bool readSuperblock(void* context, RvpDisk&, unsigned long sector, unsigned long, char* buffer) {
    auto& bytes = *static_cast<std::pair<unsigned long, SuperblockBytes>*>(context);
    std::memset(buffer, 0, 4096);
    if (sector == bytes.first) {
        std::memcpy(buffer, bytes.second.data(), 4096);
    }
    return true;
}

std::string mapped(RvpRaid& raid, const RvpVolume& volume) {
    std::string text;
    for (unsigned long offset = 0; offset < 8 << 20; offset += 300'000) {
        const auto found = mapAddress(raid, volume, offset, 1 << 20);
        text += found ? testing::PrintToString(*found) + "\n" : "nowhere\n";
    }
    return text;
}

// Members of unequal size, each found by the probe; sectors 2048 to 2048 + size.
std::string assemble(bool isV1, SuperblockValues values) {
    RvpRaid raid;
    values.setName = "a name long enough for the heap";
    for (values.role = 0; values.role < values.disks; ++values.role) {
        const unsigned long size = 4096 + 1024 * values.role;
        RvpDisk disk = makeDisk("disk number " + std::to_string(values.role), 2048, size);
        std::pair<unsigned long, SuperblockBytes> bytes = {
            2048 + size - (isV1 ? 16 : 128), isV1 ? v1Bytes(values) : v090Bytes(values)};
        insist([&] { raid.addMbrPartition(disk, readSuperblock, &bytes); });
    }
    RvpVolume volume{};
    volume.diskName = "disk number 0";
    volume.partitionStart = 2048;
    return mapped(raid, volume);
}

std::string parseRealText() {
    std::ifstream file(LVM_DATA_DIR "/linear.vgcfg");
    const std::string text(std::istreambuf_iterator<char>(file), {});
    LvmConfig config;
    std::string dumped;
    insist([&] { config.parse(text); });
    EXPECT_EQ(config.getErrorCode(), 0);
    insist([&] { dumped = config.root.strValue(); });
    return dumped;
}

std::string makeGroup() {
    std::string dumped;
    insist([&] {
        LvmConfig config;
        config.initNew("a group whose name is on the heap");
        config.addPv("id", "/dev/a-device-with-a-long-name", 1UL << 30);
        config.vg()["id"] = "fixed";
        config.root["creation_time"] = 1UL;
        dumped = config.root.strValue();
    });
    return dumped;
}

std::string useBitmap(int kind) {
    RvpBitmap bitmap(kind);
    const std::string prefix = "dorado-faults-a-long-prefix";
    insist([&] { bitmap.init(100'000, true, 0, prefix); });
    bitmap.clearRegion(0, 100'000);
    bitmap.setRegion(5000, 7000);
    insist([&] { bitmap.dump("/dev/null/none"); });
    bool set = false;
    return std::to_string(bitmap.getExtent(5000, 95'000, set)) + (set ? " set" : " clear");
}

std::string useMemory() {
    const std::string text(1000, 'm');
    RvpMemory block;
    RvpMemory other;
    insist([&] { block.copy(text.data(), text.size()); });
    insist([&] { block.extend(2000); });
    insist([&] { other = block; });
    return {static_cast<const char*>(other.getMemory()), other.getSize()};
}

struct Operation {
    const char* name;
    std::function<std::string()> run;
};

void PrintTo(const Operation& operation, std::ostream* out) {
    *out << operation.name;
}

const std::vector<Operation> OPERATIONS = {
    {"StripesByV090", [] { return assemble(false, {.level = 0, .disks = 3}); }},
    {"ParityByV1", [] { return assemble(true, {.level = 5, .disks = 3}); }},
    {"MirroredStripesByV1", [] { return assemble(true, {.level = 10, .disks = 4}); }},
    {"Parse", parseRealText},
    {"Generate", makeGroup},
    {"HeapBitmap", [] { return useBitmap(RvpBitmap::HEAP); }},
    {"MappedBitmap", [] { return useBitmap(RvpBitmap::FILE_MAPPING); }},
    {"Memory", useMemory},
};

class GeometryFailure : public testing::TestWithParam<std::tuple<Operation, bool>> {};

TEST_P(GeometryFailure, AtEveryAllocation) {
    const auto& [operation, onwards] = GetParam();
    kmhost_log_to(nullptr, nullptr);
    FaultyHeap::fail(0, false);
    const std::string usual = operation.run();
    // What is kept once in a process, such as the time zone, comes in the first pass.
    for (const bool isFirstPass : {true, false}) {
        bool struck = true;
        for (long number = 1; struck; ++number) {
            FaultyHeap::fail(number, onwards);
            const long before = FaultyHeap::liveBlocks();
            const bool same = operation.run() == usual;
            const long growth = FaultyHeap::liveBlocks() - before;
            EXPECT_TRUE(isFirstPass || growth == 0) << number << ": " << growth;
            EXPECT_TRUE(same) << number;
            struck = FaultyHeap::failures() != 0;
            RecordProperty("allocations", static_cast<int>(number - 1));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(, GeometryFailure,
                         testing::Combine(testing::ValuesIn(OPERATIONS), testing::Bool()),
                         [](const auto& test) {
                             return std::get<0>(test.param).name +
                                    std::string(std::get<1>(test.param) ? "Onwards" : "Once");
                         });

} // namespace
