// A file-system-object library in its smallest useful form: a tar archive as a volume. Regular
// files of the archive's top level appear in the root directory, each with its one run.
#include "fso/IFileSystemObjectV1.h"

#include <cstring>
#include <new>
#include <string>
#include <vector>

namespace {

constexpr uint64_t BLOCK = 512;
constexpr uint64_t ROOT = 1; // a file's index is its place in the list + 2

struct File {
    std::string name;
    uint64_t data; // where its bytes begin
    uint64_t size;
    uint64_t mode;
};

uint64_t octal(const char* field, std::size_t length) {
    uint64_t value = 0;
    for (std::size_t i = 0; i < length && field[i] >= '0' && field[i] <= '7'; ++i) {
        value = value * 8 + static_cast<uint64_t>(field[i] - '0');
    }
    return value;
}

uint64_t blocksOf(uint64_t size) {
    return (size + BLOCK - 1) / BLOCK;
}

class TarVolume final : public IFileSystemObjectV1 {
  public:
    TarVolume(fso_read_callback read, void* context) : m_read(read), m_context(context) {}

    bool recognise() override {
        try {
            listFiles();
        } catch (const std::bad_alloc&) {
            return false;
        }
        return m_end != 0;
    }
    uint32_t rootIndex(uint64_t* index) override {
        *index = ROOT;
        return FSO_OK;
    }
    uint32_t statFs(fso_fs_record* record) override {
        *record = {};
        record->blockSize = BLOCK;
        record->blockCount = record->usedBlocks = m_end / BLOCK;
        record->fileCount = m_files.size() + 1;
        record->maxNameLength = 100;
        return FSO_OK;
    }
    uint32_t openFile(uint64_t index, fso_file_record* record, uint32_t* /*flags*/) override {
        *record = {};
        record->index = index;
        record->linkCount = 1;
        record->mode = 0040755;
        if (index == ROOT) {
            return FSO_OK;
        }
        const File* file = find(index);
        if (file == nullptr) {
            return FSO_NOT_FOUND;
        }
        record->mode = file->mode;
        record->size = file->size;
        record->blocks = blocksOf(file->size);
        return FSO_OK;
    }
    // A position is the number of entries before it.
    uint32_t readDir(uint64_t index, fso_dir_request* request, uint32_t* entryCount) override {
        request->resultCount = 0;
        *entryCount = 0;
        if (index != ROOT) {
            return FSO_INVALID;
        }
        uint64_t at = request->position;
        for (; at < m_files.size(); ++at, ++*entryCount) {
            const std::string& name = m_files[at].name;
            const auto nameLength = static_cast<uint32_t>(name.size());
            const uint32_t length = (FSO_DIR_ENTRY_NAME_OFFSET + nameLength + 1 + 7) / 8 * 8;
            if (request->resultCount + length > request->bufferSize) {
                return request->resultCount == 0 ? FSO_INVALID : FSO_OK;
            }
            char* to = reinterpret_cast<char*>(request->buffer + request->resultCount);
            const fso_dir_entry entry = {at + 2, at + 1, length, nameLength, 0100000, 0};
            std::memset(to, 0, length);
            std::memcpy(to, &entry, sizeof entry);
            name.copy(to + FSO_DIR_ENTRY_NAME_OFFSET, nameLength);
            request->resultCount += length;
        }
        return FSO_OK;
    }
    uint32_t getExtents(uint64_t index, uint64_t offset, fso_extent* extents, uint32_t capacity,
                        uint32_t* count) override {
        *count = 0;
        const File* file = find(index);
        const uint64_t length = file != nullptr ? blocksOf(file->size) * BLOCK : 0;
        if (capacity == 0 || (offset >= length && offset != 0)) {
            return FSO_INVALID;
        }
        *count = 1;
        extents[0] = {0, 0, FSO_EXTENT_HOLE | FSO_EXTENT_LAST, 0};
        if (length != 0) {
            extents[0] = {file->data + offset, length - offset, FSO_EXTENT_LAST, 0};
        }
        return FSO_OK;
    }
    uint32_t getMetadata(uint64_t /*index*/, fso_metadata* metadata) override {
        *metadata = {};
        return FSO_OK;
    }
    uint32_t closeFile(uint64_t /*index*/) override { return FSO_OK; }

  private:
    // Walks the headers: magic at 257, name at 0, mode at 100, size at 124, type at 156.
    void listFiles() {
        char header[BLOCK];
        while (m_read(m_context, m_end, BLOCK, header) &&
               std::memcmp(header + 257, "ustar", 5) == 0) {
            const uint64_t size = octal(header + 124, 11);
            const std::string name(header, strnlen(header, 100));
            if (header[156] == '0' && !name.empty() && name.find('/') == std::string::npos) {
                m_files.push_back({name, m_end + BLOCK, size, 0100000 | octal(header + 100, 7)});
            }
            m_end += BLOCK + blocksOf(size) * BLOCK;
        }
    }
    const File* find(uint64_t index) const {
        return index >= 2 && index - 2 < m_files.size() ? &m_files[index - 2] : nullptr;
    }

    fso_read_callback m_read;
    void* m_context;
    std::vector<File> m_files;
    uint64_t m_end = 0;
};

const fso_info s_info = {"tar", "1", "example", nullptr};

} // namespace

const fso_info* libInit(const char* /*directory*/) {
    return &s_info;
}

uint32_t openFileSystemObject(IFileSystemObjectV1** object, uint32_t /*sectorSize*/,
                              fso_read_callback read, void* context, fso_log_callback /*log*/,
                              fso_keep_alive_callback /*keepAlive*/) {
    *object = new (std::nothrow) TarVolume(read, context);
    return *object != nullptr ? FSO_OK : FSO_NO_MEMORY;
}

uint32_t closeFileSystemObject(IFileSystemObjectV1** object) {
    delete static_cast<TarVolume*>(*object);
    *object = nullptr;
    return FSO_OK;
}

void libFini(const fso_info* /*head*/) {}
