// The reader for ext2, ext3 and ext4: answers by inode number, keeps the inodes used last, and the
// metadata of files that the host holds open.
#ifndef LIBFSO_EXT_EXTREADER_H
#define LIBFSO_EXT_EXTREADER_H

#include "ExtDirectory.h"
#include "ExtFileSystem.h"
#include "MapNodes.h"
#include "Reader.h"

#include <array>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

class ExtReader final : public Reader {
  public:
    static const char* build();
    static std::unique_ptr<Reader> open(Volume& volume);

    explicit ExtReader(std::unique_ptr<ExtFileSystem> fs);

    std::uint64_t rootIndex() const override;
    void statFs(fso_fs_record& record) const override;
    fso_status openFile(std::uint64_t index, fso_file_record& record) override;
    fso_status readDir(std::uint64_t index, fso_dir_request& request,
                       std::uint32_t& entryCount) override;
    fso_status getExtents(std::uint64_t index, std::uint64_t offset, std::span<fso_extent> extents,
                          std::uint32_t& count) override;
    fso_status getMetadata(std::uint64_t index, fso_metadata& metadata) override;
    void closeFile(std::uint64_t index) override;

  private:
    // What was handed out for a file that is open `opens` times.
    struct Metadata {
        std::vector<char> inode;
        std::vector<char> attributeBlock;
        std::vector<char> linkTarget;
    };
    struct OpenFile {
        std::uint64_t opens = 0;
        std::unique_ptr<Metadata> metadata;
    };

    fso_status inodeFor(std::uint64_t index, const ExtInode** inode);
    fso_status findInode(std::uint64_t index, const ExtInode** inode);
    fso_status readAttributeBlock(const ExtInode& inode, std::vector<char>& bytes);
    fso_status readLinkTarget(const ExtInode& inode, std::vector<char>& target);

    std::unique_ptr<ExtFileSystem> m_fs;
    MapNodes m_nodes;
    ExtDirectory m_directory;
    std::array<ExtInode, 16> m_recent; // replaced in turn
    std::size_t m_latest = 0;          // the slot that was used last
    std::size_t m_nextRecent = 0;
    std::unordered_map<std::uint64_t, OpenFile> m_open;
    decltype(m_open)::node_type m_spare; // of a closed file, for the next one
};

#endif
