#include "Error.h"

#include <cstdarg>
#include <iterator>
#include <list>
#include <new>

namespace {

constexpr int FILE_NAME_SIZE = 260;
constexpr std::size_t LINUX_TEXT_SIZE = 260;
constexpr std::size_t HANDLER_MESSAGE_SIZE = 1024;

using CodeText = Error::ErrorMapping;

constexpr const char* NO_TEXT = "";

constexpr int COMMON_BASE = 0;
constexpr unsigned LAST_COMMON_CODE = 1023;
constexpr CodeText COMMON_TEXTS[] = {
    {0, "No error"},
    {1, "Internal error in liborma"},
    {2, "kmp_start not called or called twice"},
    {3, "Invalid argument(s)"},
    {4, "Operation not supported by provider"},
    {5, "Insufficient memory"},
    {6, "Provider specific error"},
    {7, "Provider didn't successfully initalize"},
    {8, "Application version doesn't match API"},
    {9, "Provider version doesn't match API"},
    {10, NO_TEXT},
    {11, "System call failed"},
    {12, "Provider incompatible with other installed binaries"},
    {13, "Operation not permitted by specified permissions"},
    {14, "Library not found or improper permissions to open library"},
    {15, "Function not found in library"},
    {16, "Object name undefined or unprintable"},
    {17, "Hash key is not found in the hash table"},
    {18, "Could not find Plugin Target Product(PTP)"},
    {19, "Plugin is incompatible with Plugin Target Product(PTP)"},
    {20, "The file is locked by another process"},
    {21, "The the open object is deleted by some other process"},
    {22, "The directory is not empty and hence cannot be deleted"},
    {23, "Error opening snapshot disk(s) using given transport mode(s)"},
};

constexpr int MAPPING_BASE = 2048;
constexpr CodeText MAPPING_TEXTS[] = {
    {2048, "Extent not resolvable in specified mode"},
    {2049, "md_appriv busy in mapdomain mode"},
    {2050, "External name not recognized"},
    {2051, "Invalid mapdomain flag"},
    {2052, "Extent length not determinable"},
    {2053, "Node is not mappable because it is a leaf node"},
    {2054, "Cannot map a terminus node"},
    {2055, "Invalid namespace"},
    {2056, "No local to external translation"},
    {2057, "Change in configid is unknown"},
    {2058, "File index not allocated"},
    {2059, "Object not claimed by any provider"},
    {2060, "Encountered an object ID not in the mapdomain"},
    {2061, "File created, but attributes not restored"},
    {2062, "File system created, but attributes not restored"},
    {2063, "Object is not mappable"},
    {2064, "Invalid object type for operation"},
    {2065, "Requested operation is inconsistent with the flags the object was opened with"},
    {2066, "kmp_mark_mapdomain didn't terminate all branches"},
    {2067, "kmp_mark_mapdomain didn't terminate any branches"},
    {2068, "Attempted to resolve zero length file"},
    {2069, "No statistics are available for this object"},
    {2070, "No more file descriptors are available"},
    {2071, "Specified I/O buffer size insufficient for requested operation"},
    {2072, "The inode is reserved by the file system and cannot be opened"},
    {2073, "The file already exists"},
    {2074, "This operation not permitted on Dummy object"},
};

// The lookups go by position, so a gap in a table would shift every later text.
template <std::size_t Count>
constexpr bool isDense(const CodeText (&table)[Count], int base) {
    for (std::size_t i = 0; i < Count; ++i) {
        if (table[i].code != base + static_cast<int>(i)) {
            return false;
        }
    }
    return true;
}
static_assert(isDense(COMMON_TEXTS, COMMON_BASE) && std::size(COMMON_TEXTS) == 24);
static_assert(isDense(MAPPING_TEXTS, MAPPING_BASE) && std::size(MAPPING_TEXTS) == 27);

template <std::size_t Count>
const char* textAt(const CodeText (&table)[Count], int code, int base) {
    const unsigned index = static_cast<unsigned>(code) - static_cast<unsigned>(base);
    return index < Count ? table[index].text : NO_TEXT;
}

int levelOf(kmp_eseverity severity) {
    switch (severity) {
    case KMP_SEVERITY_WARNING:
        return 2;
    case KMP_SEVERITY_DEBUG:
        return 4;
    case KMP_SEVERITY_INFO:
        return 3;
    default:
        return 0;
    }
}

const char* handlerPrefix(kmp_eseverity severity) {
    switch (severity) {
    case KMP_SEVERITY_INFO:
        return "INFO: File <%s>, Function <%s>, Line <%d> ";
    case KMP_SEVERITY_WARNING:
        return "WARNING: File <%s>, Function <%s>, Line <%d> ";
    case KMP_SEVERITY_ERROR:
        return "ERROR: File <%s>, Function <%s>, Line <%d> ";
    case KMP_SEVERITY_DEBUG:
        return "DEBUG: File <%s>, Function <%s>, Line <%d> ";
    default:
        return nullptr;
    }
}

} // namespace

kmp_ehandler* Error::s_pHandler = nullptr;
const char* Error::s_pUnknownErrorString = "Unknown error";
bool Error::m_logState = false;
bool Error::m_isLogStateChecked = false;

Error::Error(int code, const char* file, int line, const char* function)
    : m_code(code), m_file(file), m_line(line), m_function(function) {}

Error::~Error() = default;

void Error::log(kmp_eseverity severity) const {
    char file[FILE_NAME_SIZE];
    V_strlcpy(file, m_file, sizeof file);
    PLUGIN_LOG(levelOf(severity), "Error: 0x%08X occured in file %s, at line %d\n",
               static_cast<unsigned>(m_code), file, m_line);
}

void Error::callback(kmp_eseverity severity, bool doLog) const {
    if (s_pHandler != nullptr && s_pHandler->handler != nullptr) {
        s_pHandler->handler(s_pHandler, getEnglishText(), getLocalizedText(), severity);
    }
    if (doLog) {
        log(severity);
    }
}

bool Error::isLogEnabled() const {
    m_logState = km_debug_level != 0;
    m_isLogStateChecked = true;
    return m_logState;
}

const char* Error::findErrorMapping(const ErrorMapping* table) const {
    for (; table->text[0] != '\0'; ++table) {
        if (table->code == m_code) {
            return table->text;
        }
    }
    return s_pUnknownErrorString;
}

void Error::LogMessage(const char* function, int line, const char* file, kmp_eseverity severity,
                       const char* format, ...) {
    if (s_pHandler == nullptr || s_pHandler->handler == nullptr) {
        return;
    }
    char message[HANDLER_MESSAGE_SIZE] = {};
    if (const char* prefix = handlerPrefix(severity)) {
        V_snprintf(message, sizeof message, prefix, file, function, line);
    }
    const std::size_t used = std::strlen(message);
    va_list arguments;
    va_start(arguments, format);
    V_vsnprintf(message + used, sizeof message - used, format, arguments);
    va_end(arguments);
    s_pHandler->handler(s_pHandler, message, nullptr, severity);
}

MsgCatalog::MsgCatalog(const char* name, const char* /*locale*/, bool /*flag*/) {
    V_strlcpy(m_name, name, sizeof m_name);
}

MsgCatalog::~MsgCatalog() = default;

const char* MsgCatalog::getMsgStr(int code) const {
    if (std::strcmp(m_name, "OrmaError") != 0) {
        return NO_TEXT;
    }
    if (static_cast<unsigned>(code) > LAST_COMMON_CODE) {
        return textAt(MAPPING_TEXTS, code, MAPPING_BASE);
    }
    return textAt(COMMON_TEXTS, code, COMMON_BASE);
}

MsgCatalog OrmaError::m_EnglishCatalog("OrmaError", "root", false);

OrmaError::OrmaError(int code, const char* file, int line, const char* function)
    : Error(code, file, line, function) {}

int OrmaError::getOrmaErrorValue() const {
    return m_code;
}

const char* OrmaError::getEnglishText() const {
    return m_EnglishCatalog.getMsgStr(m_code);
}

const char* OrmaError::getLocalizedText() const {
    return m_EnglishCatalog.getMsgStr(m_code);
}

const char* OrmaError::getDomainText() const {
    return "OrMA Error Code";
}

LinuxError::LinuxError(int code, const char* file, int line, const char* function)
    : Error(code, file, line, function), m_pText(nullptr) {}

LinuxError::LinuxError(const LinuxError& other) : Error(other), m_pText(nullptr) {}

LinuxError::~LinuxError() {
    delete[] m_pText;
}

int LinuxError::getOrmaErrorValue() const {
    switch (m_code) {
    case KMP_ERRNO_BASE:
        return KMP_OK;
    case KMP_ERRNO_BASE + ENOMEM:
        return KMP_ENOMEM;
    default:
        return m_code;
    }
}

const char* LinuxError::getEnglishText() const {
    return getText();
}

const char* LinuxError::getLocalizedText() const {
    return getText();
}

const char* LinuxError::getDomainText() const {
    return "Linux Error Code";
}

// The test of the allocation is the wrong way round, and hosts know the text that comes of it: a
// fresh buffer is dropped at each call, and the number is only formatted where there is no buffer.
const char* LinuxError::getText() const {
    if (m_pText != nullptr) {
        return m_pText;
    }
    // Called by name: a compiler may drop an allocation that is written as an expression.
    auto* buffer = static_cast<char*>(::operator new[](LINUX_TEXT_SIZE, std::nothrow));
    if (buffer != nullptr) {
        m_pText = nullptr; // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks)
        return s_pUnknownErrorString;
    }
    V_snprintf(buffer, 0, "Linux error number: %d", m_code - KMP_ERRNO_BASE);
    return s_pUnknownErrorString;
}

bool LogOnce(const Error& error) {
    static std::list<OrmaError> reported;
    for (const OrmaError& known : reported) {
        if (known.m_code == error.m_code && known.m_line == error.m_line &&
            std::strcmp(known.m_file, error.m_file) == 0) {
            return false;
        }
    }
    reported.emplace_back(error.m_code, error.m_file, error.m_line, error.m_function);
    return true;
}
