// A file-system-object library whose answers contradict themselves: one file or directory for each
// way in which a caller could be led into an endless loop or outside its buffer.
#include "fso/IFileSystemObjectV1.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>
#include <sys/stat.h>

namespace {

enum Index : uint64_t { ROOT = 2, STUCK, OVERRUN, SHORT, ENDLESS, HOLES, ZERO, HUGE_RUN, PLAIN };

// In the order of their indices; all further names are the plain file's.
constexpr std::string_view NAMES[] = {
    "stuck", "overrun", "short",   "endless",          "holes", "zero", "huge", "plain", "..",
    ".",     "",        "../evil", "/tmp/rvpmap-evil", "a/b"};

uint32_t putEntry(char* to, uint64_t index, std::string_view name, uint64_t next) {
    fso_dir_entry record = {};
    record.index = index;
    record.next = next;
    record.recordLength = sizeof record + 24;
    record.nameLength = static_cast<uint32_t>(name.size());
    std::memcpy(to, &record, sizeof record);
    name.copy(to + sizeof record, name.size());
    return record.recordLength;
}

class HostileVolume : public IFileSystemObjectV1 {
  public:
    bool recognise() override { return true; }
    uint32_t rootIndex(uint64_t* index) override {
        *index = ROOT;
        return FSO_OK;
    }
    uint32_t statFs(fso_fs_record* record) override {
        *record = {};
        record->blockSize = 1024;
        record->blockCount = 64;
        record->fileCount = 64;
        return FSO_OK;
    }
    uint32_t openFile(uint64_t index, fso_file_record* record, uint32_t* /*flags*/) override {
        *record = {};
        record->mode = index < ENDLESS ? S_IFDIR : S_IFREG;
        record->size = 4096;
        record->index = index;
        return FSO_OK;
    }
    uint32_t readDir(uint64_t index, fso_dir_request* request, uint32_t* count) override {
        char* to = reinterpret_cast<char*>(request->buffer);
        request->resultCount = 0;
        *count = 0;
        if (index == ROOT) {
            for (uint64_t i = request->position; i < std::size(NAMES); ++i, ++*count) {
                request->resultCount +=
                    putEntry(to + request->resultCount, std::min<uint64_t>(STUCK + i, PLAIN),
                             NAMES[i], i + 1);
            }
            return FSO_OK;
        }
        const uint32_t length = putEntry(to, PLAIN, "again", 1);
        request->resultCount = index == STUCK ? length : index == OVERRUN ? length - 8 : 8;
        *count = 1;
        return FSO_OK;
    }
    uint32_t getExtents(uint64_t index, uint64_t offset, fso_extent* extents, uint32_t /*capacity*/,
                        uint32_t* count) override {
        extents[0] = {offset % 32768, 1024, FSO_EXTENT_LAST, 0};
        if (index == ENDLESS) {
            extents[0].flags = 0;
        } else if (index == HOLES) {
            extents[0].flags = FSO_EXTENT_HOLE;
        } else if (index == ZERO) {
            extents[0] = {};
        } else if (index == HUGE_RUN) {
            extents[0] = {0, offset == 0 ? 512 : UINT64_MAX - 511, 0, 0};
        }
        *count = 1;
        return FSO_OK;
    }
    uint32_t getMetadata(uint64_t /*index*/, fso_metadata* /*metadata*/) override {
        return FSO_UNSUPPORTED;
    }
    uint32_t closeFile(uint64_t /*index*/) override { return FSO_OK; }
};

const fso_info INFO = {"hostile", "1", "test", nullptr};

} // namespace

const fso_info* libInit(const char* /*directory*/) {
    return &INFO;
}

uint32_t openFileSystemObject(IFileSystemObjectV1** object, uint32_t /*sectorSize*/,
                              fso_read_callback /*read*/, void* /*context*/,
                              fso_log_callback /*log*/, fso_keep_alive_callback /*keepAlive*/) {
    static HostileVolume volume;
    *object = &volume;
    return FSO_OK;
}

uint32_t closeFileSystemObject(IFileSystemObjectV1** object) {
    *object = nullptr;
    return FSO_OK;
}

void libFini(const fso_info* /*head*/) {}
