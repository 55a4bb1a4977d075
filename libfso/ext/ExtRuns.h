// A file's bytes as the extent records that the host is given.
//
// Records are maximal: neighbours of the same kind that continue each other on the volume are one
// record, however the file's map is built. A file reaches to its size, rounded up to whole blocks,
// or to the end of its last mapped block, whichever is further.
#ifndef LIBFSO_EXT_EXTRUNS_H
#define LIBFSO_EXT_EXTRUNS_H

#include "ExtFileSystem.h"
#include "MapNodes.h"
#include "fso/IFileSystemObjectV1.h"

#include <cstdint>
#include <span>

// See IFileSystemObjectV1::getExtents. `extents` has room for one at least.
fso_status listRuns(const ExtFileSystem& fs, MapNodes& nodes, const ExtInode& inode,
                    std::uint64_t offset, std::span<fso_extent> extents, std::uint32_t& count);

#endif
