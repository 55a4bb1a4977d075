// Bytes of a file that lie inside its inode: a short symbolic link's target, or inline data, of
// which the first 60 bytes take the place of the block pointers and the rest is the value of the
// attribute system.data. Layout of attributes: ext2_ext_attr.h of libext2fs.
#ifndef LIBFSO_EXT_INLINEDATA_H
#define LIBFSO_EXT_INLINEDATA_H

#include "ExtInode.h"
#include "fso/IFileSystemObjectV1.h"

#include <array>
#include <cstddef>

struct InlinePiece {
    std::size_t offset = 0; // in the inode
    std::size_t length = 0;
};

// The pieces follow each other in the file; an empty one ends them.
struct InlinePieces {
    std::array<InlinePiece, 2> pieces;
    // What reads as zeros behind them: a regular file that has grown without being written.
    std::uint64_t zeros = 0;
    // Whether all of that makes up the whole file as its size says.
    bool complete = false;

    std::size_t length() const { return pieces[0].length + pieces[1].length; }
};

// For an inode with a fast link or inline data.
InlinePieces findInlinePieces(const ExtInode& inode);

#endif
