// Errors, their texts and the checks that raise them.
#include "Error.h"
#include "support/ErrorListener.h"
#include "support/LogCapture.h"
#include "support/Raised.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;

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

TEST(Errors, LinuxOnesAreAlwaysUnknownAndTranslateTwoCodes) {
    const LinuxError missing(4096 + ENOENT, "f", 1, "g");
    for (const LinuxError& error : {missing, LinuxError(missing)}) {
        EXPECT_EQ(error.getOrmaErrorValue(), 4098);
        EXPECT_STREQ(error.getEnglishText(), "Unknown error");
        EXPECT_STREQ(error.getLocalizedText(), "Unknown error");
        EXPECT_STREQ(error.getDomainText(), "Linux Error Code");
    }
    EXPECT_EQ(LinuxError(4096 + ENOMEM, "f", 1, "g").getOrmaErrorValue(), 5);
    EXPECT_EQ(LinuxError(4096, "f", 1, "g").getOrmaErrorValue(), 0);
    const OrmaError orma(3, "f", 1, "g");
    EXPECT_EQ(orma.getOrmaErrorValue(), 3);
    EXPECT_STREQ(orma.getDomainText(), "OrMA Error Code");
}

TEST(Errors, SeveritiesBecomeLogLevels) {
    LogCapture log;
    const OrmaError error(0x12, "some/dir/File", 34, "f");
    for (const int severity : {1, 2, 3, 4, 5}) {
        error.log(static_cast<kmp_eseverity>(severity));
    }
    const std::string text = " Error: 0x00000012 occured in file some/dir/File, at line 34";
    EXPECT_THAT(log.lines(), ElementsAre("log:Error <INFO>" + text, "log:Error <WARN>" + text,
                                         "log:Error <ERROR>" + text, "log:Error <DEBUG>" + text,
                                         "log:Error <ERROR>" + text));
    EXPECT_TRUE(error.isLogEnabled());
    km_debug_level = 0;
    EXPECT_FALSE(error.isLogEnabled());
}

TEST(Errors, AMappingEndsAtTheEmptyText) {
    const Error::ErrorMapping table[] = {{1, "one"}, {2, "two"}, {2, "again"}, {3, ""}, {4, "x"}};
    EXPECT_STREQ(OrmaError(2, "f", 1, "g").findErrorMapping(table), "two");
    EXPECT_STREQ(OrmaError(4, "f", 1, "g").findErrorMapping(table), "Unknown error");
    EXPECT_STREQ(OrmaError(3, "f", 1, "g").findErrorMapping(table + 3), "Unknown error");
}

TEST(Errors, OnceTellsThemApartByCodeLineAndFile) {
    const std::string file = "file";
    EXPECT_TRUE(LogOnce(OrmaError(1, "file", 1, "g")));
    EXPECT_FALSE(LogOnce(OrmaError(1, file.c_str(), 1, "other")));
    EXPECT_FALSE(LogOnce(LinuxError(1, "file", 1, "g")));
    EXPECT_TRUE(LogOnce(OrmaError(1, "file", 2, "g")));
    EXPECT_TRUE(LogOnce(OrmaError(2, "file", 1, "g")));
    EXPECT_TRUE(LogOnce(OrmaError(1, "other", 1, "g")));
}

TEST(Handler, HearsErrorsAndMessages) {
    const OrmaError error(5, "f", 1, "g");
    kmp_ehandler deaf = {nullptr};
    for (kmp_ehandler* nobody : {static_cast<kmp_ehandler*>(nullptr), &deaf}) {
        Error::s_pHandler = nobody;
        Error::LogMessage("fn", 7, "file", KMP_SEVERITY_INFO, "lost");
        error.callback(KMP_SEVERITY_WARNING, false);
    }

    ErrorListener listener;
    Error::s_pHandler = &listener;
    LogCapture log;
    error.callback(KMP_SEVERITY_WARNING, false);
    EXPECT_TRUE(log.caught.empty());
    error.callback(KMP_SEVERITY_WARNING, true);
    EXPECT_EQ(log.caught.size(), 1U);
    for (const int severity : {1, 2, 3, 4, 5}) {
        Error::LogMessage("fn", 7, "file", static_cast<kmp_eseverity>(severity), "a %d", severity);
    }
    const std::string place = ": File <file>, Function <fn>, Line <7> a ";
    EXPECT_THAT(listener.heard, ElementsAre(ErrorListener::Heard{"Insufficient memory", true, 2},
                                            ErrorListener::Heard{"Insufficient memory", true, 2},
                                            ErrorListener::Heard{"INFO" + place + "1", false, 1},
                                            ErrorListener::Heard{"WARNING" + place + "2", false, 2},
                                            ErrorListener::Heard{"ERROR" + place + "3", false, 3},
                                            ErrorListener::Heard{"DEBUG" + place + "4", false, 4},
                                            ErrorListener::Heard{"a 5", false, 5}));
    const std::string endless(2000, 'x');
    Error::LogMessage("fn", 7, "file", KMP_SEVERITY_ERROR, "%s", endless.c_str());
    EXPECT_EQ(listener.heard.back().english.size(), 1023U);
    Error::s_pHandler = nullptr;
}

TEST(Checks, LogOneLineAndRecordTheirPlace) {
    LogCapture log;
    const auto raised = [](int code) {
        return std::to_string(code) + " " + SOURCE_FILE + " operator()";
    };
    EXPECT_EQ(raisedBy<OrmaError>([] { VERIFY_PTR(static_cast<int*>(nullptr), 3); }), raised(3));
    EXPECT_EQ(raisedBy<OrmaError>([] { VERIFY_ORMA(1 + 1 == 3, 1); }), raised(1));
    EXPECT_EQ(raisedBy<OrmaError>([] { VERIFY_ORMA_BOOL(false, 2); }), raised(2));
    errno = ENOENT;
    EXPECT_EQ(raisedBy<LinuxError>([] { VERIFY_LINUX(false); }), raised(4096 + ENOENT));
    EXPECT_EQ(raisedBy<LinuxError>([] { VERIFY_LINUX_BOOL(false); }), raised(4096 + ENOENT));
    EXPECT_EQ(raisedBy([] {
                  VERIFY_LINUX(true);
                  VERIFY_LINUX_BOOL(true);
                  errno = 0;
                  VERIFY_LINUX(false);
              }),
              "nothing");
    const std::string line = "operator():ErrorTest <ERROR> Exception: ";
    EXPECT_THAT(log.lines(),
                ElementsAre(line + "VERIFY_PTR", line + "VERIFY_ORMA", line + "VERIFY_ORMA_BOOL",
                            line + "VERIFY_LINUX errno: 2 error: No such file or directory ",
                            line + "VERIFY_LINUX_BOOL"));
}

} // namespace
