// Memory blocks: contents through growth and copies, the guard, dumps, layout.
#include "Error.h"
#include "RvpMemory.h"
#include "support/Files.h"
#include "support/LogCapture.h"

#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;
const std::string GUARD = "RvMS";

// The block's usable bytes and the guard behind them; "none" without a block.
std::string bytesOf(const RvpMemory& memory) {
    const auto* bytes = static_cast<const char*>(memory.getMemory());
    return bytes != nullptr ? std::string(bytes, memory.getSize() + GUARD.size()) : "none";
}

TEST(Memory, BlocksAreZeroAndGrowKeepingTheirBytes) {
    RvpMemory memory;
    for (const unsigned long size : {0UL, 5UL, 4096UL}) {
        memory.alloc(size);
        EXPECT_EQ(bytesOf(memory), std::string(size, '\0') + GUARD);
        std::memset(memory, 'x', size);
    }
    memory.extend(5000);
    memory.extend(1); // never shrinks
    EXPECT_EQ(bytesOf(memory), std::string(4096, 'x') + std::string(904, '\0') + GUARD);
    void* fields[4];
    std::memcpy(fields, static_cast<const void*>(std::addressof(memory)), sizeof fields);
    EXPECT_EQ(fields[2], memory.getMemory()); // between the two sizes
}

TEST(Memory, CopiesAreDeep) {
    RvpMemory one;
    one.copy("hello", 5);
    RvpMemory two(one);
    std::memset(two, 'j', 1);
    EXPECT_EQ(bytesOf(one), "hello" + GUARD);
    two = static_cast<const RvpMemory&>(two);
    EXPECT_EQ(bytesOf(two), "jello" + GUARD);
    one.copy(nullptr, 0); // no bytes, but a block
    two = one;
    EXPECT_EQ(bytesOf(two), GUARD);
    two = RvpMemory();
    EXPECT_EQ(bytesOf(two), "none");
}

// Each way of releasing a block looks at its guard.
TEST(Memory, ADamagedGuardIsLoggedWhenTheBlockIsReleased) {
    LogCapture log;
    RvpMemory memory;
    const auto damaged = [&memory]() -> RvpMemory& {
        memory.alloc(8);
        static_cast<char*>(memory.getMemory())[11] ^= 1;
        return memory;
    };
    damaged().freeMemory();
    damaged().alloc(1);
    damaged().extend(100);
    damaged() = RvpMemory();
    damaged().~RvpMemory();
    new (&memory) RvpMemory;
    EXPECT_EQ(log.lines(), Lines(5, "freeMemory:RvpMemory <DEBUG> Invalid memory signature, check "
                                    "for memory consistency"));
}

// Sizes up to the last must neither wrap around nor leave a half-made block.
TEST(Memory, AFailedAllocationThrows) {
    for (const unsigned long size : {ULONG_MAX, LONG_MAX + 1UL, LONG_MAX - 4UL}) {
        RvpMemory memory;
        memory.copy("abc", 3);
        EXPECT_THROW(memory.extend(size), OrmaError);
        EXPECT_EQ(bytesOf(memory), "abc" + GUARD);
        EXPECT_THROW(memory.alloc(size), OrmaError);
        EXPECT_EQ(bytesOf(memory), "none");
    }
}

// One test, because the permission and the directory are given once in a process.
TEST(MemoryDump, IsAllowedOnceByTheSignOfTheDebugLevel) {
    const TemporaryFolder folder;
    km_log_root = folder.path().c_str();
    RvpMemory memory;
    memory.copy("0123456789", 10);
    EXPECT_FALSE(memory.dump("block", 0, nullptr));
    km_debug_level = INT_MIN;
    EXPECT_TRUE(memory.dump("block", 0, nullptr));
    km_debug_level = 1;
    km_log_root = "/nowhere"; // neither matters from now on
    EXPECT_TRUE(memory.dump("block", 1000, nullptr));
    EXPECT_EQ(readFile(folder / "block.rvpmem"), "0123456789" + GUARD);

    LogCapture log;
    std::FILE* stream = nullptr;
    EXPECT_FALSE(memory.dump("none/block", 0, &stream));
    EXPECT_TRUE(memory.dump("stream", 2, &stream));
    EXPECT_TRUE(memory.dump("other", 0, &stream)); // goes into the same stream
    std::fclose(stream);
    EXPECT_EQ(readFile(folder / "stream.rvpmem"), "010123456789");
    const std::string opening = "dump:RvpMemory <INFO> Opening log file: " + folder.path();
    const std::string failed = "dump:RvpMemory <WARN> Unable to create log file: " + folder.path();
    EXPECT_EQ(log.lines(), (Lines{opening + "/none/block.rvpmem", failed + "/none/block.rvpmem",
                                  opening + "/stream.rvpmem"}));

    stream = std::fopen("/dev/full", "wb");
    std::setvbuf(stream, nullptr, _IONBF, 0);
    EXPECT_FALSE(memory.dump("full", 0, &stream));
    std::fclose(stream);
}

} // namespace
