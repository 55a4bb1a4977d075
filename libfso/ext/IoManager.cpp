#include "IoManager.h"

#include <charconv>
#include <cstring>
#include <memory>

namespace {

constexpr int DEFAULT_BLOCK_SIZE = 1024;

Volume& volumeOf(io_channel channel) {
    return *static_cast<Volume*>(channel->private_data);
}

// A device name is the volume's address in decimal: libext2fs has no other way to hand it over.
Volume* volumeNamed(const char* name) {
    std::uintptr_t address = 0;
    const char* end = name + std::strlen(name);
    const std::from_chars_result parsed = std::from_chars(name, end, address);
    return parsed.ec == std::errc{} && parsed.ptr == end ? reinterpret_cast<Volume*>(address)
                                                         : nullptr;
}

void destroy(io_channel channel) {
    std::free(channel->name);
    std::free(channel);
}

errcode_t openChannel(const char* name, int, io_channel* channel);

errcode_t closeChannel(io_channel channel) {
    if (--channel->refcount == 0) {
        destroy(channel);
    }
    return 0;
}

errcode_t setBlockSize(io_channel channel, int size) {
    channel->block_size = size;
    return 0;
}

// A negative count is a number of bytes, a positive one a number of blocks.
errcode_t readBlocks64(io_channel channel, unsigned long long block, int count, void* data) {
    const auto blockSize = static_cast<std::uint64_t>(channel->block_size);
    const std::uint64_t length = count < 0 ? static_cast<std::uint64_t>(-std::int64_t{count})
                                           : static_cast<std::uint64_t>(count) * blockSize;
    std::uint64_t offset = 0;
    if (__builtin_mul_overflow(block, blockSize, &offset)) {
        return EXT2_ET_BAD_BLOCK_NUM;
    }
    return volumeOf(channel).read(offset, length, static_cast<char*>(data)) ? 0
                                                                            : EXT2_ET_SHORT_READ;
}

errcode_t readBlocks(io_channel channel, unsigned long block, int count, void* data) {
    return readBlocks64(channel, block, count, data);
}

errcode_t refuseWrite(io_channel, unsigned long, int, const void*) {
    return EXT2_ET_RO_FILSYS;
}

errcode_t refuseWrite64(io_channel, unsigned long long, int, const void*) {
    return EXT2_ET_RO_FILSYS;
}

errcode_t flush(io_channel) {
    return 0;
}

struct_io_manager makeManager() {
    struct_io_manager manager = {};
    manager.magic = EXT2_ET_MAGIC_IO_MANAGER;
    manager.name = "volume read callback";
    manager.open = openChannel;
    manager.close = closeChannel;
    manager.set_blksize = setBlockSize;
    manager.read_blk = readBlocks;
    manager.write_blk = refuseWrite;
    manager.flush = flush;
    manager.write_byte = refuseWrite;
    manager.read_blk64 = readBlocks64;
    manager.write_blk64 = refuseWrite64;
    return manager;
}

struct_io_manager s_manager = makeManager();

errcode_t openChannel(const char* name, int, io_channel* channel) {
    Volume* volume = volumeNamed(name);
    if (volume == nullptr) {
        return EXT2_ET_BAD_DEVICE_NAME;
    }
    auto* made = static_cast<io_channel>(std::calloc(1, sizeof(struct_io_channel)));
    if (made == nullptr) {
        return EXT2_ET_NO_MEMORY;
    }
    made->magic = EXT2_ET_MAGIC_IO_CHANNEL;
    made->manager = &s_manager;
    made->name = strdup(name);
    made->block_size = DEFAULT_BLOCK_SIZE;
    made->refcount = 1;
    made->private_data = volume;
    if (made->name == nullptr) {
        destroy(made);
        return EXT2_ET_NO_MEMORY;
    }
    *channel = made;
    return 0;
}

} // namespace

io_manager volumeIoManager() {
    return &s_manager;
}

std::string volumeDeviceName(Volume& volume) {
    return std::to_string(reinterpret_cast<std::uintptr_t>(&volume));
}
