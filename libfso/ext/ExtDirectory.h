// A directory's entries in the form that the host is given.
//
// Plain and hashed directories are read block by block (the blocks of the hash tree look like
// deleted entries), inline ones from the inode. A block that is damaged or cannot be read is left
// out with a line in the log; the entries behind it are still listed, and the listing ends in a
// status instead of a plain end.
#ifndef LIBFSO_EXT_EXTDIRECTORY_H
#define LIBFSO_EXT_EXTDIRECTORY_H

#include "ExtFileSystem.h"
#include "MapNodes.h"
#include "fso/IFileSystemObjectV1.h"

#include <cstdint>
#include <vector>

// Keeps the block that was read last, so that small buffers do not cost a check of the same block
// for each call.
class ExtDirectory {
  public:
    // See IFileSystemObjectV1::readDir. `inode` is a directory's.
    fso_status list(const ExtFileSystem& fs, MapNodes& nodes, const ExtInode& inode,
                    fso_dir_request& request, std::uint32_t& entryCount);

  private:
    fso_status load(const ExtFileSystem& fs, const ExtInode& inode, std::uint64_t physical);

    std::vector<char> m_block;
    ext2_ino_t m_inode = 0; // whose block it is; 0 for none
    std::uint64_t m_physical = 0;
};

#endif
