// Log lines, the control file and call traces. Each test runs in a process of its own, as the
// decision to log is made once; the control file is replaced through `fopen`.
#include "LogHelper.h"
#include "support/LogCapture.h"

#include <cstdio>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Report = std::pair<std::string, int>;

std::string s_controlFile;
int s_controlFileReads = 0;
std::vector<Report> s_reports;

} // namespace

extern "C" {

std::FILE* __real_fopen(const char* name, const char* mode);
std::FILE* __wrap_fopen(const char* name, const char* mode);

std::FILE* __wrap_fopen(const char* name, const char* mode) {
    if (std::string(name) != "/usr/kestrel/lib/.orma.rc") {
        return __real_fopen(name, mode);
    }
    ++s_controlFileReads;
    return fmemopen(s_controlFile.data(), s_controlFile.size(), mode);
}

// Stands before the host's.
void km_report_provider_msg(const char* text, int kind) {
    s_reports.emplace_back(text, kind);
}
}

namespace {

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

TEST(Logging, LabelsLevels) {
    LogCapture log;
    std::vector<int> severities;
    for (int level = -1; level <= 8; ++level) {
        logLine("f", "file", level, "t");
        severities.push_back(log.caught.back().severity);
    }
    EXPECT_THAT(severities, ElementsAre(1, 3, 1, 2, 1, 4, 5, 6, 7, 1));
    EXPECT_EQ(log.lines()[2], "f:file <Unknown Error> t");
    EXPECT_EQ(log.lines()[4], "f:file <INFO> t");
    EXPECT_EQ(log.lines()[8], "f:file <TRACE> t");
}

TEST(Logging, CutsNamesTagsAndLongLines) {
    LogCapture log;
    logLine("Class::method", "/a/b/File.cpp", 0, "t");
    LogHelper::plugin_elog("f", "a/b\\c/d", 1, nullptr, 0, ":tag:text %d", 5);
    LogHelper::plugin_elog("f", "x", 1, nullptr, 0, ":no second");
    LogHelper::plugin_elog("f", "x", 1, nullptr, 0, ":");
    EXPECT_THAT(log.lines(), ElementsAre("method:File.cpp <ERROR> t", "f:c/d <ERROR> text 5",
                                         "f:x <ERROR> :no second", "f:x <ERROR> :"));
    log.clear();
    va_list none = {};
    logLine("ns::Class::method", "File", 0, std::string(4000, 'x').c_str());
    LogHelper::plugin_velog(nullptr, 2, "No error here", "f", "file", 3, "t", none);
    LogHelper::plugin_velog(nullptr, 2, "Broken pipe", "f", "file", 3, "t", none);
    EXPECT_THAT(log.caught[0].raw, HasSubstr(" : Class::method:File:10 <ERROR> : x"));
    EXPECT_EQ(log.caught[0].raw.size(), 2047U);
    EXPECT_THAT(log.caught[1].raw, HasSubstr(" : f:file:3 <WARN>  : t"));
    EXPECT_THAT(log.caught[2].raw, HasSubstr(" : f:file:3 <WARN> [Sys Error: Broken pipe] : t"));
}

TEST(Logging, HandsReportsToTheHost) {
    LogHelper::plugin_ereport(0, "zero %d", 1);
    LogHelper::plugin_ereport(1, "one");
    LogHelper::plugin_ereport(2, "two");
    EXPECT_THAT(s_reports, ElementsAre(Report{"zero 1", 10}, Report{"one", 8}, Report{"two", 9}));
    LogCapture log;
    plugin_report_claim(KM_CLAIM_PRIMARY, "v");
    EXPECT_EQ(log.lines()[0], "plugin_report_claim:LogHelper.h <WARN> Invalid claim type");
}

// How many lines a traced scope with one line within makes.
std::size_t linesOfTraced(LogCapture& log, const char* file, int level = 7) {
    log.clear();
    const LogTrace trace("Class::op", file, 5, level);
    logLine("inner", file, 3, "within");
    return log.caught.size();
}

TEST(Tracing, IndentsWhatHappensInside) {
    LogCapture log;
    km_debug_level = 0x70000000;
    linesOfTraced(log, "dir/file");
    EXPECT_THAT(log.lines(), ElementsAre("op:file <TRACE> in", "inner:file <INFO> within",
                                         "op:file <TRACE> out"));
    EXPECT_EQ(log.caught[0].indent, 0);
    EXPECT_EQ(log.caught[1].indent, 1);
    EXPECT_EQ(log.caught[2].indent, 0);
    for (int level = 4; level <= 8; ++level) {
        for (int bit = 28; bit <= 30; ++bit) { // each level has its own
            km_debug_level = 1 << bit;
            EXPECT_EQ(linesOfTraced(log, "file", level), level == bit - 23 ? 2U : 1U);
        }
    }
}

TEST(Tracing, IsLimitedToTheFilesOfTheControlFile) {
    LogCapture log;
    km_debug_level = 0x70000000;
    s_controlFile = "#file=hidden\n"
                    "file=DIR/One\n"
                    "tracefile = two\n"
                    "nothing=three\n"
                    "file four\n"
                    "file=five=six\r\n" +
                    std::string("x") + std::string(300, ' ') + "file=late\n" + "file=last";
    EXPECT_TRUE(LogHelper::isActive());
    km_debug_level = 0;
    EXPECT_TRUE(LogHelper::isActive()) << "logging stays on";
    km_debug_level = 0x70000000;
    EXPECT_EQ(queryLoggingStatus(), 1);
    EXPECT_EQ(s_controlFileReads, 1) << "it gave names, so it is not read again";
    // Case does not count, blanks and carriage returns do; long lines arrive in pieces.
    for (const char* file : {"dir/oNE", " two", "five=six\r", "late", "last"}) {
        EXPECT_EQ(linesOfTraced(log, file), 2U) << file;
    }
    for (const char* file : {"One", "two", "hidden", "three", " four", "file four", "five"}) {
        EXPECT_EQ(linesOfTraced(log, file), 1U) << file;
    }
}

} // namespace
