// Platform shims.
#include "RvpLinuxCommon.h"
#include "RvpOrma.h"
#include "support/Files.h"
#include "support/LogCapture.h"

#include <climits>
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using std::filesystem::exists;

TEST(Conversions, TimesCountFromTheHostsYears) {
    km_time time = {7, 8, 9};
    RvpLinuxCommon::linux_to_kmptime(&time, 0);
    EXPECT_EQ(time.seconds, 2208988800U);
    EXPECT_EQ(time.fraction, 8U) << "left as it is";
}

TEST(Itoa, WritesEveryBase) {
    char text[40];
    EXPECT_EQ(std::string(_itoa(5, text, 1)) + _itoa(5, text, 37), "");
    for (int base = 2; base <= 36; ++base) {
        for (const int value : {INT_MAX, INT_MIN, -123456789, 0, 1, -1, 35, 36}) {
            EXPECT_EQ(std::strtol(_itoa(value, text, base), nullptr, base), value);
        }
    }
    EXPECT_STREQ(_itoa(-255, text, 16), "-ff");
}

TEST(Shims, MakeNamesInBoundsAndLoadLibraries) {
    char directory[20] = "kept";
    EXPECT_EQ(GetTempPath(-1, directory), 1);
    EXPECT_STREQ(directory, "kept");
    EXPECT_EQ(GetTempPath(3, directory), 1);
    EXPECT_STREQ(directory, "/t");
    char prefix[] = "pre";
    char name[100];
    for (const char* counter : {"_0", "_1"}) {
        EXPECT_EQ(GetTempFileName(directory, sizeof name, prefix, 0, name), 1);
        EXPECT_THAT(name, testing::StartsWith("/t/pre"));
        EXPECT_THAT(name, testing::EndsWith("_" + std::to_string(getpid()) + counter));
    }
    EXPECT_EQ(GetTempFileName(directory, 6, prefix, 0, name), 1);
    EXPECT_STREQ(name, "/t/pr");

    pthread_mutex_t section;
    InitializeCriticalSection(&section);
    EXPECT_EQ(EnterCriticalSection(&section), 0);
    EXPECT_EQ(LeaveCriticalSection(&section), 0);
    EXPECT_EQ(DeleteCriticalSection(&section), 0);
    void* library = LoadLibrary("libm.so.6");
    EXPECT_NE(GetProcAddress(library, "cos"), nullptr);
    EXPECT_EQ(FreeLibrary(library), 0);
}

TEST(Copies, AreWholeOrNothingButForWhatDoesNotOpen) {
    LogCapture log;
    const TemporaryFolder folder;
    const std::string from = folder / "from";
    const std::string to = folder / "to";
    // "0" or "1" and the line of a copy that failed.
    const auto copy = [&](const std::string& source, const std::string& copied, bool overwrite) {
        log.clear();
        const bool done = CopyFile(source.c_str(), copied.c_str(), overwrite);
        return std::to_string(int{done}) + (log.caught.size() > 2 ? log.lines()[2] : "");
    };
    const std::string line = "CopyFile:RvpOrma <ERROR> Unable to ";
    EXPECT_EQ(copy(from, to, true), "1" + line + "open source: " + from);
    EXPECT_FALSE(exists(to));
    for (const size_t size : {0U, 1023U, 1024U, 1025U, 5000U}) {
        writeFile(from, std::string(size, 'x'));
        EXPECT_EQ(copy(from, to, true), "1");
        EXPECT_EQ(readFile(to), std::string(size, 'x'));
    }
    EXPECT_EQ(copy(from, folder / "no/to", true), "1" + line + "open destination: " + from);
    EXPECT_EQ(copy(folder.path(), to, false), "0" + line + "overwrite destination: " + to);
    EXPECT_EQ(readFile(to).size(), 5000U);
    EXPECT_EQ(copy(folder.path(), to, true),
              "0" + line + "read source: " + folder.path() + " [21]");
    EXPECT_FALSE(exists(to));
    // The device is named through a link, which goes in its place.
    std::filesystem::create_symlink("/dev/full", to);
    EXPECT_EQ(copy(from, to, true), "0" + line + "write destination: " + to + " [28]");
    EXPECT_FALSE(std::filesystem::is_symlink(to));
    EXPECT_FALSE(DeleteFile(to.c_str()));
    EXPECT_EQ(GetLastError(), ENOENT);
}

} // namespace
