#include "ExtInode.h"

#include <algorithm>
#include <cstring>

static_assert(offsetof(ext2_inode_large, i_block) == ExtInode::BLOCK_AREA_OFFSET);
static_assert(offsetof(ext2_inode_large, i_extra_isize) == EXT2_GOOD_OLD_INODE_SIZE);

namespace {

constexpr std::uint32_t HUGE_FILE_FLAG = 0x40000; // i_blocks counts file-system blocks
constexpr std::uint32_t MAX_NANOSECONDS = 999999999;

std::size_t endOf(std::size_t offset) {
    return offset + sizeof(std::uint32_t);
}

// On the volume the low 2 bits count times 2^32 seconds and the nanoseconds lie above them.
fso_time makeTime(std::uint32_t seconds, std::uint32_t extra) {
    const std::uint32_t nanoseconds = std::min(extra >> 2, MAX_NANOSECONDS);
    return {static_cast<std::int32_t>(seconds), nanoseconds | (extra & 3) << 30};
}

// The first word holds the old encoding (8 bits each); where it is zero, the second holds the new
// one: 12 bits of major between two parts of the minor.
std::uint64_t makeDevice(const std::uint32_t* words) {
    const std::uint32_t old = words[0];
    const std::uint32_t wide = words[1];
    const std::uint64_t major = old != 0 ? old >> 8 & 0xff : wide >> 8 & 0xfff;
    const std::uint64_t minor = old != 0 ? old & 0xff : (wide & 0xff) | (wide >> 12 & 0xfff00);
    return major << 32 | minor;
}

// Where an inode lies on the volume, in bytes.
errcode_t locateInode(ext2_filsys fs, ext2_ino_t number, std::uint64_t& offset) {
    const std::uint64_t table = ext2fs_inode_table_loc(fs, ext2fs_group_of_ino(fs, number));
    const std::uint64_t blocks = ext2fs_blocks_count(fs->super);
    if (table < std::max(fs->super->s_first_data_block, 1U) || table > blocks ||
        fs->inode_blocks_per_group > blocks - table) {
        return EXT2_ET_GDESC_BAD_INODE_TABLE;
    }
    const std::uint64_t inGroup = (number - 1) % fs->super->s_inodes_per_group;
    offset = table * fs->blocksize + inGroup * static_cast<unsigned>(EXT2_INODE_SIZE(fs->super));
    return 0;
}

} // namespace

errcode_t ExtInode::read(Volume& volume, ext2_filsys fs, ext2_ino_t number) {
    forget();
    m_bytes.resize(static_cast<std::size_t>(EXT2_INODE_SIZE(fs->super)));
    if (const errcode_t error = locateInode(fs, number, m_volumeOffset)) {
        return error;
    }
    if (!volume.read(m_volumeOffset, m_bytes.size(), m_bytes.data())) {
        return EXT2_ET_SHORT_READ;
    }
    m_fields = {};
    std::memcpy(&m_fields, m_bytes.data(), std::min(m_bytes.size(), sizeof(m_fields)));
    if (!ext2fs_inode_csum_verify(fs, number,
                                  reinterpret_cast<ext2_inode_large*>(m_bytes.data()))) {
        return EXT2_ET_INODE_CSUM_INVALID;
    }
    m_size = m_fields.i_size;
    if (type() == LINUX_S_IFREG || (isDirectory() && ext2fs_has_feature_largedir(fs->super))) {
        m_size |= std::uint64_t{m_fields.i_size_high} << 32;
    }
    m_number = number;
    return 0;
}

std::span<const char> ExtInode::blockArea() const {
    return bytes().subspan(BLOCK_AREA_OFFSET, sizeof(m_fields.i_block));
}

bool ExtInode::covers(std::size_t end) const {
    return m_bytes.size() > EXT2_GOOD_OLD_INODE_SIZE &&
           end <= std::size_t{EXT2_GOOD_OLD_INODE_SIZE} + m_fields.i_extra_isize &&
           end <= m_bytes.size();
}

std::uint64_t ExtInode::blocksOf512(ext2_filsys fs) const {
    std::uint64_t blocks = m_fields.i_blocks;
    if (ext2fs_has_feature_huge_file(fs->super)) {
        blocks |= std::uint64_t{m_fields.osd2.linux2.l_i_blocks_hi} << 32;
        if (has(HUGE_FILE_FLAG)) {
            blocks *= fs->blocksize / 512;
        }
    }
    return blocks;
}

void ExtInode::fill(ext2_filsys fs, fso_file_record& record) const {
    const auto extra = [this](std::size_t offset, std::uint32_t value) {
        return covers(endOf(offset)) ? value : 0;
    };
    const std::uint64_t user = m_fields.i_uid | std::uint32_t{m_fields.osd2.linux2.l_i_uid_high}
                                                    << 16;
    const std::uint64_t group = m_fields.i_gid | std::uint32_t{m_fields.osd2.linux2.l_i_gid_high}
                                                     << 16;
    record.mode = m_fields.i_mode;
    record.linkCount = m_fields.i_links_count;
    record.owner = user | group << 32;
    record.size = m_size;
    record.blocks = blocksOf512(fs);
    if (type() == LINUX_S_IFBLK || type() == LINUX_S_IFCHR) {
        record.device = makeDevice(m_fields.i_block);
    }
    record.accessTime = makeTime(
        m_fields.i_atime, extra(offsetof(ext2_inode_large, i_atime_extra), m_fields.i_atime_extra));
    record.modifyTime = makeTime(
        m_fields.i_mtime, extra(offsetof(ext2_inode_large, i_mtime_extra), m_fields.i_mtime_extra));
    record.changeTime = makeTime(
        m_fields.i_ctime, extra(offsetof(ext2_inode_large, i_ctime_extra), m_fields.i_ctime_extra));
    if (covers(endOf(offsetof(ext2_inode_large, i_crtime)))) {
        record.createTime =
            makeTime(m_fields.i_crtime,
                     extra(offsetof(ext2_inode_large, i_crtime_extra), m_fields.i_crtime_extra));
    }
    record.index = m_number;
}
