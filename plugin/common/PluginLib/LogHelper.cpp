#include "LogHelper.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <strings.h>

namespace {

constexpr const char* CONTROL_FILE = "/usr/kestrel/lib/.orma.rc";
constexpr int CONTROL_LINE_SIZE = 250;
constexpr std::size_t MESSAGE_SIZE = 2048;
constexpr std::size_t LABEL_SIZE = 64;

constexpr int UNDECIDED = 0;
constexpr int ACTIVE = 1;
constexpr int INACTIVE = 2;

struct TraceFile {
    TraceFile* next;
    char name[CONTROL_LINE_SIZE];
};

int s_log = UNDECIDED;
TraceFile* s_traceFileHead = nullptr;
int s_traceFileRef = 0;

struct LevelLabel {
    int level;
    const char* label;
    int severity;
};

constexpr LevelLabel LEVEL_LABELS[] = {
    {0, "ERROR", KMP_SEVERITY_ERROR},  {2, "WARN", KMP_SEVERITY_WARNING},
    {3, "INFO", KMP_SEVERITY_INFO},    {4, "DEBUG", KMP_SEVERITY_DEBUG},
    {5, "TRACE", KMP_SEVERITY_TRACE5}, {6, "TRACE", KMP_SEVERITY_TRACE6},
    {7, "TRACE", KMP_SEVERITY_TRACE7},
};
constexpr LevelLabel UNKNOWN_LABEL = {-1, "Unknown Error", KMP_SEVERITY_INFO};

void appendTraceFile(const char* name) {
    auto* node = new (std::nothrow) TraceFile{};
    if (node == nullptr) {
        return;
    }
    V_strlcpy(node->name, name, sizeof node->name);
    TraceFile** tail = &s_traceFileHead;
    while (*tail != nullptr) {
        tail = &(*tail)->next;
    }
    *tail = node;
}

void readControlFile() {
    std::FILE* file = std::fopen(CONTROL_FILE, "r");
    if (file == nullptr) {
        return;
    }
    char line[CONTROL_LINE_SIZE];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        char* value = std::strchr(line, '=');
        if (line[0] == '#' || value == nullptr || std::strstr(line, "file") == nullptr) {
            continue;
        }
        ++value;
        value[std::strcspn(value, "\n")] = '\0';
        appendTraceFile(value);
    }
    std::fclose(file);
}

void decideOnce() {
    if (s_log == UNDECIDED) {
        s_log = queryLoggingStatus();
        LogHelper::s_isOff = s_log == INACTIVE;
    }
}

const char* lastComponent(const char* path) {
    if (const char* backslash = std::strrchr(path, '\\')) {
        return backslash + 1;
    }
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

LevelLabel labelOf(int level) {
    for (const LevelLabel& known : LEVEL_LABELS) {
        if (known.level == level) {
            return known;
        }
    }
    return UNKNOWN_LABEL;
}

// A format of the shape ":tag:text" logs only the text.
const char* withoutTag(const char* format) {
    if (format[0] != ':' || format[1] == '\0') {
        return format;
    }
    const char* end = std::strchr(format + 1, ':');
    return end != nullptr ? end + 1 : format;
}

const char* withoutFirstScope(const char* function) {
    const char* scope = std::strstr(function, "::");
    return scope != nullptr ? scope + 2 : function;
}

// A line under composition; what does not fit is cut.
class LineBuffer {
  public:
    explicit LineBuffer(char* text) : m_text(text) { m_text[0] = '\0'; }

    __attribute__((format(printf, 2, 3))) void append(const char* format, ...) {
        va_list arguments;
        va_start(arguments, format);
        appendList(format, arguments);
        va_end(arguments);
    }

    __attribute__((format(printf, 2, 0))) void appendList(const char* format, va_list arguments) {
        const std::size_t used = std::strlen(m_text);
        V_vsnprintf(m_text + used, MESSAGE_SIZE - used, format, arguments);
    }

  private:
    char* m_text;
};

void appendTimeStamp(LineBuffer& line) {
    const std::time_t now = std::time(nullptr);
    std::tm local = {};
    localtime_r(&now, &local);
    line.append("%02d/%02d/%04d %02d:%02d:%02d : ", local.tm_mon + 1, local.tm_mday,
                local.tm_year + 1900, local.tm_hour, local.tm_min, local.tm_sec);
}

bool traceBitIsSet(int level) {
    if (level < 5 || level > 7) {
        return false;
    }
    const unsigned bit = 28U + static_cast<unsigned>(level - 5);
    return ((static_cast<unsigned>(km_debug_level) >> bit) & 1U) != 0;
}

bool fileIsTraced(const char* file) {
    if (s_traceFileHead == nullptr) {
        return true;
    }
    for (const TraceFile* node = s_traceFileHead; node != nullptr; node = node->next) {
        if (strcasecmp(node->name, file) == 0) {
            return true;
        }
    }
    return false;
}

} // namespace

int queryLoggingStatus() {
    if (km_debug_level == 0) {
        return INACTIVE;
    }
    if (s_traceFileRef == 0) {
        readControlFile();
    }
    if (s_traceFileHead != nullptr) {
        ++s_traceFileRef;
    }
    return ACTIVE;
}

bool LogHelper::s_isOff = false;

bool LogHelper::isActive() {
    decideOnce();
    return s_log != INACTIVE;
}

void LogHelper::plugin_elog(const char* function, const char* file, int line, char* reserved,
                            int level, const char* format, ...) {
    decideOnce();
    if (s_log == INACTIVE) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    plugin_velog(reserved, level, nullptr, function, lastComponent(file), line, format, arguments);
    va_end(arguments);
}

void LogHelper::plugin_velog(char* /*reserved*/, int level, const char* systemError,
                             const char* function, const char* file, int line, const char* format,
                             va_list arguments) {
    const std::unique_ptr<char[]> text(new (std::nothrow) char[MESSAGE_SIZE]);
    if (text == nullptr) {
        return;
    }
    char label[LABEL_SIZE];
    const LevelLabel known = labelOf(level);
    V_strlcpy(label, known.label, sizeof label);

    LineBuffer composed(text.get());
    const char* message = withoutTag(format);
    appendTimeStamp(composed);
    const char* name = withoutFirstScope(function);
    if (systemError == nullptr) {
        composed.append("%s:%s:%d <%s> : ", name, file, line, label);
    } else if (std::strncmp(systemError, "No error", 8) == 0) {
        composed.append("%s:%s:%d <%s>  : ", name, file, line, label);
    } else {
        composed.append("%s:%s:%d <%s> [Sys Error: %s] : ", name, file, line, label, systemError);
    }
    composed.appendList(message, arguments);
    km_log_provider_msg(text.get(), 0, LogTrace::trace_indent, known.severity);
}

void LogHelper::plugin_ereport(int kind, const char* format, ...) {
    const std::unique_ptr<char[]> text(new (std::nothrow) char[MESSAGE_SIZE]);
    if (text == nullptr) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    V_vsnprintf(text.get(), MESSAGE_SIZE, format, arguments);
    va_end(arguments);
    const int hostKind = kind == 0 ? 10 : kind == 2 ? 9 : 8;
    km_report_provider_msg(text.get(), hostKind);
}

int LogTrace::trace_indent = 0;

LogTrace::LogTrace(const char* function, const char* file, int line, int level) {
    if (!traceBitIsSet(level) || !fileIsTraced(file)) {
        return;
    }
    m_active = true;
    m_function = function;
    m_file = file;
    m_line = line;
    m_level = level;
    LogHelper::plugin_elog(m_function, m_file, m_line, nullptr, m_level, "%s\n", "in");
    ++trace_indent;
}

LogTrace::~LogTrace() {
    if (!m_active) {
        return;
    }
    --trace_indent;
    LogHelper::plugin_elog(m_function, m_file, m_line, nullptr, m_level, "%s\n", "out");
}
