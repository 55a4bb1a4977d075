// The layer at the bottom: an image file or a block device.
#ifndef STACK_DISKIMAGE_H
#define STACK_DISKIMAGE_H

#include "Layer.h"
#include "SourceError.h"
#include "UniqueFd.h"

#include <sys/types.h>

class DiskImage : public Layer {
  public:
    // Opens `path` for reading. Throws SourceError, without the name.
    DiskImage(const std::string& path, std::string name) : DiskImage(open(path), std::move(name)) {}
    void read(uint64_t offset, std::size_t length, char* buffer) const override;
    std::size_t send(uint64_t offset, std::size_t length, int target, uint64_t to) const override;
    std::vector<LayerRun> map(uint64_t offset, uint64_t length) const override;
    std::vector<LayerUse> uses(const LayerPlace& place, uint64_t length) const override;
    // Whether both are one file or device, whatever their names.
    bool isSameAs(const DiskImage& other) const;

  private:
    struct Opened {
        UniqueFd file;
        uint64_t size = 0; // bytes
        bool isDevice = false;
        dev_t device = 0; // of the file system, or the block device itself
        ino_t inode = 0;
    };
    static Opened open(const std::string& path);
    DiskImage(Opened opened, std::string name)
        : Layer(std::move(name), opened.size), m_opened(std::move(opened)) {}

    Opened m_opened;
};

#endif
