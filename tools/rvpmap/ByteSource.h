// The bytes below a volume: an image file today, any stack of layers behind the same interface.
#ifndef RVPMAP_BYTESOURCE_H
#define RVPMAP_BYTESOURCE_H

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

// A read that failed, in words that name the file or disk and the offset there.
class SourceError : public std::runtime_error {
  public:
    // `pastEnd`: the source is too short, as against a device or file that cannot be read.
    SourceError(const std::string& text, bool pastEnd)
        : std::runtime_error(text), m_pastEnd(pastEnd) {}
    bool pastEnd() const { return m_pastEnd; }

  private:
    bool m_pastEnd;
};

class ByteSource {
  public:
    virtual ~ByteSource() = default;
    // Bytes.
    virtual uint64_t size() const = 0;
    // Fills exactly `length` bytes from byte `offset` on, or throws SourceError.
    virtual void read(uint64_t offset, std::size_t length, char* buffer) const = 0;
};

#endif
