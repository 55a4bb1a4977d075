// Errors, their texts and the checks that raise them.
#include "Error.h"
#include "support/ErrorListener.h"
#include "support/LogCapture.h"
#include "support/Raised.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using Heard = ErrorListener::Heard;

TEST(Catalogue, AnswersByPositionWithGapsEmpty) {
    const MsgCatalog& catalog = OrmaError::m_EnglishCatalog;
    EXPECT_STREQ(catalog.getMsgStr(0), "No error");
    EXPECT_STREQ(catalog.getMsgStr(21), "The the open object is deleted by some other process");
    EXPECT_STREQ(catalog.getMsgStr(2074), "This operation not permitted on Dummy object");
    for (const int code : {10, 24, 1023, 1024, 2047, 2075, -1}) {
        EXPECT_STREQ(catalog.getMsgStr(code), "") << code;
    }
    EXPECT_STREQ(MsgCatalog("ormaerror", "root", false).getMsgStr(3), "");
    EXPECT_STREQ(MsgCatalog(std::string(300, 'x').c_str(), "root", false).getMsgStr(3), "");
}

TEST(Errors, HaveTextsAndHostCodes) {
    const LinuxError missing(4096 + ENOENT, "f", 1, "g");
    EXPECT_EQ(LinuxError(missing).getOrmaErrorValue(), 4098);
    EXPECT_STREQ(missing.getEnglishText(), "Unknown error");
    EXPECT_STREQ(missing.getDomainText(), "Linux Error Code");
    EXPECT_EQ(LinuxError(4096 + ENOMEM, "f", 1, "g").getOrmaErrorValue(), 5);
    EXPECT_EQ(LinuxError(4096, "f", 1, "g").getOrmaErrorValue(), 0);
    const OrmaError orma(2, "f", 1, "g");
    EXPECT_EQ(orma.getOrmaErrorValue(), 2);
    EXPECT_STREQ(orma.getDomainText(), "OrMA Error Code");
    const Error::ErrorMapping table[] = {{1, "one"}, {2, "two"}, {3, ""}, {2, "behind the end"}};
    EXPECT_STREQ(orma.findErrorMapping(table), "two");
    EXPECT_STREQ(orma.findErrorMapping(table + 2), "Unknown error");
}

TEST(Errors, OnceTellsThemApartByCodeLineAndFile) {
    const std::string file = "file";
    EXPECT_TRUE(LogOnce(OrmaError(1, "file", 1, "g")));
    EXPECT_FALSE(LogOnce(LinuxError(1, file.c_str(), 1, "other")));
    EXPECT_TRUE(LogOnce(OrmaError(1, "file", 2, "g")));
    EXPECT_TRUE(LogOnce(OrmaError(2, "file", 1, "g")));
    EXPECT_TRUE(LogOnce(OrmaError(1, "other", 1, "g")));
}

TEST(Errors, ReachTheLogAndTheHandlerBySeverity) {
    LogCapture log;
    ErrorListener listener;
    const OrmaError error(5, "some/dir/File", 34, "f");
    kmp_ehandler deaf = {nullptr};
    for (kmp_ehandler* handler :
         {static_cast<kmp_ehandler*>(nullptr), &deaf, static_cast<kmp_ehandler*>(&listener)}) {
        Error::s_pHandler = handler;
        error.callback(KMP_SEVERITY_WARNING, false);
        Error::LogMessage("fn", 7, "file", KMP_SEVERITY_TRACE5, "%s",
                          std::string(2000, 'x').c_str());
    }
    for (const int severity : {1, 2, 3, 4}) {
        error.callback(static_cast<kmp_eseverity>(severity), true);
        Error::LogMessage("fn", 7, "file", static_cast<kmp_eseverity>(severity), "a %d", severity);
    }
    const std::string text = " Error: 0x00000005 occured in file some/dir/File, at line 34";
    EXPECT_THAT(log.lines(), ElementsAre("log:Error <INFO>" + text, "log:Error <WARN>" + text,
                                         "log:Error <ERROR>" + text, "log:Error <DEBUG>" + text));
    const std::string memory = "Insufficient memory";
    const std::string place = ": File <file>, Function <fn>, Line <7> a ";
    EXPECT_THAT(listener.heard,
                ElementsAre(Heard{memory, true, 2}, Heard{std::string(1023, 'x'), false, 5},
                            Heard{memory, true, 1}, Heard{"INFO" + place + "1", false, 1},
                            Heard{memory, true, 2}, Heard{"WARNING" + place + "2", false, 2},
                            Heard{memory, true, 3}, Heard{"ERROR" + place + "3", false, 3},
                            Heard{memory, true, 4}, Heard{"DEBUG" + place + "4", false, 4}));
    Error::s_pHandler = nullptr;
    EXPECT_TRUE(error.isLogEnabled());
}

TEST(Checks, OfSystemCallsRecordTheErrorNumberAndTheirPlace) {
    LogCapture log;
    const std::string raised = "4098 " + std::string(SOURCE_FILE) + " operator()";
    errno = ENOENT;
    EXPECT_EQ(raisedBy<LinuxError>([] { VERIFY_LINUX(false); }), raised);
    EXPECT_EQ(raisedBy<LinuxError>([] { VERIFY_LINUX_BOOL(false); }), raised);
    VERIFY_LINUX(true);
    errno = 0;
    VERIFY_LINUX(false);
    const std::string line = "operator():ErrorTest <ERROR> Exception: VERIFY_LINUX";
    EXPECT_THAT(log.lines(),
                ElementsAre(line + " errno: 2 error: No such file or directory ", line + "_BOOL"));
}

} // namespace
