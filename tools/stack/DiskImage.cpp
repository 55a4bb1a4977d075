#include "DiskImage.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

SourceError readFailure(uint64_t offset, uint64_t length, const std::string& reason, bool pastEnd) {
    return {fmt::format("read of {} bytes at offset {}: {}", length, offset, reason), pastEnd};
}

SourceError systemFailure() {
    return {std::strerror(errno), false};
}

} // namespace

// O_NONBLOCK keeps the opening of a FIFO from waiting for a writer; files and disks ignore it.
DiskImage::Opened DiskImage::open(const std::string& path) {
    Opened opened;
    opened.file = UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status = {};
    if (!opened.file.valid() || ::fstat(opened.file.get(), &status) != 0) {
        throw systemFailure();
    }
    opened.isDevice = S_ISBLK(status.st_mode);
    opened.device = opened.isDevice ? status.st_rdev : status.st_dev;
    opened.inode = opened.isDevice ? 0 : status.st_ino;
    if (S_ISREG(status.st_mode)) {
        opened.size = static_cast<uint64_t>(status.st_size);
    } else if (!opened.isDevice) {
        throw SourceError("is neither an image file nor a block device", false);
    } else if (::ioctl(opened.file.get(), BLKGETSIZE64, &opened.size) != 0) {
        throw systemFailure();
    }
    return opened;
}

void DiskImage::read(uint64_t offset, std::size_t length, char* buffer) const {
    checkRange(offset, length);
    for (std::size_t done = 0; done < length;) {
        const ssize_t count = ::pread(m_opened.file.get(), buffer + done, length - done,
                                      static_cast<off_t>(offset + done));
        if (count > 0) {
            done += static_cast<std::size_t>(count);
        } else if (count == 0) {
            throw readFailure(offset, length, fmt::format("{} has become shorter", name()), true);
        } else if (errno != EINTR) {
            throw readFailure(offset, length, fmt::format("{}: {}", name(), std::strerror(errno)),
                              false);
        }
    }
}

std::size_t DiskImage::send(uint64_t offset, std::size_t length, int target, uint64_t to) const {
    checkRange(offset, length);
    auto from = static_cast<off64_t>(offset);
    auto at = static_cast<off64_t>(to);
    const ssize_t count = ::copy_file_range(m_opened.file.get(), &from, target, &at, length, 0);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

// A range that is not on the disk is no range of it; what lies on it has nothing below.
std::vector<LayerRun> DiskImage::map(uint64_t offset, uint64_t length) const {
    checkRange(offset, length);
    return {};
}

std::vector<LayerUse> DiskImage::uses(const LayerPlace& place, uint64_t length) const {
    return place.layer == this ? ownUses(place, length) : std::vector<LayerUse>();
}

bool DiskImage::isSameAs(const DiskImage& other) const {
    const Opened& its = other.m_opened;
    return m_opened.isDevice == its.isDevice && m_opened.device == its.device &&
           m_opened.inode == its.inode;
}
