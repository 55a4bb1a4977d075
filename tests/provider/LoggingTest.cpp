// Log lines, the control file and call traces. Each test runs in a process of its own, as the
// decision to log is made once; the control file is replaced through `fopen`.
#include "LogHelper.h"
#include "support/LogCapture.h"

#include <cstdio>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string s_controlFile;
int s_controlFileReads = 0;
std::vector<std::pair<std::string, int>> s_reports;

} // namespace

extern "C" {

std::FILE* __real_fopen(const char* name, const char* mode);
std::FILE* __wrap_fopen(const char* name, const char* mode);

std::FILE* __wrap_fopen(const char* name, const char* mode) {
    if (std::string(name) != "/usr/kestrel/lib/.orma.rc") {
        return __real_fopen(name, mode);
    }
    ++s_controlFileReads;
    if (s_controlFile.empty()) {
        return nullptr;
    }
    return fmemopen(s_controlFile.data(), s_controlFile.size(), mode);
}

// Stands before the host's.
void km_report_provider_msg(const char* text, int kind) {
    s_reports.emplace_back(text, kind);
}
}

namespace {

constexpr int TRACE_ALL = 0x70000000;

void logLine(const char* function, const char* file, int level, const char* text) {
    LogHelper::plugin_elog(function, file, 10, nullptr, level, "%s\n", text);
}

TEST(Logging, IsDecidedOnceWhenOff) {
    LogCapture log;
    km_debug_level = 0;
    EXPECT_FALSE(LogHelper::isActive());
    km_debug_level = 1;
    EXPECT_FALSE(LogHelper::isActive());
    logLine("f", "file", 0, "text");
    EXPECT_THAT(log.caught, IsEmpty());
    EXPECT_EQ(s_controlFileReads, 0);
}

TEST(Logging, StaysOnAndReadsTheControlFileOnce) {
    LogCapture log;
    s_controlFile = "file=x\n";
    EXPECT_TRUE(LogHelper::isActive());
    km_debug_level = 0;
    EXPECT_TRUE(LogHelper::isActive());
    km_debug_level = 1;
    EXPECT_EQ(queryLoggingStatus(), 1);
    EXPECT_EQ(s_controlFileReads, 1) << "it gave a name, so it is not read again";
}

TEST(Logging, LabelsLevels) {
    LogCapture log;
    for (int level = -1; level <= 8; ++level) {
        logLine("f", "file", level, "t");
    }
    std::vector<int> severities;
    for (const auto& line : log.caught) {
        severities.push_back(line.severity);
    }
    EXPECT_THAT(log.lines(),
                ElementsAre("f:file <Unknown Error> t", "f:file <ERROR> t",
                            "f:file <Unknown Error> t", "f:file <WARN> t", "f:file <INFO> t",
                            "f:file <DEBUG> t", "f:file <TRACE> t", "f:file <TRACE> t",
                            "f:file <TRACE> t", "f:file <Unknown Error> t"));
    EXPECT_THAT(severities, ElementsAre(1, 3, 1, 2, 1, 4, 5, 6, 7, 1));
}

TEST(Logging, CutsNamesAndTags) {
    LogCapture log;
    logLine("Class::method", "/a/b/File.cpp", 0, "t");
    logLine("ns::Class::method", "a\\b/c\\File", 0, "t");
    LogHelper::plugin_elog("f", "a/b\\c/d", 1, nullptr, 0, ":tag:text %d", 5);
    LogHelper::plugin_elog("f", "x", 1, nullptr, 0, ":no second");
    LogHelper::plugin_elog("f", "x", 1, nullptr, 0, ":");
    LogHelper::plugin_elog("f", "x", 1, nullptr, 0, "%s", std::string(4000, 'x').c_str());
    ASSERT_EQ(log.caught.size(), 6U);
    EXPECT_EQ(log.lines()[0], "method:File.cpp <ERROR> t");
    EXPECT_THAT(log.caught[1].raw, testing::HasSubstr(" : Class::method:File:10 <ERROR> : t\n"));
    EXPECT_EQ(log.lines()[2], "f:c/d <ERROR> text 5") << "a backslash wins over slashes";
    EXPECT_EQ(log.lines()[3], "f:x <ERROR> :no second");
    EXPECT_EQ(log.lines()[4], "f:x <ERROR> :");
    EXPECT_EQ(log.caught[5].raw.size(), 2047U);
}

TEST(Logging, NamesASystemError) {
    LogCapture log;
    va_list none = {};
    for (const char* systemError : {"No error here", "Broken pipe"}) {
        LogHelper::plugin_velog(nullptr, 2, systemError, "f", "file", 3, "t", none);
    }
    EXPECT_THAT(log.caught[0].raw, testing::EndsWith(" : f:file:3 <WARN>  : t"));
    EXPECT_THAT(log.caught[1].raw,
                testing::EndsWith(" : f:file:3 <WARN> [Sys Error: Broken pipe] : t"));
}

TEST(Logging, HandsReportsToTheHost) {
    LogHelper::plugin_ereport(0, "zero %d", 1);
    LogHelper::plugin_ereport(1, "one");
    LogHelper::plugin_ereport(2, "two");
    using Report = std::pair<std::string, int>;
    EXPECT_THAT(s_reports, ElementsAre(Report{"zero 1", 10}, Report{"one", 8}, Report{"two", 9}));
    LogCapture log;
    plugin_report_claim(KM_CLAIM_PRIMARY, "v");
    EXPECT_THAT(log.lines(),
                ElementsAre("plugin_report_claim:LogHelper.h <WARN> Invalid claim type"));
}

void traced(const char* file, int level) {
    const LogTrace trace("Class::op", file, 5, level);
    logLine("inner", file, 3, "within");
}

TEST(Tracing, IndentsWhatHappensInside) {
    LogCapture log;
    km_debug_level = TRACE_ALL;
    traced("dir/file", 7);
    EXPECT_THAT(log.lines(), ElementsAre("op:file <TRACE> in", "inner:file <INFO> within",
                                         "op:file <TRACE> out"));
    EXPECT_EQ(log.caught[0].indent, 0);
    EXPECT_EQ(log.caught[1].indent, 1);
    EXPECT_EQ(log.caught[2].indent, 0);
    EXPECT_EQ(LogTrace::trace_indent, 0);
    // Each level has a bit of its own.
    for (int level = 4; level <= 8; ++level) {
        for (int bit = 28; bit <= 30; ++bit) {
            km_debug_level = 1 << bit;
            log.clear();
            traced("file", level);
            EXPECT_EQ(log.caught.size(), level == bit - 23 ? 3U : 1U) << level << " " << bit;
        }
    }
}

TEST(Tracing, IsLimitedToTheFilesOfTheControlFile) {
    LogCapture log;
    km_debug_level = TRACE_ALL;
    s_controlFile = "#file=hidden\n"
                    "file=DIR/One\n"
                    "tracefile = two\n"
                    "nothing=three\n"
                    "file four\n"
                    "file=five=six\r\n" +
                    std::string("x") + std::string(300, ' ') + "file=late\n" + "file=last";
    ASSERT_TRUE(LogHelper::isActive());
    const auto isTraced = [&](const char* file) {
        log.clear();
        traced(file, 7);
        return log.caught.size() == 3;
    };
    EXPECT_TRUE(isTraced("dir/oNE")) << "case does not count";
    EXPECT_FALSE(isTraced("One")) << "the whole name does";
    EXPECT_TRUE(isTraced(" two")) << "blanks are part of the name";
    EXPECT_FALSE(isTraced("two"));
    EXPECT_TRUE(isTraced("five=six\r"));
    EXPECT_TRUE(isTraced("late")) << "a long line arrives in pieces, each a line";
    EXPECT_TRUE(isTraced("last"));
    for (const char* file : {"hidden", "three", " four", "file four", "five"}) {
        EXPECT_FALSE(isTraced(file)) << file;
    }
}

} // namespace
