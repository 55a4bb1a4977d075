// Errors, their texts and the checks that raise them.
#include "Error.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;

const bool s_loggingIsOn = [] {
    km_debug_level = 1;
    return true;
}();

TEST(Catalogue, AnswersByPositionWithGapsEmpty) {
    const MsgCatalog catalog("OrmaError", "root", false);
    EXPECT_STREQ(catalog.getMsgStr(0), "No error");
    EXPECT_STREQ(catalog.getMsgStr(21), "The the open object is deleted by some other process");
    EXPECT_STREQ(catalog.getMsgStr(23),
                 "Error opening snapshot disk(s) using given transport mode(s)");
    EXPECT_STREQ(catalog.getMsgStr(2048), "Extent not resolvable in specified mode");
    EXPECT_STREQ(catalog.getMsgStr(2074), "This operation not permitted on Dummy object");
    for (const int code : {10, 24, 1023, 1024, 2047, 2075, 3000, -1}) {
        EXPECT_STREQ(catalog.getMsgStr(code), "") << code;
    }
    EXPECT_STREQ(MsgCatalog("ormaerror", "root", false).getMsgStr(3), "");
    EXPECT_STREQ(MsgCatalog(std::string(300, 'x').c_str(), "root", false).getMsgStr(3), "");
}

TEST(LinuxErrors, AreAlwaysUnknownAndTranslateTwoCodes) {
    const LinuxError missing(4096 + ENOENT, "f", 1, "g");
    EXPECT_EQ(missing.getOrmaErrorValue(), 4098);
    EXPECT_STREQ(missing.getEnglishText(), "Unknown error");
    EXPECT_STREQ(missing.getLocalizedText(), "Unknown error");
    EXPECT_STREQ(missing.getDomainText(), "Linux Error Code");
    EXPECT_EQ(LinuxError(4096 + ENOMEM, "f", 1, "g").getOrmaErrorValue(), 5);
    EXPECT_EQ(LinuxError(4096, "f", 1, "g").getOrmaErrorValue(), 0);
    EXPECT_STREQ(OrmaError(3, "f", 1, "g").getDomainText(), "OrMA Error Code");
}

TEST(ErrorLog, MapsSeveritiesToLevels) {
    LogCapture log;
    const OrmaError error(0x12, "some/dir/File", 34, "f");
    for (const int severity : {1, 2, 3, 4, 5}) {
        error.log(static_cast<kmp_eseverity>(severity));
    }
    const std::string text = " Error: 0x00000012 occured in file some/dir/File, at line 34";
    EXPECT_THAT(log.lines(), ElementsAre("log:Error <INFO>" + text, "log:Error <WARN>" + text,
                                         "log:Error <ERROR>" + text, "log:Error <DEBUG>" + text,
                                         "log:Error <ERROR>" + text));
}

TEST(ErrorMapping, FindsTheFirstAndStopsAtTheEmptyText) {
    const Error::ErrorMapping table[] = {{1, "one"}, {2, "two"}, {2, "again"}, {3, ""}, {4, "x"}};
    EXPECT_STREQ(OrmaError(2, "f", 1, "g").findErrorMapping(table), "two");
    EXPECT_STREQ(OrmaError(4, "f", 1, "g").findErrorMapping(table), "Unknown error");
    EXPECT_STREQ(OrmaError(3, "f", 1, "g").findErrorMapping(table + 3), "Unknown error");
}

TEST(Once, TellsErrorsApartByCodeLineAndFile) {
    const std::string file = "file";
    EXPECT_TRUE(LogOnce(OrmaError(1, "file", 1, "g")));
    EXPECT_FALSE(LogOnce(OrmaError(1, file.c_str(), 1, "other")));
    EXPECT_FALSE(LogOnce(LinuxError(1, "file", 1, "g")));
    EXPECT_TRUE(LogOnce(OrmaError(1, "file", 2, "g")));
    EXPECT_TRUE(LogOnce(OrmaError(2, "file", 1, "g")));
    EXPECT_TRUE(LogOnce(OrmaError(1, "other", 1, "g")));
}

struct Heard {
    std::string english;
    bool localized;
    int severity;
};
std::vector<Heard> s_heard;

void hear(kmp_ehandler*, const char* english, const char* localized, int severity) {
    s_heard.push_back({english, localized != nullptr, severity});
}

TEST(Handler, HearsErrorsAndMessages) {
    const OrmaError error(5, "f", 1, "g");
    Error::LogMessage("fn", 7, "file", KMP_SEVERITY_INFO, "lost");
    error.callback(KMP_SEVERITY_WARNING, false);
    EXPECT_TRUE(s_heard.empty()) << "no handler yet";

    kmp_ehandler handler = {hear};
    Error::s_pHandler = &handler;
    LogCapture log;
    error.callback(KMP_SEVERITY_WARNING, false);
    EXPECT_TRUE(log.caught.empty());
    error.callback(KMP_SEVERITY_WARNING, true);
    EXPECT_EQ(log.caught.size(), 1U);
    Error::LogMessage("fn", 7, "file", KMP_SEVERITY_INFO, "a %d", 1);
    Error::LogMessage("fn", 7, "file", KMP_SEVERITY_DEBUG, "b");
    Error::LogMessage("fn", 7, "file", KMP_SEVERITY_TRACE5, "c");
    Error::LogMessage("fn", 7, "file", KMP_SEVERITY_ERROR, "%s", std::string(2000, 'x').c_str());
    Error::s_pHandler = nullptr;

    ASSERT_EQ(s_heard.size(), 6U);
    EXPECT_EQ(s_heard[1].english, "Insufficient memory");
    EXPECT_EQ(s_heard[1].severity, 2);
    EXPECT_EQ(s_heard[2].english, "INFO: File <file>, Function <fn>, Line <7> a 1");
    EXPECT_FALSE(s_heard[2].localized);
    EXPECT_EQ(s_heard[3].english, "DEBUG: File <file>, Function <fn>, Line <7> b");
    EXPECT_EQ(s_heard[4].english, "c");
    EXPECT_EQ(s_heard[5].english.size(), 1023U);
}

// What a check threw, as "code file function".
template <typename Raised, typename Check>
std::string raised(Check check) {
    try {
        check();
    } catch (const Raised& error) {
        EXPECT_GT(error.m_line, 0);
        return std::to_string(error.m_code) + " " +
               std::string(error.m_file).substr(std::string(error.m_file).rfind("tests/")) + " " +
               error.m_function;
    }
    return "nothing";
}

TEST(Checks, LogOneLineAndRecordTheirPlace) {
    LogCapture log;
    const std::string place = " tests/provider/ErrorTest operator()";
    EXPECT_EQ(raised<OrmaError>([] { VERIFY_PTR(static_cast<int*>(nullptr), 3); }), "3" + place);
    EXPECT_EQ(raised<OrmaError>([] { VERIFY_ORMA(1 + 1 == 3, 1); }), "1" + place);
    EXPECT_EQ(raised<OrmaError>([] { VERIFY_ORMA_BOOL(false, 2); }), "2" + place);
    EXPECT_EQ(raised<LinuxError>([] {
                  errno = ENOENT;
                  VERIFY_LINUX(false);
              }),
              "4098" + place);
    EXPECT_EQ(raised<LinuxError>([] {
                  errno = EACCES;
                  VERIFY_LINUX_BOOL(false);
              }),
              std::to_string(4096 + EACCES) + place);
    EXPECT_EQ(raised<LinuxError>([] {
                  errno = 0;
                  VERIFY_LINUX(false);
                  errno = ENOENT;
                  VERIFY_LINUX(true);
                  VERIFY_LINUX_BOOL(true);
              }),
              "nothing");
    EXPECT_THAT(log.lines(),
                ElementsAre("operator():ErrorTest <ERROR> Exception: VERIFY_PTR",
                            "operator():ErrorTest <ERROR> Exception: VERIFY_ORMA",
                            "operator():ErrorTest <ERROR> Exception: VERIFY_ORMA_BOOL",
                            "operator():ErrorTest <ERROR> Exception: VERIFY_LINUX errno: 2 error: "
                            "No such file or directory ",
                            "operator():ErrorTest <ERROR> Exception: VERIFY_LINUX_BOOL"));
}

} // namespace
