#include "ExtReader.h"

#include "ExtRuns.h"

#include <algorithm>
#include <cstdio>

namespace {

// What no target of a link can be read from.
constexpr std::uint32_t UNREADABLE = FSO_EXTENT_HOLE | FSO_EXTENT_UNWRITTEN | FSO_EXTENT_ENCODED;

fso_metadata_piece pieceOf(const std::vector<char>& bytes) {
    return {bytes.empty() ? 0 : reinterpret_cast<std::uint64_t>(bytes.data()), bytes.size()};
}

} // namespace

const char* ExtReader::build() {
    static char s_text[64];
    const char* version = nullptr;
    const char* date = nullptr;
    ext2fs_get_library_version(&version, &date);
    std::snprintf(s_text, sizeof(s_text), "libext2fs %s (%s)", version, date);
    return s_text;
}

std::unique_ptr<Reader> ExtReader::open(Volume& volume) {
    std::unique_ptr<ExtFileSystem> fs = ExtFileSystem::open(volume);
    return fs != nullptr ? std::make_unique<ExtReader>(std::move(fs)) : nullptr;
}

ExtReader::ExtReader(std::unique_ptr<ExtFileSystem> fs) : m_fs(std::move(fs)) {}

std::uint64_t ExtReader::rootIndex() const {
    return EXT2_ROOT_INO;
}

void ExtReader::statFs(fso_fs_record& record) const {
    m_fs->fill(record);
}

// The inode is valid until the next call.
fso_status ExtReader::inodeFor(std::uint64_t index, const ExtInode** inode) {
    const fso_status status = findInode(index, inode);
    m_fs->keepAtHand(status == FSO_OK ? *inode : nullptr);
    return status;
}

fso_status ExtReader::findInode(std::uint64_t index, const ExtInode** inode) {
    if (index != 0 && m_recent[m_latest].number() == index) {
        *inode = &m_recent[m_latest];
        return FSO_OK;
    }
    const auto found = std::ranges::find(m_recent, index, &ExtInode::number);
    if (index != 0 && found != m_recent.end()) {
        m_latest = static_cast<std::size_t>(found - m_recent.begin());
        *inode = &*found;
        return FSO_OK;
    }
    m_latest = m_nextRecent;
    ExtInode& slot = m_recent[m_latest];
    m_nextRecent = (m_nextRecent + 1) % m_recent.size();
    slot.forget();
    const fso_status status = m_fs->readInode(index, slot);
    if (status != FSO_OK) {
        slot.forget();
    }
    *inode = &slot;
    return status;
}

// The host closes every file that it tried to open, so failures count as well.
fso_status ExtReader::openFile(std::uint64_t index, fso_file_record& record) {
    const auto known = m_open.find(index);
    if (known != m_open.end()) {
        ++known->second.opens;
    } else if (m_spare) {
        m_spare.key() = index;
        m_spare.mapped() = {1, nullptr};
        m_open.insert(std::move(m_spare));
    } else {
        m_open.emplace(index, OpenFile{1, nullptr});
    }
    const ExtInode* inode = nullptr;
    const fso_status status = inodeFor(index, &inode);
    if (status == FSO_OK) {
        inode->fill(m_fs->handle(), record);
    }
    return status;
}

void ExtReader::closeFile(std::uint64_t index) {
    const auto found = m_open.find(index);
    if (found != m_open.end() && --found->second.opens == 0) {
        found->second.metadata.reset();
        m_spare = m_open.extract(found);
    }
}

fso_status ExtReader::readDir(std::uint64_t index, fso_dir_request& request,
                              std::uint32_t& entryCount) {
    const ExtInode* inode = nullptr;
    if (const fso_status status = inodeFor(index, &inode)) {
        return status;
    }
    return inode->isDirectory() ? m_directory.list(*m_fs, m_nodes, *inode, request, entryCount)
                                : FSO_INVALID;
}

fso_status ExtReader::getExtents(std::uint64_t index, std::uint64_t offset,
                                 std::span<fso_extent> extents, std::uint32_t& count) {
    const ExtInode* inode = nullptr;
    if (const fso_status status = inodeFor(index, &inode)) {
        return status;
    }
    return listRuns(*m_fs, m_nodes, *inode, offset, extents, count);
}

fso_status ExtReader::getMetadata(std::uint64_t index, fso_metadata& metadata) {
    const auto open = m_open.find(index);
    if (open == m_open.end()) {
        return FSO_INVALID; // nothing would ever free it
    }
    const ExtInode* inode = nullptr;
    if (const fso_status status = inodeFor(index, &inode)) {
        return status;
    }
    std::unique_ptr<Metadata>& kept = open->second.metadata;
    if (kept == nullptr) {
        auto made = std::make_unique<Metadata>();
        made->inode.assign(inode->bytes().begin(), inode->bytes().end());
        if (const fso_status status = readAttributeBlock(*inode, made->attributeBlock)) {
            return status;
        }
        if (const fso_status status = readLinkTarget(*inode, made->linkTarget)) {
            return status;
        }
        kept = std::move(made);
    }
    metadata.inode = pieceOf(kept->inode);
    metadata.attributeBlock = pieceOf(kept->attributeBlock);
    metadata.linkTarget = pieceOf(kept->linkTarget);
    return FSO_OK;
}

// Empty where there is none or it cannot be trusted; FSO_IO where it cannot be read, which may be
// over the next time.
fso_status ExtReader::readAttributeBlock(const ExtInode& inode, std::vector<char>& bytes) {
    ext2_inode_large fields = inode.fields();
    const std::uint64_t block = ext2fs_file_acl_block(m_fs->handle(), ext2fs_inode(&fields));
    if (block == 0) {
        return FSO_OK;
    }
    if (m_fs->isFileSpace(block, 1)) {
        bytes.resize(m_fs->blockSize());
        if (const fso_status status = m_fs->readBlock(block, bytes.data())) {
            return status;
        }
        auto* header = reinterpret_cast<ext2_ext_attr_header*>(bytes.data());
        if (header->h_magic == EXT2_EXT_ATTR_MAGIC &&
            ext2fs_ext_attr_block_csum_verify(m_fs->handle(), inode.number(), block, header) != 0) {
            return FSO_OK;
        }
        bytes.clear();
    }
    m_fs->volume().report(FS_LOG_WARNING, "ext: inode %u: the attribute block %llu is left out",
                          inode.number(), static_cast<unsigned long long>(block));
    return FSO_OK;
}

// The same for a link's target.
fso_status ExtReader::readLinkTarget(const ExtInode& inode, std::vector<char>& target) {
    if (!inode.isLink() || inode.size() == 0) {
        return FSO_OK;
    }
    while (inode.size() <= m_fs->blockSize() && target.size() < inode.size()) {
        fso_extent run{};
        std::uint32_t count = 0;
        const fso_status status = listRuns(*m_fs, m_nodes, inode, target.size(), {&run, 1}, count);
        if (status == FSO_IO) {
            return FSO_IO;
        }
        if (status != FSO_OK || (run.flags & UNREADABLE) != 0) {
            break;
        }
        const std::size_t before = target.size();
        target.resize(before + std::min<std::uint64_t>(run.length, inode.size() - before));
        if (!m_fs->volume().read(run.offset, target.size() - before, target.data() + before)) {
            return FSO_IO;
        }
    }
    if (target.size() < inode.size()) {
        m_fs->volume().report(FS_LOG_WARNING, "ext: inode %u: the link's target is left out",
                              inode.number());
        target.clear();
    }
    return FSO_OK;
}
