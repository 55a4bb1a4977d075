// The tool's exit statuses and the failure that carries one to main.
#ifndef RVPMAP_EXITSTATUS_H
#define RVPMAP_EXITSTATUS_H

#include <stdexcept>
#include <string>

enum class ExitStatus {
    DONE = 0,
    NOT_FOUND = 1, // not claimed, does not exist, or is not of the right kind
    USAGE = 2,
    FAILED = 3 // an error while opening, reading, mapping or writing
};

// What went wrong, in words that follow the name of the volume or file.
class ToolError : public std::runtime_error {
  public:
    ToolError(ExitStatus status, const std::string& text)
        : std::runtime_error(text), m_status(status) {}
    ExitStatus status() const { return m_status; }

  private:
    ExitStatus m_status;
};

// The result can take no more: work that goes on past damage ends here all the same.
class WriteError : public ToolError {
  public:
    explicit WriteError(const std::string& text) : ToolError(ExitStatus::FAILED, text) {}
};

// The reader of the output has gone: the tool ends without a word.
class OutputClosed : public std::exception {};

// A signal asked the tool to end; main cleans up and lets the signal act.
class Interrupted : public std::exception {
  public:
    explicit Interrupted(int signal) : m_signal(signal) {}
    int signal() const { return m_signal; }

  private:
    int m_signal;
};

#endif
