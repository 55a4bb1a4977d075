// A file descriptor and its owner.
#ifndef STACK_UNIQUEFD_H
#define STACK_UNIQUEFD_H

#include <unistd.h>

#include <utility>

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int descriptor) : m_descriptor(descriptor) {}
    UniqueFd(UniqueFd&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }
    ~UniqueFd() { reset(); }

    int get() const { return m_descriptor; }
    bool valid() const { return m_descriptor >= 0; }
    // Closes and returns what close did.
    int reset() {
        const int descriptor = std::exchange(m_descriptor, -1);
        return descriptor >= 0 ? ::close(descriptor) : 0;
    }

  private:
    int m_descriptor = -1;
};

#endif
