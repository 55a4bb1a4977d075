#include "Output.h"

#include "ExitStatus.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

void writeAll(int descriptor, const char* bytes, std::size_t length, const std::string& name) {
    while (length != 0) {
        const ssize_t count = ::write(descriptor, bytes, length);
        if (count >= 0) {
            bytes += count;
            length -= static_cast<std::size_t>(count);
        } else if (errno == EPIPE) {
            throw OutputClosed();
        } else if (errno != EINTR) {
            throw WriteError(fmt::format("cannot write to {}: {}", name, std::strerror(errno)));
        }
    }
}

void Output::flush() {
    const std::size_t length = m_buffer.size();
    m_buffer.resize(0);
    writeAll(STDOUT_FILENO, m_buffer.data(), length, "standard output");
}
