#include "FileSystemObject.h"

#include <exception>
#include <new>

namespace {

// A status outside of fso_status, which the host takes for an internal error.
constexpr std::uint32_t INTERNAL_ERROR = 255;

} // namespace

FileSystemObject::FileSystemObject(std::uint32_t sectorSize, fso_read_callback read, void* context,
                                   fso_log_callback log, fso_keep_alive_callback keepAlive)
    : m_volume(sectorSize, read, context, log, keepAlive) {}

template <typename Operation>
std::uint32_t FileSystemObject::guarded(const char* name, Operation operation) noexcept {
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        m_volume.report(FS_LOG_ERROR, "%s: out of memory", name);
        return FSO_NO_MEMORY;
    } catch (const std::exception& error) {
        m_volume.report(FS_LOG_ERROR, "%s: %s", name, error.what());
        return INTERNAL_ERROR;
    } catch (...) {
        m_volume.report(FS_LOG_ERROR, "%s: unknown failure", name);
        return INTERNAL_ERROR;
    }
}

bool FileSystemObject::recognise() {
    const std::uint32_t status = guarded("recognise", [this]() -> std::uint32_t {
        for (const ReaderKind& kind : readerKinds()) {
            if (m_reader == nullptr) {
                m_reader = kind.open(m_volume);
            }
        }
        return m_reader != nullptr ? FSO_OK : FSO_UNSUPPORTED;
    });
    return status == FSO_OK;
}

std::uint32_t FileSystemObject::rootIndex(std::uint64_t* index) {
    if (m_reader == nullptr) {
        return FSO_NOT_INITIALISED;
    }
    if (index == nullptr) {
        return FSO_INVALID;
    }
    *index = m_reader->rootIndex();
    return FSO_OK;
}

std::uint32_t FileSystemObject::statFs(fso_fs_record* record) {
    if (m_reader == nullptr) {
        return FSO_NOT_INITIALISED;
    }
    if (record == nullptr) {
        return FSO_INVALID;
    }
    *record = {};
    m_reader->statFs(*record);
    return FSO_OK;
}

std::uint32_t FileSystemObject::openFile(std::uint64_t index, fso_file_record* record,
                                         std::uint32_t* flags) {
    if (m_reader == nullptr) {
        return FSO_NOT_INITIALISED;
    }
    if (record == nullptr || flags == nullptr) {
        return FSO_INVALID;
    }
    *record = {};
    return guarded("openFile",
                   [&]() -> std::uint32_t { return m_reader->openFile(index, *record); });
}

std::uint32_t FileSystemObject::readDir(std::uint64_t index, fso_dir_request* request,
                                        std::uint32_t* entryCount) {
    if (m_reader == nullptr) {
        return FSO_NOT_INITIALISED;
    }
    if (request == nullptr || entryCount == nullptr) {
        return FSO_INVALID;
    }
    *entryCount = 0;
    request->resultCount = 0;
    if (request->buffer == 0) {
        return FSO_INVALID;
    }
    return guarded("readDir", [&]() -> std::uint32_t {
        return m_reader->readDir(index, *request, *entryCount);
    });
}

std::uint32_t FileSystemObject::getExtents(std::uint64_t index, std::uint64_t offset,
                                           fso_extent* extents, std::uint32_t capacity,
                                           std::uint32_t* count) {
    if (count == nullptr) {
        return FSO_INVALID;
    }
    *count = 0;
    if (m_reader == nullptr) {
        return FSO_NOT_INITIALISED;
    }
    if (extents == nullptr || capacity == 0) {
        return FSO_INVALID;
    }
    return guarded("getExtents", [&]() -> std::uint32_t {
        return m_reader->getExtents(index, offset, {extents, capacity}, *count);
    });
}

std::uint32_t FileSystemObject::getMetadata(std::uint64_t index, fso_metadata* metadata) {
    if (m_reader == nullptr) {
        return FSO_NOT_INITIALISED;
    }
    if (metadata == nullptr) {
        return FSO_INVALID;
    }
    *metadata = {};
    return guarded("getMetadata",
                   [&]() -> std::uint32_t { return m_reader->getMetadata(index, *metadata); });
}

std::uint32_t FileSystemObject::closeFile(std::uint64_t index) {
    if (m_reader == nullptr) {
        return FSO_NOT_INITIALISED;
    }
    return guarded("closeFile", [&]() -> std::uint32_t {
        m_reader->closeFile(index);
        return FSO_OK;
    });
}
