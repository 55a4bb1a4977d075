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

using std::filesystem::exists;
using Lines = std::vector<std::string>;

const std::string GUARD = "RvMS";

// The block's usable bytes and the guard behind them; "none" without a block.
std::string bytesOf(const RvpMemory& memory) {
    if (memory.getMemory() == nullptr) {
        return memory.getSize() == 0 ? "none" : "a size without a block";
    }
    return {static_cast<const char*>(memory.getMemory()), memory.getSize() + GUARD.size()};
}

TEST(Memory, BlocksAreZeroAndGrowKeepingTheirBytes) {
    RvpMemory memory;
    memory.extend(0);
    EXPECT_EQ(bytesOf(memory), "none");
    for (const unsigned long size : {0UL, 1UL, 5UL, 4096UL}) {
        memory.alloc(size);
        EXPECT_EQ(bytesOf(memory), std::string(size, '\0') + GUARD);
        std::memset(memory.getMemory(), 'x', size);
    }
    memory.extend(5000);
    EXPECT_EQ(bytesOf(memory), std::string(4096, 'x') + std::string(904, '\0') + GUARD);
    const void* block = memory.getMemory();
    memory.extend(1); // never shrinks
    EXPECT_EQ(memory.getMemory(), block);
    EXPECT_EQ(memory.getSize(), 5000U);
    EXPECT_EQ(static_cast<void*>(memory), block);
    EXPECT_EQ(static_cast<const void*>(memory), block);
    memory.freeMemory();
    EXPECT_EQ(bytesOf(memory), "none");
}

TEST(Memory, CopiesAreDeep) {
    RvpMemory one;
    one.copy("hello", 5);
    RvpMemory two(one);
    std::memset(two.getMemory(), 'j', 1);
    EXPECT_EQ(bytesOf(one), "hello" + GUARD);
    EXPECT_EQ(bytesOf(two), "jello" + GUARD);
    const RvpMemory& self = two;
    two = self;
    EXPECT_EQ(bytesOf(two), "jello" + GUARD);
    one.copy(nullptr, 0); // no bytes, but a block
    two = one;
    EXPECT_EQ(bytesOf(two), GUARD);
    two = RvpMemory();
    EXPECT_EQ(bytesOf(two), "none");
}

// Each way of releasing a block looks at its guard; the block goes all the same.
TEST(Memory, ADamagedGuardIsLoggedWhenTheBlockIsReleased) {
    void (*const releases[])(RvpMemory&) = {
        [](RvpMemory& memory) { memory.freeMemory(); },
        [](RvpMemory& memory) { memory.alloc(1); },
        [](RvpMemory& memory) { memory.extend(100); },
        [](RvpMemory& memory) { memory.copy("x", 1); },
        [](RvpMemory& memory) { memory = RvpMemory(); },
        [](RvpMemory& memory) { memory.~RvpMemory(), new (&memory) RvpMemory; },
    };
    for (const auto& release : releases) {
        for (const unsigned long damaged : {8, 11}) {
            LogCapture log;
            RvpMemory memory;
            memory.alloc(8);
            static_cast<char*>(memory.getMemory())[damaged] ^= 1;
            release(memory);
            memory.freeMemory();
            EXPECT_EQ(log.lines(),
                      Lines{"freeMemory:RvpMemory <DEBUG> Invalid memory signature, check for "
                            "memory consistency"});
        }
    }
}

// Sizes up to the last must neither wrap around nor leave a half-made block.
TEST(Memory, AFailedAllocationThrows) {
    for (const unsigned long size : {ULONG_MAX, ULONG_MAX - 3, ULONG_MAX / 2 + 1}) {
        LogCapture log;
        RvpMemory memory;
        memory.copy("abc", 3);
        EXPECT_THROW(memory.extend(size), OrmaError);
        EXPECT_EQ(bytesOf(memory), "abc" + GUARD);
        EXPECT_THROW(memory.alloc(size), OrmaError);
        EXPECT_EQ(bytesOf(memory), "none");
        EXPECT_EQ(log.lines(), (Lines{"extend:RvpMemory <ERROR> Exception: VERIFY_PTR",
                                      "alloc:RvpMemory <ERROR> Exception: VERIFY_PTR"}));
    }
}

// One test, because the permission and the directory are given once in a process.
TEST(MemoryDump, IsAllowedOnceByTheSignOfTheDebugLevel) {
    TemporaryFolder folder;
    km_log_root = folder.path().c_str();
    const auto pathOf = [&](const std::string& name) { return folder / (name + ".rvpmem"); };
    const auto contentOf = [&](const std::string& name) {
        return exists(pathOf(name)) ? readFile(pathOf(name)) : "no file";
    };
    LogCapture log;
    RvpMemory memory;
    memory.copy("0123456789", 10);
    std::FILE* stream = nullptr;
    EXPECT_FALSE(memory.dump("block", 0, &stream));
    EXPECT_EQ(contentOf("block"), "no file");
    EXPECT_EQ(stream, nullptr);
    EXPECT_TRUE(log.caught.empty());
    km_debug_level = INT_MIN;
    EXPECT_TRUE(memory.dump("block", 0, nullptr));
    EXPECT_EQ(contentOf("block"), "0123456789");

    // From now on neither the level nor the directory matters.
    km_debug_level = 1;
    km_log_root = "/nowhere";
    EXPECT_TRUE(memory.dump("part", 3, nullptr));
    EXPECT_EQ(contentOf("part"), "012");
    EXPECT_TRUE(memory.dump("long", 1000, nullptr));
    EXPECT_EQ(contentOf("long"), "0123456789" + GUARD);
    EXPECT_TRUE(RvpMemory().dump("empty", 5, nullptr));
    EXPECT_EQ(contentOf("empty"), "");

    log.clear();
    EXPECT_FALSE(memory.dump("none/block", 0, &stream));
    EXPECT_EQ(stream, nullptr);
    EXPECT_TRUE(memory.dump("stream", 2, &stream));
    EXPECT_TRUE(memory.dump("other", 0, &stream)); // goes into the same stream
    std::fclose(stream);
    EXPECT_EQ(contentOf("stream"), "010123456789");
    EXPECT_EQ(contentOf("other"), "no file");
    EXPECT_EQ(log.lines(),
              (Lines{"dump:RvpMemory <INFO> Opening log file: " + pathOf("none/block"),
                     "dump:RvpMemory <WARN> Unable to create log file: " + pathOf("none/block"),
                     "dump:RvpMemory <INFO> Opening log file: " + pathOf("stream")}));

    std::FILE* full = std::fopen("/dev/full", "wb");
    std::setvbuf(full, nullptr, _IONBF, 0);
    EXPECT_FALSE(memory.dump("full", 0, &full));
    std::fclose(full);
}

TEST(MemoryLayout, Fields) {
    RvpMemory memory;
    memory.alloc(10);
    unsigned long words[4];
    static_assert(sizeof words == sizeof memory);
    std::memcpy(words, static_cast<const void*>(std::addressof(memory)), sizeof words);
    EXPECT_EQ(words[1], 10U);
    EXPECT_EQ(words[2], reinterpret_cast<unsigned long>(memory.getMemory()));
    EXPECT_EQ(words[3], 14U);
}

} // namespace
