// A volume as its host shows it: bytes through the read callback, one log, a keep-alive.
//
// Reads smaller than a window come from a bounded set of aligned windows, so that inode tables and
// directories cost one callback for many blocks; larger ones go straight to the callback. Nothing
// is ever written. The callbacks and their context belong to the host and outlive the volume. Not
// for use by two threads at a time. No function throws once the volume is built.
#ifndef LIBFSO_VOLUME_H
#define LIBFSO_VOLUME_H

#include "fso/IFileSystemObjectV1.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

class Volume {
  public:
    // `sectorSize` is a power of two of at most a window; every read is aligned to it.
    Volume(std::uint32_t sectorSize, fso_read_callback readCallback, void* context,
           fso_log_callback log, fso_keep_alive_callback keepAlive);

    static bool isSectorSize(std::uint32_t size);

    // Fills `buffer` with `length` bytes from `offset` on; false when the volume does not yield
    // all of them, the buffer's content is undefined then.
    bool read(std::uint64_t offset, std::size_t length, char* buffer) noexcept;
    // The same for bytes whose surroundings will hardly be asked for: no window is filled for them.
    bool readAlone(std::uint64_t offset, std::size_t length, char* buffer) noexcept;

    // Hands one line to the host's log, without the line feed that ends it there. A line that was
    // handed over lately is not repeated.
    __attribute__((format(printf, 3, 4))) void report(fs_log_level_t level, const char* format,
                                                      ...) noexcept;

  private:
    static constexpr std::size_t WINDOW_SIZE = std::size_t{16} << 10;
    static constexpr std::size_t WINDOW_COUNT = 128;
    static constexpr std::size_t REMEMBERED_LINES = 256;

    // The bytes from `number` * WINDOW_SIZE on; `valid` of them could be read.
    struct Window {
        std::uint64_t number = ~std::uint64_t{0};
        std::uint64_t lastUse = 0;
        std::size_t valid = 0;
    };

    const Window& window(std::uint64_t number) noexcept;
    void fill(Window& window) noexcept;
    char* bytes(const Window& window) noexcept;
    bool readAround(std::uint64_t offset, std::size_t length, char* buffer) noexcept;
    bool callRead(std::uint64_t offset, std::size_t length, char* buffer) noexcept;
    bool wasReported(const char* line) noexcept;

    std::uint32_t m_sectorSize;
    fso_read_callback m_read;
    void* m_context;
    fso_log_callback m_log;
    fso_keep_alive_callback m_keepAlive;
    std::uint64_t m_readCount = 0;
    std::uint64_t m_clock = 0;
    std::size_t m_latest = 0; // the window that was used last
    std::array<Window, WINDOW_COUNT> m_windows;
    std::unique_ptr<char[]> m_bytes;
    std::unique_ptr<char[]> m_bounce; // for ranges that are not aligned to sectors
    std::array<std::size_t, REMEMBERED_LINES> m_reported{};
    std::size_t m_nextReported = 0;
};

#endif
