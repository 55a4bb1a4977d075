// The reference library over hostile ext2, ext3 and ext4 volumes: everything that a host can ask is
// asked of every file. Answers must keep their shape, name no byte outside the volume, and come to
// an end.
//
// Input: a base volume, the volume's length, then patches (Patches.h) of its metadata.
#include "ByteSource.h"
#include "Patches.h"
#include "Require.h"
#include "fso/IFileSystemObjectV1.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <vector>

namespace {

// New ones go last: inputs name them by number.
constexpr const char* BASES[] = {"ext2",   "extents", "checksums", "inline",
                                 "hashed", "groups",  "bigalloc"};
constexpr std::size_t MAX_PATCHES = 24;
constexpr std::uint64_t MAX_INDEX = 64;
constexpr std::size_t MAX_CALLS = 64;
constexpr std::uint32_t CAPACITIES[] = {1, 5, 64};

std::vector<PatchedImage>& images() {
    static const std::vector<BaseImage> s_bases = [] {
        std::vector<BaseImage> bases;
        for (const char* name : BASES) {
            bases.emplace_back(std::string(FUZZ_BASES "/libfso/") + name + ".img.gz");
        }
        return bases;
    }();
    static std::vector<PatchedImage> s_images(s_bases.begin(), s_bases.end());
    return s_images;
}

struct MemoryVolume {
    const char* bytes;
    std::size_t size;
};

bool readVolume(void* context, unsigned long offset, unsigned long length, char* buffer) {
    const auto& volume = *static_cast<const MemoryVolume*>(context);
    if (offset > volume.size || length > volume.size - offset) {
        return false;
    }
    std::memcpy(buffer, volume.bytes + offset, length);
    return true;
}

int takeLine(fs_log_level_t, const char* text) {
    const std::string_view line(text);
    require(line.ends_with('\n'), "a log line ends in a line feed");
    for (std::size_t at = line.find('%'); at != line.npos; at = line.find('%', at + 2)) {
        require(line.substr(at, 2) == "%%", "a log line is a format without arguments");
    }
    return 1;
}

class Walk {
  public:
    explicit Walk(MemoryVolume& volume) {
        require(openFileSystemObject(&m_object, 512, readVolume, &volume, takeLine, nullptr) ==
                    FSO_OK,
                "an object opens over any volume");
    }
    ~Walk() { closeFileSystemObject(&m_object); }
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;

    void everything() {
        if (!m_object->recognise()) {
            return;
        }
        std::uint64_t root = 0;
        require(m_object->rootIndex(&root) == FSO_OK, "there is a root");
        require(m_object->statFs(&m_fs) == FSO_OK, "a file system has statistics");
        require(m_fs.blockSize >= 1024 && m_fs.blockSize <= 65536, "blocks have a size");
        require(m_fs.usedBlocks + m_fs.freeBlocks == m_fs.blockCount, "blocks are used or free");
        require(std::memchr(m_fs.volumeName, 0, sizeof m_fs.volumeName) != nullptr,
                "the volume's name ends");
        file(root);
        for (std::uint64_t index = 0; index <= std::min(m_fs.fileCount, MAX_INDEX); ++index) {
            file(index);
        }
        file(m_fs.fileCount);
        file(m_fs.fileCount + 1);
        file(FSO_NO_INDEX);
    }

  private:
    void file(std::uint64_t index) {
        fso_file_record record;
        std::uint32_t flags = 0;
        if (m_object->openFile(index, &record, &flags) == FSO_OK) {
            require(record.index == index, "a record names its file");
        }
        metadata(index);
        extents(index, CAPACITIES[index % std::size(CAPACITIES)]);
        list(index, index % 2 == 0 ? 4096 : 320);
        require(m_object->closeFile(index) == FSO_OK, "a file closes");
    }

    static void touch(const fso_metadata_piece& piece) {
        const auto* bytes = reinterpret_cast<const volatile char*>(piece.address);
        require((piece.address == 0) == (piece.length == 0), "a piece has an address and a length");
        for (std::uint64_t i = 0; i < piece.length; ++i) {
            static_cast<void>(bytes[i]);
        }
    }

    void metadata(std::uint64_t index) {
        fso_metadata pieces;
        if (m_object->getMetadata(index, &pieces) == FSO_OK) {
            touch(pieces.inode);
            touch(pieces.attributeBlock);
            touch(pieces.linkTarget);
        }
    }

    void check(const fso_extent& run, std::uint64_t at) const {
        const bool empty =
            at == 0 && run.length == 0 && run.flags == (FSO_EXTENT_HOLE | FSO_EXTENT_LAST);
        require(run.length > 0 || empty, "a run has a length");
        require(run.length <= UINT64_MAX - at, "a file ends");
        if ((run.flags & FSO_EXTENT_HOLE) != 0) {
            require(run.offset == 0, "a hole lies nowhere");
            return;
        }
        const std::uint64_t end = m_fs.blockSize * m_fs.blockCount;
        require(run.offset < end && run.length <= end - run.offset, "a run lies in the volume");
    }

    void extents(std::uint64_t index, std::uint32_t capacity) const {
        std::array<fso_extent, 64> runs;
        std::uint64_t at = 0;
        for (std::size_t calls = 0; calls < MAX_CALLS; ++calls) {
            std::uint32_t count = 0;
            const std::uint32_t status =
                m_object->getExtents(index, at, runs.data(), capacity, &count);
            require(count <= capacity, "no more runs than there is room for");
            require(status == FSO_OK ? count > 0 : count == 0, "runs come with success");
            for (std::uint32_t i = 0; i < count; ++i) {
                check(runs[i], at);
                at += runs[i].length;
            }
            if (count == 0 || (runs[count - 1].flags & FSO_EXTENT_LAST) != 0) {
                return;
            }
        }
    }

    // Returns where to go on.
    static std::uint64_t checkEntries(const char* at, const char* end, std::uint32_t count) {
        std::uint64_t next = 0;
        for (; count > 0; --count) {
            fso_dir_entry entry;
            require(end - at >= static_cast<std::ptrdiff_t>(sizeof entry), "an entry is whole");
            std::memcpy(&entry, at, sizeof entry);
            require(entry.recordLength % 8 == 0 &&
                        entry.recordLength <= static_cast<std::size_t>(end - at) &&
                        entry.nameLength < entry.recordLength - FSO_DIR_ENTRY_NAME_OFFSET,
                    "an entry holds its name");
            const std::string_view name(at + FSO_DIR_ENTRY_NAME_OFFSET, entry.nameLength);
            require(!name.empty() && name.find('\0') == name.npos && name.find('/') == name.npos &&
                        name != "." && name != "..",
                    "a name can be one");
            require(at[FSO_DIR_ENTRY_NAME_OFFSET + entry.nameLength] == '\0', "a name ends");
            require(entry.next != 0, "a listing goes on behind an entry");
            next = entry.next;
            at += entry.recordLength;
        }
        require(at == end, "the result count fits the entries");
        return next;
    }

    void list(std::uint64_t index, std::size_t bufferSize) const {
        alignas(8) std::array<char, 4096> buffer;
        fso_dir_request request = {reinterpret_cast<std::uint64_t>(buffer.data()), bufferSize, 0,
                                   0};
        for (std::size_t calls = 0; calls < MAX_CALLS; ++calls) {
            std::uint32_t count = 0;
            if (m_object->readDir(index, &request, &count) != FSO_OK || count == 0) {
                return;
            }
            require(request.resultCount <= bufferSize, "entries fit the buffer");
            request.position =
                checkEntries(buffer.data(), buffer.data() + request.resultCount, count);
        }
    }

    IFileSystemObjectV1* m_object = nullptr;
    fso_fs_record m_fs = {};
};

// A volume takes 2 MiB for its windows. To map them and mark them for the sanitizer afresh would be
// half of each run, so one room of that kind is kept.
constexpr std::size_t LARGE = std::size_t{1} << 20;
void* s_room = nullptr;
std::size_t s_roomSize = 0;
bool s_roomIsTaken = false;

void* allocate(std::size_t size) {
    if (size < LARGE || s_roomIsTaken || (s_room != nullptr && s_roomSize != size)) {
        return std::malloc(size);
    }
    if (s_room == nullptr) {
        s_room = std::malloc(size);
        s_roomSize = size;
    }
    s_roomIsTaken = true;
    return s_room;
}

void release(void* room) {
    if (room != nullptr && room == s_room) {
        s_roomIsTaken = false;
    } else {
        std::free(room);
    }
}

} // namespace

void* operator new[](std::size_t size) {
    void* room = allocate(size);
    if (room == nullptr) {
        throw std::bad_alloc();
    }
    return room;
}
void operator delete[](void* room) noexcept {
    release(room);
}
void operator delete[](void* room, std::size_t) noexcept {
    release(room);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ByteSource in(data, size);
    const std::uint8_t choice = in.byte() & 15;
    PatchedImage& image = images()[choice < std::size(BASES) ? choice : 0];
    image.reset();
    MemoryVolume volume{image.bytes().data(), image.bytes().size()};
    const std::uint8_t length = in.byte();
    if (length >= 0xF0) {
        volume.size -= std::min(volume.size, (std::size_t{1} << (length & 15)) * 8);
    }
    for (std::size_t patches = 0; !in.empty() && patches < MAX_PATCHES; ++patches) {
        image.apply(in);
    }
    Walk(volume).everything();
    return 0;
}
