// Catches the lines that reach the host while it lives.
//
// Whether anything is logged is decided at the first question in a process. Programs that use this
// log, without call traces; tests run in a process each and may decide otherwise at their start.
#ifndef TESTS_LOGCAPTURE_H
#define TESTS_LOGCAPTURE_H

#include "kmhost.h"

#include <regex>
#include <string>
#include <vector>

inline const bool g_loggingIsOn = [] {
    km_debug_level = 1;
    return true;
}();

class LogCapture {
  public:
    struct Line {
        std::string raw;
        int indent;
        int severity;
    };

    LogCapture() { kmhost_log_to(take, this); }
    ~LogCapture() { kmhost_log_to(nullptr, nullptr); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // "function:file <LABEL> message" of each line, without time stamp, line number and line feed.
    std::vector<std::string> lines() const {
        static const std::regex shape(
            R"(^\d\d/\d\d/\d{4} \d\d:\d\d:\d\d : ([^:]*):([^:]*):\d+ <([^>]*)> : ([^]*)$)");
        std::vector<std::string> result;
        for (const Line& line : caught) {
            std::string text = std::regex_replace(line.raw, shape, "$1:$2 <$3> $4");
            while (text.ends_with('\n')) {
                text.pop_back();
            }
            result.push_back(text);
        }
        return result;
    }

    void clear() { caught.clear(); }

    std::vector<Line> caught;

  private:
    static void take(void* self, const char* text, int indent, kmp_eseverity severity) {
        static_cast<LogCapture*>(self)->caught.push_back({text, indent, severity});
    }
};

#endif
