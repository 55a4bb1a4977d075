// Memory blocks: contents through growth and copies, the guard, dumps, layout.
#include "Error.h"
#include "RvpMemory.h"
#include "support/LogCapture.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

const bool LOGGING = (km_debug_level = 1) != 0;

constexpr const char* GUARD_LINE =
    "freeMemory:RvpMemory <DEBUG> Invalid memory signature, check for memory consistency";

// The block's usable bytes and what lies behind them.
std::string bytesOf(const RvpMemory& memory, std::size_t behind = 0) {
    return {static_cast<const char*>(memory.getMemory()), memory.getSize() + behind};
}

bool isEmpty(const RvpMemory& memory) {
    return memory.getMemory() == nullptr && memory.getSize() == 0;
}

char* dataOf(RvpMemory& memory) {
    return static_cast<char*>(memory.getMemory());
}

TEST(Memory, BlocksAreZeroWithTheSignatureBehind) {
    RvpMemory memory;
    EXPECT_TRUE(isEmpty(memory));
    for (const unsigned long size : {0UL, 1UL, 5UL, 4096UL}) {
        memory.alloc(size);
        EXPECT_EQ(bytesOf(memory, 4), std::string(size, '\0') + "RvMS");
        std::memset(memory.getMemory(), 'x', size);
    }
    EXPECT_EQ(static_cast<void*>(memory), memory.getMemory());
    EXPECT_EQ(static_cast<const void*>(memory), memory.getMemory());
    memory.freeMemory();
    EXPECT_TRUE(isEmpty(memory));
}

TEST(Memory, ExtendKeepsTheOldBytesAndNeverShrinks) {
    RvpMemory memory;
    memory.extend(0);
    EXPECT_TRUE(isEmpty(memory));
    memory.extend(2);
    std::memcpy(memory.getMemory(), "ab", 2);
    memory.extend(6);
    EXPECT_EQ(bytesOf(memory, 4), std::string("ab\0\0\0\0RvMS", 10));
    const void* block = memory.getMemory();
    memory.extend(6);
    memory.extend(1);
    EXPECT_EQ(memory.getMemory(), block);
    EXPECT_EQ(memory.getSize(), 6U);
}

TEST(Memory, CopiesAreDeep) {
    RvpMemory one;
    one.copy("hello", 5);
    RvpMemory two(one);
    dataOf(two)[0] = 'j';
    EXPECT_EQ(bytesOf(one, 4), "helloRvMS");
    EXPECT_EQ(bytesOf(two, 4), "jelloRvMS");
    const RvpMemory& self = two;
    two = self;
    EXPECT_EQ(bytesOf(two), "jello");
    const RvpMemory empty;
    two = empty;
    EXPECT_TRUE(isEmpty(two));
    RvpMemory nothing;
    nothing.alloc(0);
    two = nothing; // no bytes, but a block
    EXPECT_EQ(bytesOf(two, 4), "RvMS");
    two.copy(nullptr, 0);
    EXPECT_EQ(bytesOf(two, 4), "RvMS");
}

// Each way of releasing a block looks at its guard; the block goes all the same.
TEST(Memory, ADamagedGuardIsLoggedWhenTheBlockIsReleased) {
    const std::vector<void (*)(RvpMemory&)> releases = {
        [](RvpMemory& memory) { memory.freeMemory(); },
        [](RvpMemory& memory) { memory.alloc(1); },
        [](RvpMemory& memory) { memory.extend(100); },
        [](RvpMemory& memory) { memory.copy("x", 1); },
        [](RvpMemory& memory) { memory = RvpMemory(); },
    };
    for (const auto& release : releases) {
        for (const int damaged : {0, 3}) {
            LogCapture log;
            RvpMemory memory;
            memory.alloc(8);
            dataOf(memory)[8 + damaged] ^= 1;
            release(memory);
            EXPECT_EQ(log.lines(), std::vector<std::string>{GUARD_LINE});
            memory.freeMemory();
            EXPECT_EQ(log.caught.size(), 1U);
        }
    }
    LogCapture log;
    {
        RvpMemory memory;
        memory.alloc(0);
        dataOf(memory)[0] = 'r';
    }
    EXPECT_EQ(log.lines(), std::vector<std::string>{GUARD_LINE});
}

// Sizes up to the last must neither wrap around nor leave a half-made block.
TEST(Memory, AFailedAllocationThrows) {
    const auto expectFailure = [](const auto& call, const char* function) {
        try {
            call();
            ADD_FAILURE() << "did not fail";
        } catch (const OrmaError& error) {
            EXPECT_EQ(error.m_code, KMP_EINVAL);
            EXPECT_STREQ(error.m_file, "plugin/common/map_v2/rvp/RvpMemory");
            EXPECT_STREQ(error.m_function, function);
        }
    };
    for (const unsigned long size : {ULONG_MAX, ULONG_MAX - 3, ULONG_MAX / 2 + 1}) {
        LogCapture log;
        RvpMemory memory;
        memory.copy("abc", 3);
        expectFailure([&] { memory.extend(size); }, "extend");
        EXPECT_EQ(bytesOf(memory, 4), "abcRvMS");
        expectFailure([&] { memory.alloc(size); }, "alloc");
        EXPECT_TRUE(isEmpty(memory));
        EXPECT_EQ(log.lines(),
                  (std::vector<std::string>{"extend:RvpMemory <ERROR> Exception: VERIFY_PTR",
                                            "alloc:RvpMemory <ERROR> Exception: VERIFY_PTR"}));
    }
}

class MemoryDump : public testing::Test {
  protected:
    MemoryDump() {
        char pattern[] = "/tmp/dorado_memory_XXXXXX";
        m_folder = mkdtemp(pattern);
        km_log_root = m_folder.c_str();
    }
    ~MemoryDump() override {
        std::system(("rm -rf " + m_folder).c_str());
        km_log_root = ".";
        km_debug_level = 1;
    }

    std::string pathOf(const std::string& name) const { return m_folder + "/" + name + ".rvpmem"; }
    std::string contentOf(const std::string& name) const {
        std::ifstream file(pathOf(name), std::ios::binary);
        std::ostringstream content;
        content << file.rdbuf();
        return content.str();
    }

    std::string m_folder;
};

// One test, because the permission and the directory are given once in a process.
TEST_F(MemoryDump, IsAllowedOnceByTheSignOfTheDebugLevel) {
    RvpMemory memory;
    memory.copy("0123456789", 10);
    std::FILE* stream = nullptr;
    {
        LogCapture log;
        EXPECT_FALSE(memory.dump("block", 0, nullptr));
        EXPECT_FALSE(memory.dump("block", 0, &stream));
        EXPECT_TRUE(log.caught.empty());
    }
    EXPECT_NE(access(pathOf("block").c_str(), F_OK), 0);
    EXPECT_EQ(stream, nullptr);

    km_debug_level = INT_MIN;
    {
        LogCapture log;
        EXPECT_TRUE(memory.dump("block", 0, nullptr));
        EXPECT_EQ(log.lines(), std::vector<std::string>{"dump:RvpMemory <INFO> Opening log file: " +
                                                        pathOf("block")});
    }
    EXPECT_EQ(contentOf("block"), "0123456789");

    // From now on neither the level nor the directory matters.
    km_debug_level = 1;
    km_log_root = "/nowhere";
    EXPECT_TRUE(memory.dump("part", 3, nullptr));
    EXPECT_EQ(contentOf("part"), "012");
    EXPECT_TRUE(memory.dump("long", 1000, nullptr));
    EXPECT_EQ(contentOf("long"), "0123456789RvMS");
    EXPECT_TRUE(RvpMemory().dump("empty", 5, nullptr));
    EXPECT_EQ(contentOf("empty"), "");

    {
        LogCapture log;
        EXPECT_FALSE(memory.dump("none/block", 0, nullptr));
        EXPECT_FALSE(memory.dump("none/block", 0, &stream));
        EXPECT_EQ(stream, nullptr);
        const std::string path = pathOf("none/block");
        const std::string opening = "dump:RvpMemory <INFO> Opening log file: " + path;
        const std::string failed = "dump:RvpMemory <WARN> Unable to create log file: " + path;
        EXPECT_EQ(log.lines(), (std::vector<std::string>{opening, failed, opening, failed}));
    }

    LogCapture log;
    EXPECT_TRUE(memory.dump("stream", 2, &stream));
    ASSERT_NE(stream, nullptr);
    EXPECT_TRUE(memory.dump("other", 0, &stream));
    std::fclose(stream);
    EXPECT_EQ(contentOf("stream"), "010123456789");
    EXPECT_NE(access(pathOf("other").c_str(), F_OK), 0);
    EXPECT_EQ(log.caught.size(), 1U);

    std::FILE* full = std::fopen("/dev/full", "wb");
    ASSERT_NE(full, nullptr);
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
