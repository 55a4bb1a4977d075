#include "VolumeSource.h"

#include "ByteNumber.h"
#include "ImageFile.h"

#include <string_view>
#include <sys/stat.h>

namespace {

bool exists(const std::string& path) {
    struct stat status = {};
    return ::stat(path.c_str(), &status) == 0;
}

} // namespace

std::unique_ptr<ByteSource> openVolumeSource(const std::string& volume) {
    const std::size_t at = volume.rfind('@');
    if (at != std::string::npos && !exists(volume)) {
        if (const auto offset = parseByteNumber(std::string_view(volume).substr(at + 1))) {
            return std::make_unique<ImageFile>(volume.substr(0, at), *offset);
        }
    }
    return std::make_unique<ImageFile>(volume, 0);
}
