// Results for people: aligned columns, readable sizes, colours where they are wanted.
#ifndef RVPMAP_TABLE_H
#define RVPMAP_TABLE_H

#include "ExtentCursor.h"
#include "Output.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

class Table {
  public:
    explicit Table(bool colours) : m_colours(colours) {}

    // A name in the colour of its type, escaped for terminals.
    std::string name(std::string_view bytes, uint32_t mode) const;
    // mode, links, owner, size, time and name; `extents`: a column with their number.
    void appendFile(TextBuffer& out, std::string_view shownName, const File& file,
                    const std::optional<std::string>& target,
                    std::optional<uint64_t> extents) const;
    // "key:   value" lines.
    void appendPairs(TextBuffer& out,
                     const std::vector<std::pair<std::string, std::string>>& pairs) const;

  private:
    std::string paint(const char* colour, const std::string& text) const;

    bool m_colours;
};

// "drwxr-xr-x".
std::string modeText(uint64_t mode);

#endif
