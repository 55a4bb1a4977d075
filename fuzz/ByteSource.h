// Takes an input apart from its front; what is past its end reads as zero, so that every input
// means something.
#ifndef FUZZ_BYTESOURCE_H
#define FUZZ_BYTESOURCE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>

class ByteSource {
  public:
    ByteSource(const std::uint8_t* data, std::size_t size) : m_left(data, size) {}

    bool empty() const { return m_left.empty(); }

    template <typename Value>
    Value take() {
        Value value{};
        const std::span<const std::uint8_t> bytes = takeBytes(sizeof value);
        if (!bytes.empty()) {
            std::memcpy(&value, bytes.data(), bytes.size());
        }
        return value;
    }

    std::uint8_t byte() { return take<std::uint8_t>(); }
    bool flag() { return (byte() & 1) != 0; }
    // From 0 to `bound` - 1.
    std::uint8_t below(std::uint8_t bound) { return static_cast<std::uint8_t>(byte() % bound); }

    // At most `count` bytes, fewer at the end.
    std::span<const std::uint8_t> takeBytes(std::size_t count) {
        const auto bytes = m_left.first(std::min(count, m_left.size()));
        m_left = m_left.subspan(bytes.size());
        return bytes;
    }

    // A text with its length in front, shorter than 256 bytes.
    std::string text() {
        const auto bytes = takeBytes(byte());
        return {bytes.begin(), bytes.end()};
    }

    // A number of any magnitude: as wide as its first byte says.
    std::uint64_t number() {
        const std::uint8_t width = byte();
        std::uint64_t value = 0;
        const auto bytes = takeBytes(width % 9);
        std::copy(bytes.begin(), bytes.end(), reinterpret_cast<std::uint8_t*>(&value));
        return (width & 0x80) != 0 ? 0 - value : value;
    }

  private:
    std::span<const std::uint8_t> m_left;
};

#endif
