#include "ExtFileSystem.h"

#include "IoManager.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>

extern "C" { // the header leaves that to its users
#include <e2p/e2p.h>
}

namespace {

constexpr dgrp_t NO_GROUP = ~dgrp_t{0};

// Features that ext2 and ext3 knew; any other makes an ext4.
constexpr std::uint32_t OLD_INCOMPAT =
    EXT2_FEATURE_INCOMPAT_FILETYPE | EXT3_FEATURE_INCOMPAT_RECOVER | EXT2_FEATURE_INCOMPAT_META_BG;
constexpr std::uint32_t OLD_RO_COMPAT =
    EXT2_FEATURE_RO_COMPAT_SPARSE_SUPER | EXT2_FEATURE_RO_COMPAT_LARGE_FILE | 0x4 /* tree dirs */;

// Incompatible features that change nothing about where a file's bytes lie, or that this reader
// follows. The journal's state and what ext2fs_open2 refuses by itself are told apart elsewhere.
constexpr std::uint32_t READABLE_INCOMPAT =
    (EXT2_LIB_FEATURE_INCOMPAT_SUPP | EXT4_FEATURE_INCOMPAT_MMP) &
    ~std::uint32_t{EXT3_FEATURE_INCOMPAT_JOURNAL_DEV};

bool hasMagic(const ext2_super_block& super) {
    return super.s_magic == EXT2_SUPER_MAGIC;
}

bool isReadable(Volume& volume, const ext2_super_block& super) {
    if (super.s_rev_level == EXT2_GOOD_OLD_REV) {
        return true;
    }
    const std::uint32_t unknown = super.s_feature_incompat & ~READABLE_INCOMPAT;
    for (std::uint32_t bit = 1; bit != 0; bit <<= 1) {
        if ((unknown & bit) != 0) {
            volume.report(FS_LOG_ERROR, "ext: feature %s cannot be read, the volume is refused",
                          e2p_feature2string(E2P_FEATURE_INCOMPAT, bit));
        }
    }
    return unknown == 0;
}

// For libext2fs' own needs: it asks for the inode when it verifies the checksum of a block. A read
// that failed there would make the block pass for damaged; and the cache of inodes that would be
// made otherwise brings the process down when memory is short at that moment.
errcode_t giveInodeAtHand(ext2_filsys fs, ext2_ino_t number, ext2_inode* inode) {
    const ExtInode* known = static_cast<const ExtFileSystem*>(fs->priv_data)->inodeAtHand();
    if (known == nullptr || known->number() != number) {
        return EXT2_ET_BAD_INODE_NUM;
    }
    std::memcpy(inode, known->bytes().data(), sizeof(*inode));
    return 0;
}

fso_fs_type typeOf(const ext2_super_block& super) {
    if ((super.s_feature_incompat & ~OLD_INCOMPAT) != 0 ||
        (super.s_feature_ro_compat & ~OLD_RO_COMPAT) != 0) {
        return FSO_FS_EXT4;
    }
    return (super.s_feature_compat & EXT3_FEATURE_COMPAT_HAS_JOURNAL) != 0 ? FSO_FS_EXT3
                                                                           : FSO_FS_EXT2;
}

} // namespace

fso_status statusOf(errcode_t error) {
    switch (error) {
    case 0:
        return FSO_OK;
    case EXT2_ET_NO_MEMORY:
        return FSO_NO_MEMORY;
    case EXT2_ET_SHORT_READ:
        return FSO_IO;
    case EXT2_ET_BAD_INODE_NUM:
        return FSO_NOT_FOUND;
    default:
        return FSO_DAMAGED;
    }
}

ExtFileSystem::ExtFileSystem(Volume& volume, Handle handle)
    : m_volume(volume), m_handle(std::move(handle)), m_checkedGroup(NO_GROUP) {
    m_handle->priv_data = this;
    m_handle->read_inode = giveInodeAtHand;
}

std::unique_ptr<ExtFileSystem> ExtFileSystem::open(Volume& volume) {
    ext2_super_block super;
    static_assert(sizeof(super) == SUPERBLOCK_SIZE);
    if (!volume.read(SUPERBLOCK_OFFSET, sizeof(super), reinterpret_cast<char*>(&super)) ||
        !hasMagic(super) || !isReadable(volume, super)) {
        return nullptr;
    }
    // The superblock alone first: the descriptors' size follows from it, and is not believed until
    // the last of them was read.
    int flags = EXT2_FLAG_64BITS | EXT2_FLAG_SOFTSUPP_FEATURES | EXT2_FLAG_SKIP_MMP;
    Handle superOnly = openHandle(volume, flags | EXT2_FLAG_SUPER_ONLY);
    if (superOnly == nullptr) {
        flags |= EXT2_FLAG_IGNORE_CSUM_ERRORS;
        superOnly = openHandle(volume, flags | EXT2_FLAG_SUPER_ONLY);
    }
    if (superOnly == nullptr || superOnly->super->s_inodes_per_group == 0) {
        volume.report(FS_LOG_ERROR,
                      "ext: the superblock contradicts itself, the volume is refused");
        return nullptr;
    }
    if (!canReadDescriptors(volume, superOnly.get())) {
        return nullptr;
    }
    Handle handle = openHandle(volume, flags);
    if (handle == nullptr) {
        volume.report(FS_LOG_ERROR,
                      "ext: superblock and group descriptors do not fit, the volume is refused");
        return nullptr;
    }
    if ((flags & EXT2_FLAG_IGNORE_CSUM_ERRORS) != 0) {
        volume.report(FS_LOG_WARNING, "ext: the superblock has a wrong checksum");
        handle->flags &= ~EXT2_FLAG_IGNORE_CSUM_ERRORS; // inodes keep being checked
    }
    std::unique_ptr<ExtFileSystem> opened(new ExtFileSystem(volume, std::move(handle)));
    opened->reportState();
    return opened;
}

ExtFileSystem::Handle ExtFileSystem::openHandle(Volume& volume, int flags) {
    ext2_filsys handle = nullptr;
    const errcode_t error = ext2fs_open2(volumeDeviceName(volume).c_str(), nullptr, flags, 0, 0,
                                         volumeIoManager(), &handle);
    if (error == EXT2_ET_NO_MEMORY) {
        throw std::bad_alloc();
    }
    return Handle(error == 0 ? handle : nullptr);
}

bool ExtFileSystem::canReadDescriptors(Volume& volume, ext2_filsys superOnly) {
    const auto last = static_cast<dgrp_t>(superOnly->desc_blocks - 1);
    const blk64_t block =
        ext2fs_descriptor_block_loc2(superOnly, superOnly->super->s_first_data_block, last);
    char sample[SUPERBLOCK_SIZE];
    if (volume.read(block * superOnly->blocksize, sizeof(sample), sample)) {
        return true;
    }
    volume.report(FS_LOG_ERROR,
                  "ext: the group descriptors cannot be read (block %llu), the volume is refused",
                  static_cast<unsigned long long>(block));
    return false;
}

void ExtFileSystem::reportState() const {
    if (needsRecovery()) {
        m_volume.report(FS_LOG_WARNING, "ext: the journal holds changes that are not in place yet; "
                                        "the volume is served as it lies");
    }
    if (hasErrors()) {
        m_volume.report(FS_LOG_WARNING, "ext: the file system is marked as damaged");
    }
}

bool ExtFileSystem::isFileSpace(std::uint64_t block, std::uint64_t count) const {
    const std::uint64_t end = blockCount();
    return block > super().s_first_data_block && block < end && count <= end - block;
}

fso_status ExtFileSystem::readBlock(std::uint64_t block, char* buffer) const {
    return m_volume.read(block * blockSize(), blockSize(), buffer) ? FSO_OK : FSO_IO;
}

fso_status ExtFileSystem::readScatteredBlock(std::uint64_t block, char* buffer) const {
    return m_volume.readAlone(block * blockSize(), blockSize(), buffer) ? FSO_OK : FSO_IO;
}

fso_status ExtFileSystem::readInode(std::uint64_t index, ExtInode& inode) {
    if (index == 0 || index > inodeCount() || isPrivate(static_cast<std::uint32_t>(index))) {
        return FSO_NOT_FOUND;
    }
    const auto number = static_cast<ext2_ino_t>(index);
    const dgrp_t group = ext2fs_group_of_ino(handle(), number);
    if (group >= handle()->group_desc_count) {
        return FSO_DAMAGED;
    }
    // Where inodes have checksums of their own, which cover their number, a damaged descriptor
    // cannot make one inode pass for another.
    const bool isSound = isDescriptorSound(group);
    if (!isSound && !ext2fs_has_feature_metadata_csum(handle()->super)) {
        return FSO_DAMAGED;
    }
    if (isSound && wasNeverUsed(number, group)) {
        return FSO_NOT_FOUND;
    }
    const errcode_t error = inode.read(m_volume, handle(), number);
    if (error != 0) {
        m_volume.report(FS_LOG_WARNING, "ext: inode %u %s", number,
                        error == EXT2_ET_INODE_CSUM_INVALID ? "has a wrong checksum"
                                                            : "cannot be read");
        return statusOf(error);
    }
    return inode.isInUse() ? FSO_OK : FSO_NOT_FOUND;
}

// Reserved inodes and those that serve the file system itself, whatever their number.
bool ExtFileSystem::isPrivate(std::uint32_t number) const {
    const ext2_super_block& sb = super();
    return (number < EXT2_FIRST_INO(&sb) && number != EXT2_ROOT_INO) ||
           number == sb.s_prj_quota_inum ||
           ((sb.s_feature_compat & EXT4_FEATURE_COMPAT_ORPHAN_FILE) != 0 &&
            number == sb.s_orphan_file_inum);
}

bool ExtFileSystem::isDescriptorSound(dgrp_t group) {
    if (group != m_checkedGroup) {
        m_checkedGroup = group;
        m_isCheckedSound = !ext2fs_has_group_desc_csum(handle()) ||
                           ext2fs_group_desc_csum_verify(handle(), group) != 0;
        if (!m_isCheckedSound) {
            m_volume.report(FS_LOG_WARNING, "ext: the descriptor of group %u has a wrong checksum",
                            group);
        }
    }
    return m_isCheckedSound;
}

bool ExtFileSystem::wasNeverUsed(ext2_ino_t number, dgrp_t group) const {
    const std::uint32_t inGroup = (number - 1) % super().s_inodes_per_group;
    return ext2fs_has_group_desc_csum(handle()) &&
           (ext2fs_bg_flags_test(handle(), group, EXT2_BG_INODE_UNINIT) != 0 ||
            inGroup >= super().s_inodes_per_group - ext2fs_bg_itable_unused(handle(), group));
}

void ExtFileSystem::fill(fso_fs_record& record) const {
    const ext2_super_block& sb = super();
    record.type = typeOf(sb);
    record.state = (needsRecovery() ? std::uint32_t{FSO_FS_NEEDS_RECOVERY} : 0) |
                   (hasErrors() ? std::uint32_t{FSO_FS_HAS_ERRORS} : 0);
    record.blockSize = blockSize();
    record.blockCount = blockCount();
    record.freeBlocks =
        std::min<std::uint64_t>(ext2fs_free_blocks_count(m_handle->super), record.blockCount);
    record.usedBlocks = record.blockCount - record.freeBlocks;
    record.fileCount = sb.s_inodes_count;
    record.freeFiles = std::min(sb.s_free_inodes_count, sb.s_inodes_count);
    static_assert(sizeof(record.uuid) == sizeof(sb.s_uuid));
    std::memcpy(record.uuid, sb.s_uuid, sizeof(record.uuid));
    static_assert(sizeof(record.volumeName) > sizeof(sb.s_volume_name));
    std::memcpy(record.volumeName, sb.s_volume_name, sizeof(sb.s_volume_name));
    record.maxNameLength = EXT2_NAME_LEN;
}
