// Messages to the user on standard error: "rvpmap: VOLUME: what was wrong".
#ifndef RVPMAP_MESSAGES_H
#define RVPMAP_MESSAGES_H

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class ToolError;
class Volume;

// `subject` is shown escaped; `text` is printed as it is.
void printMessage(std::string_view subject, std::string_view text);

// The same failure, told of a path on the volume.
ToolError about(std::string_view path, const ToolError& error);

// Tells of an open volume whose file system is not at rest.
void printState(const Volume& volume);

// The failures of a command that goes on past damage.
class Failures {
  public:
    enum class When { AT_ONCE, AT_THE_END };
    Failures(const std::string& volume, When when) : m_volume(volume), m_when(when) {}

    // `path` is raw bytes.
    void add(std::string_view path, std::string_view reason);
    std::size_t count() const { return m_count; }
    // Prints what was kept for the end, under a heading.
    void printList(std::string_view heading);

  private:
    std::string m_volume;
    When m_when;
    std::size_t m_count = 0;
    std::vector<std::pair<std::string, std::string>> m_kept;
};

#endif
