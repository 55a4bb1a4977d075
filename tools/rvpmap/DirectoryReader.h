// The entries of one directory, in the directory's order, through one buffer of fixed size.
#ifndef RVPMAP_DIRECTORYREADER_H
#define RVPMAP_DIRECTORYREADER_H

#include "File.h"

#include <memory>
#include <optional>
#include <string_view>

struct DirectoryEntry {
    std::string_view name;
    uint64_t index;
    uint32_t typeBits; // 0 where the directory does not say
};

class DirectoryReader {
  public:
    // Takes over an opened directory.
    explicit DirectoryReader(File directory);
    // The next entry; null at the end. The entry is valid until the next call. Throws ToolError;
    // asking again after that is the end.
    const DirectoryEntry* next();
    // Gives file and buffer back; the next call to next opens the directory again.
    void rest();
    Volume& volume() const { return m_volume; }

  private:
    static constexpr std::size_t BUFFER_BYTES = 64 * 1024;

    bool fill();
    void take();
    [[noreturn]] void fail(const std::string& text);

    Volume& m_volume;
    uint64_t m_index;
    std::optional<File> m_file;
    std::unique_ptr<uint64_t[]> m_buffer;
    std::size_t m_filled = 0;
    std::size_t m_at = 0;
    uint64_t m_position = 0;
    bool m_ended = false;
    DirectoryEntry m_entry = {};
};

#endif
