// Results on their way to standard output, buffered, every write checked.
#ifndef RVPMAP_OUTPUT_H
#define RVPMAP_OUTPUT_H

#include <fmt/format.h>
#include <string>
#include <string_view>

// What formatters append to.
using TextBuffer = fmt::basic_memory_buffer<char, 1024>;

inline void append(TextBuffer& buffer, std::string_view text) {
    buffer.append(text.data(), text.data() + text.size());
}

// Writes all bytes. Throws OutputClosed when the reader has gone, else ToolError.
void writeAll(int descriptor, const char* bytes, std::size_t length, const std::string& name);

class Output {
  public:
    // Append a piece, then call `pace`; the buffer is written when it has grown large.
    TextBuffer& buffer() { return m_buffer; }
    void pace() {
        if (m_buffer.size() >= FLUSH_BYTES) {
            flush();
        }
    }
    void flush();

  private:
    static constexpr std::size_t FLUSH_BYTES = 128 * 1024;
    TextBuffer m_buffer;
};

#endif
