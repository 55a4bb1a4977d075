#include "VolumeSource.h"

#include "ByteNumber.h"
#include "DiskImage.h"
#include "ExitStatus.h"
#include "Partition.h"

#include <fmt/format.h>
#include <string_view>
#include <sys/stat.h>

namespace {

bool exists(const std::string& path) {
    struct stat status = {};
    return ::stat(path.c_str(), &status) == 0;
}

uint64_t sizeBehind(const DiskImage& disk, uint64_t offset) {
    if (offset > disk.size()) {
        throw ToolError(ExitStatus::FAILED,
                        fmt::format("byte {} is past the end of {}, which has {} bytes", offset,
                                    disk.name(), disk.size()));
    }
    return disk.size() - offset;
}

// What a file holds from an offset on, together with the file.
struct OwnedDisk {
    DiskImage disk;
};
class DiskTail : private OwnedDisk, public Partition {
  public:
    DiskTail(const std::string& path, uint64_t offset)
        : OwnedDisk{{path, path}}, Partition(path, disk, offset, sizeBehind(disk, offset)) {}
};

} // namespace

std::unique_ptr<Layer> openVolumeSource(const std::string& volume) {
    const std::size_t at = volume.rfind('@');
    if (at != std::string::npos && !exists(volume)) {
        if (const auto offset = parseByteNumber(std::string_view(volume).substr(at + 1))) {
            return std::make_unique<DiskTail>(volume.substr(0, at), *offset);
        }
    }
    return std::make_unique<DiskImage>(volume, volume);
}
