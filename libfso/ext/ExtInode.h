// One inode: its bytes as they lie on the volume, and what they say of the file.
#ifndef LIBFSO_EXT_EXTINODE_H
#define LIBFSO_EXT_EXTINODE_H

#include "Volume.h"
#include "fso/IFileSystemObjectV1.h"

#include <cstddef>
#include <cstdint>
#include <ext2fs/ext2fs.h>
#include <span>
#include <vector>

class ExtInode {
  public:
    // The number lies in a group that there is. Fails with libext2fs' own codes, a wrong checksum
    // among them.
    errcode_t read(Volume& volume, ext2_filsys fs, ext2_ino_t number);
    void forget() { m_number = 0; }

    // 0 while nothing was read.
    ext2_ino_t number() const { return m_number; }
    const ext2_inode_large& fields() const { return m_fields; }
    std::span<const char> bytes() const { return m_bytes; }
    // Where the inode lies on the volume, in bytes.
    std::uint64_t volumeOffset() const { return m_volumeOffset; }
    std::uint64_t size() const { return m_size; }

    std::uint32_t type() const { return m_fields.i_mode & LINUX_S_IFMT; }
    bool isDirectory() const { return type() == LINUX_S_IFDIR; }
    bool isLink() const { return type() == LINUX_S_IFLNK; }
    // Devices, pipes and sockets have no bytes.
    bool hasContent() const { return isDirectory() || isLink() || type() == LINUX_S_IFREG; }
    bool isInUse() const {
        return m_fields.i_mode != 0 && m_fields.i_links_count != 0 && !has(EXT4_EA_INODE_FL);
    }
    bool hasExtents() const { return has(EXT4_EXTENTS_FL); }
    bool hasInlineData() const { return has(EXT4_INLINE_DATA_FL); }
    bool isEncrypted() const { return has(EXT4_ENCRYPT_FL); }
    // The target lies in the place of the block pointers.
    bool isFastLink() const {
        return isLink() && !hasExtents() && !hasInlineData() && m_size < sizeof(m_fields.i_block);
    }

    // Block pointers or the root of the extent tree, as they lie on the volume.
    std::span<const char> blockArea() const;
    // Where that area begins in the inode.
    static constexpr std::size_t BLOCK_AREA_OFFSET = 40;

    void fill(ext2_filsys fs, fso_file_record& record) const;

  private:
    bool has(std::uint32_t flag) const { return (m_fields.i_flags & flag) != 0; }
    std::uint64_t blocksOf512(ext2_filsys fs) const;
    // Whether the inode is long enough to hold the field that ends at this offset.
    bool covers(std::size_t end) const;

    ext2_ino_t m_number = 0;
    std::uint64_t m_volumeOffset = 0;
    std::uint64_t m_size = 0;
    ext2_inode_large m_fields{};
    std::vector<char> m_bytes;
};

#endif
