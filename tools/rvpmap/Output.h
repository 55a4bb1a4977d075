// Results on their way to standard output, buffered, every write checked.
#ifndef RVPMAP_OUTPUT_H
#define RVPMAP_OUTPUT_H

#include <cstdint>
#include <cstring>
#include <fmt/format.h>
#include <string>
#include <string_view>

// What formatters append to.
using TextBuffer = fmt::basic_memory_buffer<char, 1024>;

// The catalogue consists of little else, so these are inlined wherever they are called.
[[gnu::always_inline]] inline char* grow(TextBuffer& buffer, std::size_t bytes) {
    const std::size_t at = buffer.size();
    buffer.resize(at + bytes);
    return buffer.data() + at;
}

[[gnu::always_inline]] inline void append(TextBuffer& buffer, std::string_view text) {
    std::memcpy(grow(buffer, text.size()), text.data(), text.size());
}

inline void appendNumber(TextBuffer& buffer, uint64_t value) {
    const fmt::format_int digits(value);
    append(buffer, {digits.data(), digits.size()});
}

// Writes all bytes. Throws OutputClosed when the reader has gone, else WriteError.
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
