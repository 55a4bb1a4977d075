#include "ImageFile.h"

#include "ExitStatus.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

// O_NONBLOCK keeps the opening of a FIFO from waiting for a writer; files and disks ignore it.
ImageFile::ImageFile(const std::string& path, uint64_t start)
    : m_path(path), m_file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)),
      m_start(start) {
    if (!m_file.valid()) {
        throw ToolError(ExitStatus::FAILED, std::strerror(errno));
    }
    measure();
}

void ImageFile::measure() {
    struct stat status = {};
    if (::fstat(m_file.get(), &status) != 0) {
        throw ToolError(ExitStatus::FAILED, std::strerror(errno));
    }
    uint64_t bytes = 0;
    if (S_ISREG(status.st_mode)) {
        bytes = static_cast<uint64_t>(status.st_size);
    } else if (!S_ISBLK(status.st_mode)) {
        throw ToolError(ExitStatus::FAILED, "is neither an image file nor a block device");
    } else if (::ioctl(m_file.get(), BLKGETSIZE64, &bytes) != 0) {
        throw ToolError(ExitStatus::FAILED, std::strerror(errno));
    }
    if (m_start > bytes) {
        throw ToolError(ExitStatus::FAILED,
                        fmt::format("byte {} is past the end of {}, which has {} bytes", m_start,
                                    m_path, bytes));
    }
    m_size = bytes - m_start;
}

void ImageFile::read(uint64_t offset, std::size_t length, char* buffer) const {
    if (offset > m_size || length > m_size - offset) {
        throw failure(
            offset, length,
            fmt::format("past the end of {}, which has {} bytes", m_path, m_start + m_size), true);
    }
    for (std::size_t done = 0; done < length;) {
        const auto at = static_cast<off_t>(m_start + offset + done);
        const ssize_t count = ::pread(m_file.get(), buffer + done, length - done, at);
        if (count > 0) {
            done += static_cast<std::size_t>(count);
        } else if (count == 0) {
            throw failure(offset, length, fmt::format("{} has become shorter", m_path), true);
        } else if (errno != EINTR) {
            throw failure(offset, length, fmt::format("{}: {}", m_path, std::strerror(errno)),
                          false);
        }
    }
}

SourceError ImageFile::failure(uint64_t offset, uint64_t length, const std::string& reason,
                               bool pastEnd) const {
    return SourceError(
        fmt::format("read of {} bytes at offset {}: {}", length, m_start + offset, reason),
        pastEnd);
}
