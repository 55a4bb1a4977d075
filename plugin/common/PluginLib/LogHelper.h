// Logging front end: composes the lines that the host's log receives.
//
// Whether anything is logged is decided once in a process, from the host's debug level at the first
// question; a later change of the level alters nothing. The control file, read at that moment, may
// restrict call tracing to named source files. No function here reports a failure: a line that
// cannot be composed is dropped. Nothing is locked.
//
// Levels: 0 error, 2 warning, 3 information, 4 debug, 5 to 7 trace (7 for calls).
#ifndef PLUGINLIB_LOGHELPER_H
#define PLUGINLIB_LOGHELPER_H

#include "SourcePlace.h"
#include "kmp/kmp.h"

#include <cstdarg>

// Decides from the debug level: 2 for no logging, else 1 after reading the control file.
int queryLoggingStatus();

class LogHelper {
  public:
    // Answers whether lines are wanted; callers ask before they build a line's arguments.
    static bool isActive();

    // True once it is decided that nothing is logged. Log sites look here before they ask, so that
    // a line that is not wanted costs one branch and no call.
    static bool s_isOff;

    // Logs one line under the last component of `file`. `reserved` is not used.
    __attribute__((format(printf, 6, 7))) static void plugin_elog(const char* function,
                                                                  const char* file, int line,
                                                                  char* reserved, int level,
                                                                  const char* format, ...);

    // Composes one line and hands it to the host. `systemError` may be null.
    __attribute__((format(printf, 7, 0))) static void
    plugin_velog(char* reserved, int level, const char* systemError, const char* function,
                 const char* file, int line, const char* format, va_list arguments);

    // Hands a report for the user to the host: kind 0, 2 or any other.
    __attribute__((format(printf, 2, 3))) static void plugin_ereport(int kind, const char* format,
                                                                     ...);
};

// Traces a scope at level 5, 6 or 7 with an "in" and an "out" line; lines between are indented by
// one more. The texts are not copied and must outlive the scope.
class LogTrace {
  public:
    LogTrace(const char* function, const char* file, int line, int level);
    ~LogTrace();
    LogTrace(const LogTrace&) = delete;
    LogTrace& operator=(const LogTrace&) = delete;

    static int trace_indent;

  private:
    const char* m_function = nullptr;
    const char* m_file = nullptr;
    int m_line = 0;
    int m_level = 0;
    bool m_active = false;
};

// Logs a line from the operation `function`; a macro because the arguments must not be evaluated
// when logging is off.
#define PLUGIN_LOG_AS(function, line, level, ...)                                                  \
    do {                                                                                           \
        if (!LogHelper::s_isOff && LogHelper::isActive()) {                                        \
            LogHelper::plugin_elog(function, SOURCE_FILE, line, nullptr, level, __VA_ARGS__);      \
        }                                                                                          \
    } while (false)

#define PLUGIN_LOG(level, ...) PLUGIN_LOG_AS(__func__, __LINE__, level, __VA_ARGS__)

// Logs a failed or a secondary claim. Any other value, a primary claim among them, is logged as
// invalid.
inline void plugin_report_claim(int claim, const char* name) {
    if (claim == KM_CLAIM_NONE) {
        PLUGIN_LOG(3, "Return KM_CLAIM_NONE for: %s\n", name);
    } else if (claim == KM_CLAIM_SECONDARY) {
        PLUGIN_LOG(3, "Return KM_CLAIM_SECONDARY for: %s\n", name);
    } else {
        PLUGIN_LOG(2, "Invalid claim type\n");
    }
}

// Logs a host call's result on its way out, from the operation given; 0 has no line.
inline int plugin_log_result(int result, const char* file,
                             const char* function = __builtin_FUNCTION(),
                             int line = __builtin_LINE()) {
    if (result == 0 || LogHelper::s_isOff || !LogHelper::isActive()) {
        return result;
    }
    if (result == KMP_ENOTSUP) {
        LogHelper::plugin_elog(function, file, line, nullptr, 4, "Returning: KMP_ENOTSUP\n");
    } else {
        LogHelper::plugin_elog(function, file, line, nullptr, 2, "Returning: %d\n", result);
    }
    return result;
}

#endif
