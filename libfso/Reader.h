// What a reader of one kind of file system offers, and the table of all of them.
//
// To add a file system, write one file that makes a Reader over a Volume, and add its row to the
// table in Readers.cpp. The object that the host sees has checked all arguments and translates
// exceptions: a reader's pointers and references are never null, its buffers have room, and it may
// throw std::bad_alloc.
#ifndef LIBFSO_READER_H
#define LIBFSO_READER_H

#include "Volume.h"
#include "fso/IFileSystemObjectV1.h"

#include <cstdint>
#include <memory>
#include <span>

// One opened file system. What each operation means is told at its namesake in
// IFileSystemObjectV1.
class Reader {
  public:
    virtual ~Reader() = default;
    virtual std::uint64_t rootIndex() const = 0;
    virtual void statFs(fso_fs_record& record) const = 0;
    virtual fso_status openFile(std::uint64_t index, fso_file_record& record) = 0;
    virtual fso_status readDir(std::uint64_t index, fso_dir_request& request,
                               std::uint32_t& entryCount) = 0;
    virtual fso_status getExtents(std::uint64_t index, std::uint64_t offset,
                                  std::span<fso_extent> extents, std::uint32_t& count) = 0;
    virtual fso_status getMetadata(std::uint64_t index, fso_metadata& metadata) = 0;
    virtual void closeFile(std::uint64_t index) = 0;
};

// A row of the table.
struct ReaderKind {
    const char* name;
    // What the reader is built on, for the library's information record.
    const char* (*build)();
    // A reader over the volume, which outlives it; null when the volume holds something else, or,
    // after a line in the volume's log, when the file system cannot be read truthfully.
    std::unique_ptr<Reader> (*open)(Volume& volume);
};

// All kinds, in the order in which they are tried.
std::span<const ReaderKind> readerKinds();

#endif
