// Platform shims and conversions.
#include "RvpLinuxCommon.h"
#include "RvpOrma.h"
#include "support/Files.h"
#include "support/LogCapture.h"

#include <climits>
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using std::filesystem::exists;
using testing::ElementsAre;
using testing::StartsWith;

TEST(Conversions, FileTypesAndTimes) {
    const std::pair<unsigned, int> types[] = {
        {S_IFREG | 0644, 1}, {S_IFDIR | 0755, 2}, {S_IFBLK, 3},  {S_IFCHR, 4},
        {S_IFLNK, 5},        {S_IFIFO, 6},        {S_IFSOCK, 6}, {0, 10}};
    for (const auto& [mode, type] : types) {
        EXPECT_EQ(RvpLinuxCommon::linux_ftype(mode), type) << mode;
    }
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
    EXPECT_STREQ(_itoa(INT_MIN, text, 2), "-10000000000000000000000000000000");
    for (const int base : {-1, 0, 1, 37}) {
        EXPECT_STREQ(_itoa(5, text, base), "");
    }
    for (int base = 2; base <= 36; ++base) {
        for (const int value : {INT_MAX, INT_MIN, -123456789, 0, 1, -1, 35, 36}) {
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
    bool copy(bool overwrite = true) const { return CopyFile(from.c_str(), to.c_str(), overwrite); }

    LogCapture log;
    TemporaryFolder folder;
    std::string from = folder / "from";
    std::string to = folder / "to";
    const std::string line = "CopyFile:RvpOrma ";
};

TEST_F(CopyFileTest, CopiesWholeFilesAndRespectsTheFlag) {
    for (const size_t size : {0U, 1U, 1023U, 1024U, 1025U, 5000U}) {
        writeFile(from, std::string(size, 'x'));
        EXPECT_TRUE(copy());
        EXPECT_EQ(readFile(to), std::string(size, 'x'));
    }
    writeFile(to, "kept");
    log.clear();
    EXPECT_FALSE(copy(false));
    EXPECT_EQ(readFile(to), "kept");
    EXPECT_THAT(log.lines(),
                ElementsAre(line + "<DEBUG> Source: " + from, line + "<DEBUG> Destination: " + to,
                            line + "<ERROR> Unable to overwrite destination: " + to));
    EXPECT_TRUE(DeleteFile(to.c_str()));
    EXPECT_FALSE(DeleteFile(to.c_str()));
    EXPECT_EQ(GetLastError(), ENOENT);
}

TEST_F(CopyFileTest, AFileThatCannotBeOpenedCountsAsCopied) {
    EXPECT_TRUE(copy());
    EXPECT_FALSE(exists(to));
    EXPECT_EQ(log.lines().back(), line + "<ERROR> Unable to open source: " + from);
    writeFile(from, "x");
    to = folder / "no/to";
    EXPECT_TRUE(copy());
    EXPECT_EQ(log.lines().back(), line + "<ERROR> Unable to open destination: " + from);
}

TEST_F(CopyFileTest, AFailureOnTheWayRemovesTheDestination) {
    from = folder.path();
    EXPECT_FALSE(copy()) << "a folder opens, and cannot be read";
    EXPECT_FALSE(exists(to));
    EXPECT_THAT(log.lines()[2],
                StartsWith(line + "<ERROR> Unable to read source: " + from + " [21]"));
    EXPECT_EQ(log.lines()[3], line + "<DEBUG> Removing destination on error: " + to);

    // The device is named through a link, which goes in its place.
    from = folder / "from";
    writeFile(from, std::string(10000, 'x'));
    std::filesystem::create_symlink("/dev/full", to);
    log.clear();
    EXPECT_FALSE(copy());
    EXPECT_THAT(log.lines()[2], StartsWith(line + "<ERROR> Unable to write destination: " + to));
    EXPECT_FALSE(std::filesystem::is_symlink(to));
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
