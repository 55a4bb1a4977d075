// A byte source over an image file or a block device, from an offset on.
#ifndef RVPMAP_IMAGEFILE_H
#define RVPMAP_IMAGEFILE_H

#include "ByteSource.h"
#include "UniqueFd.h"

class ImageFile : public ByteSource {
  public:
    // Opens `path` for reading; `start` is where the volume begins, bytes. Throws ToolError.
    ImageFile(const std::string& path, uint64_t start);
    uint64_t size() const override { return m_size; }
    void read(uint64_t offset, std::size_t length, char* buffer) const override;

  private:
    void measure();
    SourceError failure(uint64_t offset, uint64_t length, const std::string& reason,
                        bool pastEnd) const;

    std::string m_path;
    UniqueFd m_file;
    uint64_t m_start;
    uint64_t m_size = 0;
};

#endif
