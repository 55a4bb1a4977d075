#include "FileSystemText.h"

#include "Text.h"

#include "fso/IFileSystemObjectV1.h"

#include <cstddef>
#include <string_view>

const char* fileSystemName(uint64_t type) {
    switch (type) {
    case FSO_FS_EXT2:
        return "ext2";
    case FSO_FS_EXT3:
        return "ext3";
    case FSO_FS_EXT4:
        return "ext4";
    default:
        return "unknown";
    }
}

std::string uuidText(const std::array<uint8_t, 16>& uuid) {
    std::string text = toHex({reinterpret_cast<const char*>(uuid.data()), uuid.size()});
    for (const std::size_t at : {20U, 16U, 12U, 8U}) {
        text.insert(at, 1, '-');
    }
    return text;
}
