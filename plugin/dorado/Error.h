// The library's exceptions, the catalogue of their texts, and the checks that raise them.
//
// Every failure inside the library is an `Error` thrown by value and caught by reference. An
// error's own operations never throw. The file and function names of an error are not copied: they
// are literals. The host's error handler and the flags are process-wide and not locked.
#ifndef DORADO_ERROR_H
#define DORADO_ERROR_H

#include "LogHelper.h"
#include "kmp/kmp.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

class Error {
  public:
    // A record of a mapping table; the table ends with a record whose text is empty.
    struct ErrorMapping {
        int code;
        const char* text;
    };

    Error(int code, const char* file, int line, const char* function);
    Error(const Error&) = default;
    Error& operator=(const Error&) = default;

    virtual ~Error();
    // The host code that the error stands for.
    virtual int getOrmaErrorValue() const = 0;
    virtual void log(kmp_eseverity severity) const;
    virtual const char* getEnglishText() const = 0;
    virtual const char* getLocalizedText() const = 0;
    // The name of the code space.
    virtual const char* getDomainText() const = 0;

    // Tells the host's error handler, if there is one, and logs the error when `doLog` is set.
    void callback(kmp_eseverity severity, bool doLog) const;
    bool isLogEnabled() const;
    // The text of this error's code in `table`, or "Unknown error".
    const char* findErrorMapping(const ErrorMapping* table) const;
    // Hands a message of at most 1023 bytes, its source in front, to the host's error handler.
    __attribute__((format(printf, 5, 6))) static void LogMessage(const char* function, int line,
                                                                 const char* file,
                                                                 kmp_eseverity severity,
                                                                 const char* format, ...);

    static kmp_ehandler* s_pHandler; // the host's; null outside of an initialised instance
    static const char* s_pUnknownErrorString;
    static bool m_logState;
    static bool m_isLogStateChecked;

    int m_code; // as raised: a host code, or errno + 4096
    const char* m_file;
    int m_line;
    const char* m_function;
};

// Code to text. The name chooses the tables; only "OrmaError" has any here.
class MsgCatalog {
  public:
    // `name` is cut to 259 characters; the other arguments are not used.
    MsgCatalog(const char* name, const char* locale, bool flag);
    ~MsgCatalog();
    // Never null: an unknown code or catalogue gives the empty string. The text is static.
    const char* getMsgStr(int code) const;

  private:
    char m_name[260];
};

// Carries a host code.
class OrmaError : public Error {
  public:
    OrmaError(int code, const char* file, int line, const char* function);

    int getOrmaErrorValue() const override;
    const char* getEnglishText() const override;
    const char* getLocalizedText() const override;
    const char* getDomainText() const override;

    static MsgCatalog m_EnglishCatalog;
};

// Carries errno + 4096.
class LinuxError : public Error {
  public:
    LinuxError(int code, const char* file, int line, const char* function);
    LinuxError(const LinuxError& other);
    LinuxError& operator=(const LinuxError&) = delete;

    ~LinuxError() override;
    int getOrmaErrorValue() const override;
    const char* getEnglishText() const override;
    const char* getLocalizedText() const override;
    const char* getDomainText() const override;
    // Always "Unknown error".
    const char* getText() const;

  private:
    mutable char* m_pText; // owned; stays null
};

static_assert(sizeof(Error) == 40 && sizeof(OrmaError) == 40 && sizeof(LinuxError) == 48);
static_assert(sizeof(MsgCatalog) == 260);

// True for the first error with this code, line and file in the process, false from then on.
bool LogOnce(const Error& error);

// ---- Checks
// --------------------------------------------------------------------------------------
//
// Each logs its line at level 0 and throws, recording the place of use.

inline constexpr const char* VERIFY_PTR_TEXT = "Exception: VERIFY_PTR\n";
inline constexpr const char* VERIFY_ORMA_TEXT = "Exception: VERIFY_ORMA\n";
inline constexpr const char* VERIFY_ORMA_BOOL_TEXT = "Exception: VERIFY_ORMA_BOOL\n";

[[noreturn]] inline void raiseOrmaError(const char* text, int code, const char* file, int line,
                                        const char* function) {
    if (LogHelper::isActive()) {
        LogHelper::plugin_elog(function, file, line, nullptr, 0, "%s", text);
    }
    throw OrmaError(code, file, line, function);
}

#define VERIFY_PTR(pointer, code)                                                                  \
    do {                                                                                           \
        if ((pointer) == nullptr) {                                                                \
            raiseOrmaError(VERIFY_PTR_TEXT, (code), SOURCE_FILE, __LINE__, __func__);              \
        }                                                                                          \
    } while (false)

#define VERIFY_ORMA(condition, code)                                                               \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            raiseOrmaError(VERIFY_ORMA_TEXT, (code), SOURCE_FILE, __LINE__, __func__);             \
        }                                                                                          \
    } while (false)

#define VERIFY_ORMA_BOOL(condition, code)                                                          \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            raiseOrmaError(VERIFY_ORMA_BOOL_TEXT, (code), SOURCE_FILE, __LINE__, __func__);        \
        }                                                                                          \
    } while (false)

// errno is read after the line has been logged.
#define VERIFY_LINUX_BOOL(condition)                                                               \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            PLUGIN_LOG(0, "Exception: VERIFY_LINUX_BOOL\n");                                       \
            throw LinuxError(errno + KMP_ERRNO_BASE, SOURCE_FILE, __LINE__, __func__);             \
        }                                                                                          \
    } while (false)

// A failure with errno 0 passes.
#define VERIFY_LINUX(condition)                                                                    \
    do {                                                                                           \
        if (!(condition) && errno != 0) {                                                          \
            const int verifyErrno = errno;                                                         \
            PLUGIN_LOG(0, "Exception: VERIFY_LINUX errno: %d error: %s \n", verifyErrno,           \
                       std::strerror(verifyErrno));                                                \
            throw LinuxError(verifyErrno + KMP_ERRNO_BASE, SOURCE_FILE, __LINE__, __func__);       \
        }                                                                                          \
    } while (false)

#endif
