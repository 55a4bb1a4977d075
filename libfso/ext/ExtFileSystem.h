// An opened ext2, ext3 or ext4 file system: superblock, group descriptors, and inodes as far as
// they can be trusted. Owns the libext2fs handle; the volume outlives it.
#ifndef LIBFSO_EXT_EXTFILESYSTEM_H
#define LIBFSO_EXT_EXTFILESYSTEM_H

#include "ExtInode.h"
#include "Volume.h"
#include "fso/IFileSystemObjectV1.h"

#include <cstdint>
#include <ext2fs/ext2fs.h>
#include <memory>

class ExtFileSystem {
  public:
    // Null when there is no ext superblock, or, after a line in the log, when the file system
    // cannot be read truthfully: an incompatible feature, or a superblock that makes no sense.
    static std::unique_ptr<ExtFileSystem> open(Volume& volume);

    Volume& volume() const { return m_volume; }
    ext2_filsys handle() const { return m_handle.get(); }
    const ext2_super_block& super() const { return *m_handle->super; }
    std::uint32_t blockSize() const { return m_handle->blocksize; }
    std::uint64_t blockCount() const { return ext2fs_blocks_count(m_handle->super); }
    std::uint32_t inodeCount() const { return super().s_inodes_count; }

    // Whether a file may own these blocks: they lie behind the superblock and inside the volume.
    bool isFileSpace(std::uint64_t block, std::uint64_t count) const;

    fso_status readBlock(std::uint64_t block, char* buffer) const;
    // For blocks that lie among the data of files.
    fso_status readScatteredBlock(std::uint64_t block, char* buffer) const;

    // Fills `inode`. FSO_NOT_FOUND for an index that names no file: out of range, not in use, or
    // reserved for the file system's own purposes (all reserved ones but the root). FSO_DAMAGED
    // when a checksum says that the inode, or where it lies, cannot be trusted.
    fso_status readInode(std::uint64_t index, ExtInode& inode);

    // The inode whose blocks are looked at next; it must stay where it is until then. Null for
    // none.
    void keepAtHand(const ExtInode* inode) { m_inodeAtHand = inode; }
    const ExtInode* inodeAtHand() const { return m_inodeAtHand; }

    void fill(fso_fs_record& record) const;

  private:
    struct Free {
        void operator()(ext2_filsys handle) const { ext2fs_free(handle); }
    };
    using Handle = std::unique_ptr<struct_ext2_filsys, Free>;

    ExtFileSystem(Volume& volume, Handle handle);
    static Handle openHandle(Volume& volume, int flags);
    static bool canReadDescriptors(Volume& volume, ext2_filsys superOnly);
    bool needsRecovery() const {
        return (super().s_feature_incompat & EXT3_FEATURE_INCOMPAT_RECOVER) != 0;
    }
    bool hasErrors() const { return (super().s_state & EXT2_ERROR_FS) != 0; }
    bool isPrivate(std::uint32_t number) const;
    bool isDescriptorSound(dgrp_t group);
    // Says the group's descriptor.
    bool wasNeverUsed(ext2_ino_t number, dgrp_t group) const;
    void reportState() const;

    Volume& m_volume;
    Handle m_handle;
    dgrp_t m_checkedGroup; // the last one whose descriptor was looked at
    bool m_isCheckedSound = false;
    const ExtInode* m_inodeAtHand = nullptr;
};

// The status that a failure of libext2fs comes to.
fso_status statusOf(errcode_t error);

#endif
