// Platform shims and conversions.
#include "RvpLinuxCommon.h"
#include "RvpOrma.h"
#include "support/LogCapture.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using testing::ElementsAre;

const bool s_loggingIsOn = [] {
    km_debug_level = 1;
    return true;
}();

TEST(Conversions, FileTypesAndTimes) {
    EXPECT_EQ(RvpLinuxCommon::linux_ftype(S_IFREG | 0644), 1);
    EXPECT_EQ(RvpLinuxCommon::linux_ftype(0x41ED), 2);
    EXPECT_EQ(RvpLinuxCommon::linux_ftype(S_IFBLK), 3);
    EXPECT_EQ(RvpLinuxCommon::linux_ftype(S_IFCHR), 4);
    EXPECT_EQ(RvpLinuxCommon::linux_ftype(S_IFLNK), 5);
    EXPECT_EQ(RvpLinuxCommon::linux_ftype(S_IFIFO), 6);
    EXPECT_EQ(RvpLinuxCommon::linux_ftype(S_IFSOCK), 6);
    EXPECT_EQ(RvpLinuxCommon::linux_ftype(0), 10);
    km_time time = {7, 8, 9};
    RvpLinuxCommon::linux_to_kmptime(&time, 0);
    EXPECT_EQ(time.seconds, 2208988800U);
    EXPECT_EQ(time.fraction, 8U);
    RvpLinuxCommon::linux_to_kmptime(&time, static_cast<unsigned long>(-1));
    EXPECT_EQ(time.seconds, 2208988799U);
}

TEST(Itoa, WritesEveryBase) {
    char text[40];
    EXPECT_STREQ(_itoa(-255, text, 16), "-ff");
    EXPECT_STREQ(_itoa(0, text, 10), "0");
    EXPECT_STREQ(_itoa(INT_MIN, text, 10), "-2147483648");
    EXPECT_STREQ(_itoa(INT_MIN, text, 2), "-10000000000000000000000000000000");
    EXPECT_STREQ(_itoa(35, text, 36), "z");
    for (const int base : {-1, 0, 1, 37}) {
        EXPECT_STREQ(_itoa(5, text, base), "");
    }
    for (int base = 2; base <= 36; ++base) {
        for (const int value : {INT_MAX, -123456789, 1, -1, 35, 36}) {
            EXPECT_EQ(std::strtol(_itoa(value, text, base), nullptr, base), value);
        }
    }
}

TEST(TemporaryNames, DifferInTheCounterAndStayInBounds) {
    char directory[20];
    EXPECT_EQ(GetTempPath(sizeof directory, directory), 1);
    EXPECT_STREQ(directory, "/tmp");
    EXPECT_EQ(GetTempPath(3, directory), 1);
    EXPECT_STREQ(directory, "/t");
    char prefix[] = "pre";
    char first[100];
    char second[100];
    EXPECT_EQ(GetTempFileName(directory, sizeof first, prefix, 0, first), 1);
    EXPECT_EQ(GetTempFileName(directory, sizeof second, prefix, 0, second), 1);
    EXPECT_STRNE(first, second);
    EXPECT_THAT(first, testing::StartsWith("/t/pre"));
    EXPECT_THAT(first, testing::EndsWith("_" + std::to_string(getpid()) + "_0"));
    EXPECT_THAT(second, testing::EndsWith("_1"));
    EXPECT_EQ(GetTempFileName(directory, 6, prefix, 0, first), 1);
    EXPECT_STREQ(first, "/t/pr");
}

class CopyFileTest : public testing::Test {
  protected:
    CopyFileTest() {
        char name[] = "/tmp/shims_test_XXXXXX";
        m_directory = mkdtemp(name);
    }
    ~CopyFileTest() override { std::filesystem::remove_all(m_directory); }

    std::string path(const char* name) const { return m_directory + "/" + name; }
    static void write(const std::string& file, const std::string& text) {
        std::ofstream(file, std::ios::binary) << text;
    }
    static std::string read(const std::string& file) {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    LogCapture log;
    std::string m_directory;
};

TEST_F(CopyFileTest, CopiesWholeFilesAndRespectsTheFlag) {
    for (const size_t size : {0U, 1U, 1023U, 1024U, 1025U, 5000U}) {
        write(path("from"), std::string(size, 'x'));
        EXPECT_TRUE(CopyFile(path("from").c_str(), path("to").c_str(), true));
        EXPECT_EQ(read(path("to")).size(), size);
    }
    write(path("to"), "kept");
    log.clear();
    EXPECT_FALSE(CopyFile(path("from").c_str(), path("to").c_str(), false));
    EXPECT_EQ(read(path("to")), "kept");
    EXPECT_THAT(
        log.lines(),
        ElementsAre("CopyFile:RvpOrma <DEBUG> Source: " + path("from"),
                    "CopyFile:RvpOrma <DEBUG> Destination: " + path("to"),
                    "CopyFile:RvpOrma <ERROR> Unable to overwrite destination: " + path("to")));
    EXPECT_TRUE(DeleteFile(path("to").c_str()));
    EXPECT_FALSE(DeleteFile(path("to").c_str()));
    EXPECT_EQ(GetLastError(), ENOENT);
}

TEST_F(CopyFileTest, AFileThatCannotBeOpenedCountsAsCopied) {
    EXPECT_TRUE(CopyFile(path("none").c_str(), path("to").c_str(), true));
    EXPECT_FALSE(std::filesystem::exists(path("to")));
    write(path("from"), "x");
    log.clear();
    EXPECT_TRUE(CopyFile(path("from").c_str(), path("no/to").c_str(), true));
    EXPECT_EQ(log.lines().back(),
              "CopyFile:RvpOrma <ERROR> Unable to open destination: " + path("from"));
}

TEST_F(CopyFileTest, AReadErrorRemovesTheDestination) {
    log.clear();
    EXPECT_FALSE(CopyFile(m_directory.c_str(), path("to").c_str(), true)) << "a directory";
    EXPECT_FALSE(std::filesystem::exists(path("to")));
    EXPECT_THAT(log.lines()[2], testing::StartsWith("CopyFile:RvpOrma <ERROR> Unable to read "
                                                    "source: " +
                                                    m_directory + " [21]"));
    EXPECT_EQ(log.lines()[3],
              "CopyFile:RvpOrma <DEBUG> Removing destination on error: " + path("to"));
}

TEST_F(CopyFileTest, AWriteErrorFailsTheCopy) {
    // The device is named through a link, as a destination that is removed on an error.
    write(path("from"), std::string(10000, 'x'));
    std::filesystem::create_symlink("/dev/full", path("full"));
    log.clear();
    EXPECT_FALSE(CopyFile(path("from").c_str(), path("full").c_str(), true));
    EXPECT_THAT(log.lines()[2], testing::StartsWith("CopyFile:RvpOrma <ERROR> Unable to write "
                                                    "destination: " +
                                                    path("full")));
    EXPECT_FALSE(std::filesystem::is_symlink(path("full")));
}

TEST(Shims, WrapMutexesAndLibraries) {
    pthread_mutex_t section;
    InitializeCriticalSection(&section);
    EXPECT_EQ(EnterCriticalSection(&section), 0);
    EXPECT_EQ(LeaveCriticalSection(&section), 0);
    EXPECT_EQ(DeleteCriticalSection(&section), 0);
    EXPECT_EQ(LoadLibrary("/no/such.so"), nullptr);
    void* library = LoadLibrary("libm.so.6");
    ASSERT_NE(library, nullptr);
    EXPECT_NE(GetProcAddress(library, "cos"), nullptr);
    EXPECT_EQ(FreeLibrary(library), 0);
}

} // namespace
