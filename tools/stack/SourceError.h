// A read that failed, in words that name the disk and the offset there.
#ifndef STACK_SOURCEERROR_H
#define STACK_SOURCEERROR_H

#include <stdexcept>
#include <string>

class SourceError : public std::runtime_error {
  public:
    // `pastEnd`: the source is too short, as against a device or file that cannot be read.
    SourceError(const std::string& text, bool pastEnd)
        : std::runtime_error(text), m_pastEnd(pastEnd) {}
    bool pastEnd() const { return m_pastEnd; }

  private:
    bool m_pastEnd;
};

#endif
