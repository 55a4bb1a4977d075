#include "InlineData.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

constexpr std::size_t BLOCK_AREA_SIZE = sizeof(ext2_inode_large::i_block);
constexpr std::uint8_t SYSTEM_NAME_INDEX = 7;
constexpr std::string_view DATA_NAME = "data";
static_assert(sizeof(ext2_ext_attr_entry) == 16);

template <typename Record>
Record recordAt(const ExtInode& inode, std::size_t offset) {
    Record record;
    std::memcpy(&record, inode.bytes().data() + offset, sizeof(record));
    return record;
}

bool isDataAttribute(const ExtInode& inode, std::size_t offset, const ext2_ext_attr_entry& entry) {
    const char* name = inode.bytes().data() + offset + sizeof(entry);
    return entry.e_name_index == SYSTEM_NAME_INDEX &&
           std::string_view(name, entry.e_name_len) == DATA_NAME;
}

// The value of system.data; an offset of 0 where there is none inside the inode.
InlinePiece findDataValue(const ExtInode& inode) {
    const std::size_t size = inode.bytes().size();
    const std::size_t magicOffset =
        std::size_t{EXT2_GOOD_OLD_INODE_SIZE} + inode.fields().i_extra_isize;
    const std::size_t first = magicOffset + sizeof(std::uint32_t);
    if (first > size || recordAt<std::uint32_t>(inode, magicOffset) != EXT2_EXT_ATTR_MAGIC) {
        return {};
    }
    std::size_t at = first;
    while (at + sizeof(ext2_ext_attr_entry) <= size && recordAt<std::uint32_t>(inode, at) != 0) {
        const auto entry = recordAt<ext2_ext_attr_entry>(inode, at);
        if (at + sizeof(entry) + entry.e_name_len > size) {
            break;
        }
        if (isDataAttribute(inode, at, entry)) {
            const std::size_t value = first + entry.e_value_offs;
            const bool isInside =
                entry.e_value_inum == 0 && value <= size && entry.e_value_size <= size - value;
            return isInside ? InlinePiece{value, entry.e_value_size} : InlinePiece{};
        }
        at += EXT2_EXT_ATTR_LEN(entry.e_name_len);
    }
    return {};
}

} // namespace

InlinePieces findInlinePieces(const ExtInode& inode) {
    const std::uint64_t size = inode.size();
    InlinePieces found;
    found.pieces[0] = {ExtInode::BLOCK_AREA_OFFSET,
                       static_cast<std::size_t>(std::min<std::uint64_t>(size, BLOCK_AREA_SIZE))};
    if (size > BLOCK_AREA_SIZE) {
        const InlinePiece value = findDataValue(inode);
        found.pieces[1] = {value.offset, static_cast<std::size_t>(std::min<std::uint64_t>(
                                             value.length, size - BLOCK_AREA_SIZE))};
        if (value.offset != 0 && inode.type() == LINUX_S_IFREG) {
            found.zeros = size - found.length();
        }
    }
    found.complete = found.length() + found.zeros == size;
    return found;
}
