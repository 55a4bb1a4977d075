// A file-system-object library that answers from memory: every file index names the same regular
// file, of eight runs.
#include "fso/IFileSystemObjectV1.h"

#include <cstdint>

namespace {

constexpr std::uint64_t BLOCK_SIZE = 4096;
constexpr std::uint64_t RUN_COUNT = 8;
constexpr std::uint64_t RUN_LENGTH = 16 * BLOCK_SIZE;
constexpr std::uint64_t FILE_SIZE = RUN_COUNT * RUN_LENGTH;

class MemoryObject final : public IFileSystemObjectV1 {
  public:
    bool recognise() override { return true; }
    std::uint32_t rootIndex(std::uint64_t* index) override {
        *index = 2;
        return FSO_OK;
    }
    std::uint32_t statFs(fso_fs_record* record) override {
        *record = {};
        record->blockSize = BLOCK_SIZE;
        record->blockCount = 1 << 20;
        record->fileCount = 1 << 20;
        return FSO_OK;
    }
    std::uint32_t openFile(std::uint64_t index, fso_file_record* record,
                           std::uint32_t* /*flags*/) override {
        *record = {};
        record->mode = 0100644;
        record->size = FILE_SIZE;
        record->blocks = FILE_SIZE / 512;
        record->index = index;
        return FSO_OK;
    }
    std::uint32_t readDir(std::uint64_t /*index*/, fso_dir_request* /*request*/,
                          std::uint32_t* entryCount) override {
        *entryCount = 0;
        return FSO_OK;
    }
    std::uint32_t getExtents(std::uint64_t /*index*/, std::uint64_t offset, fso_extent* extents,
                             std::uint32_t capacity, std::uint32_t* count) override {
        std::uint64_t run = offset / RUN_LENGTH;
        for (*count = 0; run < RUN_COUNT && *count < capacity; ++run) {
            const bool isLast = run == RUN_COUNT - 1;
            extents[(*count)++] = {run * 2 * RUN_LENGTH, RUN_LENGTH,
                                   isLast ? std::uint32_t{FSO_EXTENT_LAST} : 0, 0};
        }
        return *count != 0 ? FSO_OK : FSO_INVALID;
    }
    std::uint32_t getMetadata(std::uint64_t /*index*/, fso_metadata* metadata) override {
        *metadata = {};
        return FSO_OK;
    }
    std::uint32_t closeFile(std::uint64_t /*index*/) override { return FSO_OK; }
};

MemoryObject s_object;
const fso_info s_info = {"memory", "1", "for measurements", nullptr};

} // namespace

extern "C" {

const fso_info* libInit(const char* /*directory*/) {
    return &s_info;
}

std::uint32_t openFileSystemObject(IFileSystemObjectV1** object, std::uint32_t /*sectorSize*/,
                                   fso_read_callback /*read*/, void* /*context*/,
                                   fso_log_callback /*log*/, fso_keep_alive_callback /*alive*/) {
    *object = &s_object;
    return FSO_OK;
}

std::uint32_t closeFileSystemObject(IFileSystemObjectV1** object) {
    *object = nullptr;
    return FSO_OK;
}

void libFini(const fso_info* /*head*/) {}
}
