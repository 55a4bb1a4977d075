// The library's four entry points. There is no state to prepare: libInit makes the information
// records, and objects can be opened before it and after libFini.
#include "FileSystemObject.h"
#include "Reader.h"

#include <new>
#include <vector>

namespace {

constexpr const char* VERSION = LIBFSO_VERSION;

// One record a reader, chained in the order in which they are tried.
std::vector<fso_info> makeInfo() {
    std::vector<fso_info> records;
    for (const ReaderKind& kind : readerKinds()) {
        records.push_back({kind.name, VERSION, kind.build(), nullptr});
    }
    for (std::size_t i = 1; i < records.size(); ++i) {
        records[i - 1].next = &records[i];
    }
    return records;
}

} // namespace

const fso_info* libInit(const char*) {
    try {
        static const std::vector<fso_info> s_records = makeInfo();
        return s_records.data();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

std::uint32_t openFileSystemObject(IFileSystemObjectV1** object, std::uint32_t sectorSize,
                                   fso_read_callback read, void* context, fso_log_callback log,
                                   fso_keep_alive_callback keepAlive) {
    if (object == nullptr || read == nullptr || !Volume::isSectorSize(sectorSize)) {
        return FSO_INVALID;
    }
    try {
        *object = new FileSystemObject(sectorSize, read, context, log, keepAlive);
        return FSO_OK;
    } catch (const std::bad_alloc&) {
        return FSO_NO_MEMORY;
    }
}

std::uint32_t closeFileSystemObject(IFileSystemObjectV1** object) {
    if (object == nullptr || *object == nullptr) {
        return FSO_INVALID;
    }
    delete static_cast<FileSystemObject*>(*object);
    *object = nullptr;
    return FSO_OK;
}

void libFini(const fso_info*) {}
