#include "File.h"

#include <sys/stat.h>

File::File(Volume& volume, uint64_t index, kmp_obj* object)
    : m_volume(&volume), m_index(index), m_object(object) {
    const int code = volume.call(volume.provider().statFile, object, &m_attributes);
    if (code != 0) {
        const std::string reason = volume.reason(code);
        close();
        throw ToolError(ExitStatus::FAILED, "its attributes cannot be read: " + reason);
    }
}

File& File::operator=(File&& other) noexcept {
    if (this != &other) {
        close();
        m_volume = other.m_volume;
        m_index = other.m_index;
        m_object = std::exchange(other.m_object, nullptr);
        m_attributes = other.m_attributes;
    }
    return *this;
}

void File::close() {
    if (m_object != nullptr) {
        m_volume->call(m_volume->provider().close, m_object);
        m_object = nullptr;
    }
}

uint32_t File::typeBits() const {
    return static_cast<uint32_t>(m_attributes.mode) & S_IFMT;
}

// A directory's links are its own entries.
bool File::hasSeveralPaths() const {
    return typeBits() != S_IFDIR && m_attributes.linkCount > 1;
}

std::string File::linkTarget() {
    kmp_extfile metadata = {};
    m_volume->check(m_volume->call(m_volume->provider().objctl, m_object,
                                   static_cast<int>(KMP_OCGETEXTFILE), &metadata),
                    "the link's target cannot be read");
    const kmp_extfile_piece& target = metadata.third;
    if (target.address == 0) {
        throw ToolError(ExitStatus::FAILED, "the link's target cannot be read");
    }
    return {reinterpret_cast<const char*>(target.address), target.length};
}

std::string_view typeName(uint32_t typeBits) {
    switch (typeBits) {
    case S_IFREG:
        return "file";
    case S_IFDIR:
        return "directory";
    case S_IFLNK:
        return "symlink";
    case S_IFIFO:
        return "fifo";
    case S_IFSOCK:
        return "socket";
    case S_IFCHR:
        return "chardev";
    case S_IFBLK:
        return "blockdev";
    default:
        return "unknown";
    }
}
