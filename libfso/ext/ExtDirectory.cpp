#include "ExtDirectory.h"

#include "BlockMap.h"
#include "InlineData.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

namespace {

// An entry: inode number (4 bytes), record length (2), name length (1), type (1), name.
constexpr std::size_t ENTRY_HEADER_SIZE = 8;
static_assert(offsetof(ext2_dir_entry, name) == ENTRY_HEADER_SIZE);
// Inline directories begin with the parent's inode number.
constexpr std::size_t INLINE_PARENT_SIZE = 4;

constexpr std::array<std::uint32_t, EXT2_FT_MAX> s_types = {
    0,
    LINUX_S_IFREG,
    LINUX_S_IFDIR,
    LINUX_S_IFCHR,
    LINUX_S_IFBLK,
    LINUX_S_IFIFO,
    LINUX_S_IFSOCK,
    LINUX_S_IFLNK,
};
static_assert(EXT2_FT_SYMLINK == EXT2_FT_MAX - 1);

// A position is a byte offset in the directory in the low 56 bits. Above them it carries the status
// of the first part that was left out on the way, so that the end can tell of it.
struct Position {
    static constexpr unsigned STATUS_SHIFT = 56;
    std::uint64_t offset;
    std::uint64_t status;

    static Position decode(std::uint64_t word) {
        return {word & ((std::uint64_t{1} << STATUS_SHIFT) - 1), word >> STATUS_SHIFT};
    }
    std::uint64_t encode(std::uint64_t at) const { return at | status << STATUS_SHIFT; }
    bool isOurs() const { return status == FSO_OK || status == FSO_IO || status == FSO_DAMAGED; }
    void leaveOut(fso_status why) {
        if (status == FSO_OK) {
            status = why;
        }
    }
};

// The host's buffer while it is filled.
class EntryWriter {
  public:
    explicit EntryWriter(const fso_dir_request& request)
        : m_next(reinterpret_cast<char*>(request.buffer)), m_room(request.bufferSize) {}

    // False when there is no room.
    bool write(std::uint64_t index, std::uint64_t next, std::uint32_t type, std::string_view name) {
        const std::size_t length = (FSO_DIR_ENTRY_NAME_OFFSET + name.size() + 1 + 7) & ~7UL;
        if (length > m_room) {
            return false;
        }
        const fso_dir_entry entry = {index,
                                     next,
                                     static_cast<std::uint32_t>(length),
                                     static_cast<std::uint32_t>(name.size()),
                                     type,
                                     0};
        std::memcpy(m_next, &entry, sizeof(entry));
        std::memset(m_next + sizeof(entry), 0, length - sizeof(entry));
        name.copy(m_next + FSO_DIR_ENTRY_NAME_OFFSET, name.size());
        m_next += length;
        m_room -= length;
        m_used += length;
        ++m_count;
        return true;
    }
    std::uint64_t used() const { return m_used; }
    std::uint32_t count() const { return m_count; }

  private:
    char* m_next;
    std::uint64_t m_room;
    std::uint64_t m_used = 0;
    std::uint32_t m_count = 0;
};

std::string printable(std::string_view name) {
    std::string text;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        constexpr std::string_view digits = "0123456789abcdef";
        if (byte >= ' ' && byte < 0x7f && c != '\\') {
            text += c;
        } else {
            text += {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
        }
    }
    return text;
}

// One entry as it lies in a block.
struct RawEntry {
    std::uint32_t inode;
    unsigned length;
    std::uint32_t type;
    std::string_view name;

    bool isSelfOrParent() const { return name == "." || name == ".."; }
    bool hasSoundName() const {
        return !name.empty() && name.find('/') == name.npos && name.find('\0') == name.npos;
    }
};

// False when the entry does not fit into what is left of the block.
bool parse(const ExtFileSystem& fs, std::span<const char> rest, RawEntry& entry) {
    ext2_dir_entry header;
    if (rest.size() < ENTRY_HEADER_SIZE) {
        return false;
    }
    std::memcpy(&header, rest.data(), ENTRY_HEADER_SIZE);
    if (ext2fs_get_rec_len(fs.handle(), &header, &entry.length) != 0 ||
        entry.length < ENTRY_HEADER_SIZE || entry.length % 4 != 0 || entry.length > rest.size()) {
        return false;
    }
    // Without the filetype feature the name's length has two bytes, of which one is ever used.
    const auto nameLength = static_cast<std::size_t>(ext2fs_dirent_name_len(&header));
    const auto type = static_cast<std::size_t>(ext2fs_dirent_file_type(&header));
    const bool hasTypes = ext2fs_has_feature_filetype(fs.handle()->super) != 0;
    entry.inode = header.inode;
    entry.type = hasTypes && type < s_types.size() ? s_types[type] : 0;
    entry.name = {rest.data() + ENTRY_HEADER_SIZE,
                  std::min(nameLength, entry.length - ENTRY_HEADER_SIZE)};
    return entry.inode == 0 || nameLength + ENTRY_HEADER_SIZE <= entry.length;
}

// A walk over one listing's blocks.
class Listing {
  public:
    Listing(const ExtFileSystem& fs, const ExtInode& inode, const fso_dir_request& request)
        : m_fs(fs), m_inode(inode), m_position(Position::decode(request.position)),
          m_writer(request) {}

    Position& position() { return m_position; }
    const EntryWriter& writer() const { return m_writer; }
    bool isFull() const { return m_isFull; }

    // Lists the entries of `bytes`, which begin at `begin` in the directory, from the position on,
    // and moves the position behind what is done.
    void listEntries(std::span<const char> bytes, std::uint64_t begin) {
        RawEntry entry{};
        for (std::size_t at = 0; at < bytes.size(); at += entry.length) {
            if (!parse(m_fs, bytes.subspan(at), entry)) {
                m_fs.volume().report(FS_LOG_WARNING,
                                     "ext: directory inode %u: the entry at byte %llu is damaged, "
                                     "the rest of its block is left out",
                                     m_inode.number(), static_cast<unsigned long long>(begin + at));
                m_position.leaveOut(FSO_DAMAGED);
                break;
            }
            const std::uint64_t next = begin + at + entry.length;
            if (begin + at >= m_position.offset && isListed(entry) &&
                !m_writer.write(entry.inode, m_position.encode(next), entry.type, entry.name)) {
                m_isFull = true;
                return;
            }
        }
        m_position.offset = begin + bytes.size();
    }

    void leaveOut(std::uint64_t end, fso_status status, const char* why) {
        m_fs.volume().report(FS_LOG_WARNING, "ext: directory inode %u: %s at byte %llu is left out",
                             m_inode.number(), why,
                             static_cast<unsigned long long>(m_position.offset));
        m_position.leaveOut(status);
        m_position.offset = end;
    }

  private:
    // An entry that cannot be right is left out, which the end of the listing tells.
    bool isListed(const RawEntry& entry) {
        if (entry.inode == 0 || entry.isSelfOrParent()) {
            return false;
        }
        if (entry.inode <= m_fs.inodeCount() && entry.hasSoundName()) {
            return true;
        }
        m_fs.volume().report(FS_LOG_WARNING,
                             "ext: directory inode %u: entry \"%s\" with inode %u is left out",
                             m_inode.number(), printable(entry.name).c_str(), entry.inode);
        m_position.leaveOut(FSO_DAMAGED);
        return false;
    }

    const ExtFileSystem& m_fs;
    const ExtInode& m_inode;
    Position m_position;
    EntryWriter m_writer;
    bool m_isFull = false;
};

void listInline(const ExtInode& inode, Listing& listing) {
    const InlinePieces found = findInlinePieces(inode);
    std::uint64_t begin = 0;
    for (const InlinePiece& piece : found.pieces) {
        const std::size_t header = std::min(begin == 0 ? INLINE_PARENT_SIZE : 0, piece.length);
        const std::uint64_t end = begin + piece.length;
        if (listing.position().offset < end && !listing.isFull()) {
            listing.listEntries(inode.bytes().subspan(piece.offset + header, piece.length - header),
                                begin + header);
        }
        begin = end;
    }
    if (!found.complete && !listing.isFull() && listing.position().offset < inode.size()) {
        listing.leaveOut(inode.size(), FSO_DAMAGED, "the missing part of the inline data");
    }
}

} // namespace

fso_status ExtDirectory::load(const ExtFileSystem& fs, const ExtInode& inode,
                              std::uint64_t physical) {
    if (m_inode == inode.number() && m_physical == physical) {
        return FSO_OK;
    }
    m_inode = 0;
    m_block.resize(fs.blockSize());
    if (const fso_status status = fs.readBlock(physical, m_block.data())) {
        return status;
    }
    auto* block = reinterpret_cast<ext2_dir_entry*>(m_block.data());
    if (ext2fs_dir_block_csum_verify(fs.handle(), inode.number(), block) == 0) {
        return FSO_DAMAGED;
    }
    m_inode = inode.number();
    m_physical = physical;
    return FSO_OK;
}

fso_status ExtDirectory::list(const ExtFileSystem& fs, MapNodes& nodes, const ExtInode& inode,
                              fso_dir_request& request, std::uint32_t& entryCount) {
    Listing listing(fs, inode, request);
    Position& position = listing.position();
    if (!position.isOurs()) {
        return FSO_INVALID;
    }
    if (inode.hasInlineData()) {
        listInline(inode, listing);
    }
    const std::uint64_t blockSize = fs.blockSize();
    const std::uint64_t blocks =
        inode.hasInlineData() ? 0 : std::min(inode.size() / blockSize, mapLimit(fs, inode));
    const std::uint64_t end = blocks * blockSize;
    Mapping mapping;
    while (position.offset < end && !listing.isFull()) {
        const std::uint64_t number = position.offset / blockSize;
        if (number >= mapping.end) {
            if (const fso_status status = mapBlock(fs, nodes, inode, number, mapping)) {
                listing.leaveOut(end, status, "what is behind a damaged map");
                break;
            }
        }
        if (mapping.kind != MappingKind::Written) {
            listing.leaveOut(std::min(mapping.end, blocks) * blockSize, FSO_DAMAGED, "a hole");
            continue;
        }
        const fso_status status = load(fs, inode, mapping.physical + (number - mapping.first));
        if (status != FSO_OK) {
            listing.leaveOut((number + 1) * blockSize, status,
                             status == FSO_IO ? "an unreadable block"
                                              : "a block with a wrong checksum");
            continue;
        }
        listing.listEntries(m_block, number * blockSize);
    }
    if (!inode.hasInlineData() && inode.size() % blockSize != 0 && position.offset >= end) {
        position.leaveOut(FSO_DAMAGED); // its size cannot be right
    }
    request.resultCount = listing.writer().used();
    entryCount = listing.writer().count();
    if (entryCount > 0) {
        return FSO_OK;
    }
    return listing.isFull() ? FSO_INVALID : static_cast<fso_status>(position.status);
}
