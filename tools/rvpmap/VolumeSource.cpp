#include "VolumeSource.h"

#include "DiskImage.h"
#include "ExitStatus.h"
#include "Partition.h"

#include <charconv>
#include <fmt/format.h>
#include <optional>
#include <string_view>
#include <sys/stat.h>

namespace {

bool exists(const std::string& path) {
    struct stat status = {};
    return ::stat(path.c_str(), &status) == 0;
}

// The shift of a unit letter; 0 for none.
unsigned unitShift(char unit) {
    constexpr std::string_view UNITS = "KMGT";
    const std::size_t at = UNITS.find(unit);
    return at == std::string_view::npos ? 0 : 10 * (static_cast<unsigned>(at) + 1);
}

std::optional<uint64_t> parseOffset(std::string_view text) {
    const unsigned shift = text.empty() ? 0 : unitShift(text.back());
    if (shift != 0) {
        text.remove_suffix(1);
    }
    const bool hexadecimal = text.starts_with("0x");
    if (hexadecimal) {
        text.remove_prefix(2);
    }
    uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value, hexadecimal ? 16 : 10);
    if (result.ec != std::errc() || result.ptr != end || value > (UINT64_MAX >> shift)) {
        return std::nullopt;
    }
    return value << shift;
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
        if (const auto offset = parseOffset(std::string_view(volume).substr(at + 1))) {
            return std::make_unique<DiskTail>(volume.substr(0, at), *offset);
        }
    }
    return std::make_unique<DiskImage>(volume, volume);
}
