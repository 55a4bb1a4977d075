// The object that the host works with: checks arguments, finds the reader for the volume, delegates
// to it, and lets no exception out.
#ifndef LIBFSO_FILESYSTEMOBJECT_H
#define LIBFSO_FILESYSTEMOBJECT_H

#include "Reader.h"
#include "Volume.h"
#include "fso/IFileSystemObjectV1.h"

#include <cstdint>
#include <memory>

class FileSystemObject final : public IFileSystemObjectV1 {
  public:
    // See Volume for the arguments.
    FileSystemObject(std::uint32_t sectorSize, fso_read_callback read, void* context,
                     fso_log_callback log, fso_keep_alive_callback keepAlive);

    bool recognise() override;
    // Every further operation is FSO_NOT_INITIALISED before `recognise` was true.
    std::uint32_t rootIndex(std::uint64_t* index) override;
    std::uint32_t statFs(fso_fs_record* record) override;
    std::uint32_t openFile(std::uint64_t index, fso_file_record* record,
                           std::uint32_t* flags) override;
    std::uint32_t readDir(std::uint64_t index, fso_dir_request* request,
                          std::uint32_t* entryCount) override;
    std::uint32_t getExtents(std::uint64_t index, std::uint64_t offset, fso_extent* extents,
                             std::uint32_t capacity, std::uint32_t* count) override;
    std::uint32_t getMetadata(std::uint64_t index, fso_metadata* metadata) override;
    std::uint32_t closeFile(std::uint64_t index) override;

  private:
    template <typename Operation>
    std::uint32_t guarded(const char* name, Operation operation) noexcept;

    Volume m_volume;
    std::unique_ptr<Reader> m_reader;
};

#endif
