#include "Volume.h"

#include <algorithm>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string_view>

namespace {

constexpr std::uint64_t READS_PER_KEEP_ALIVE = 16;
constexpr std::uint32_t DEFAULT_SECTOR_SIZE = 512;
constexpr std::uint64_t MAX_VOLUME_SIZE = std::uint64_t{1} << 63;

} // namespace

Volume::Volume(std::uint32_t sectorSize, fso_read_callback readCallback, void* context,
               fso_log_callback log, fso_keep_alive_callback keepAlive)
    : m_sectorSize(sectorSize == 0 ? DEFAULT_SECTOR_SIZE : sectorSize), m_read(readCallback),
      m_context(context), m_log(log), m_keepAlive(keepAlive),
      m_bytes(std::make_unique_for_overwrite<char[]>(WINDOW_SIZE * WINDOW_COUNT)),
      m_bounce(std::make_unique_for_overwrite<char[]>(WINDOW_SIZE)) {}

// A host that was never told the sector size says 0.
bool Volume::isSectorSize(std::uint32_t size) {
    return size == 0 || (std::has_single_bit(size) && size <= WINDOW_SIZE);
}

bool Volume::read(std::uint64_t offset, std::size_t length, char* buffer) noexcept {
    if (offset >= MAX_VOLUME_SIZE || length > MAX_VOLUME_SIZE - offset) {
        return false;
    }
    const std::uint64_t sectorMask = m_sectorSize - 1;
    if (length >= WINDOW_SIZE && ((offset | length) & sectorMask) == 0) {
        return callRead(offset, length, buffer);
    }
    while (length > 0) {
        const std::size_t start = offset % WINDOW_SIZE;
        const std::size_t part = std::min(length, WINDOW_SIZE - start);
        const Window& source = window(offset / WINDOW_SIZE);
        if (start + part <= source.valid) {
            std::memcpy(buffer, bytes(source) + start, part);
        } else if (!readAround(offset, part, buffer)) {
            return false;
        }
        offset += part;
        buffer += part;
        length -= part;
    }
    return true;
}

bool Volume::readAlone(std::uint64_t offset, std::size_t length, char* buffer) noexcept {
    const bool isAligned = ((offset | length) & (m_sectorSize - 1)) == 0;
    const auto known = std::ranges::find(m_windows, offset / WINDOW_SIZE, &Window::number);
    if (known != m_windows.end() || !isAligned || offset >= MAX_VOLUME_SIZE ||
        length > MAX_VOLUME_SIZE - offset) {
        return read(offset, length, buffer);
    }
    return callRead(offset, length, buffer);
}

const Volume::Window& Volume::window(std::uint64_t number) noexcept {
    ++m_clock;
    if (m_windows[m_latest].number != number) {
        const auto found = std::ranges::find(m_windows, number, &Window::number);
        if (found != m_windows.end()) {
            m_latest = static_cast<std::size_t>(found - m_windows.begin());
        } else {
            const auto oldest = std::ranges::min_element(m_windows, {}, &Window::lastUse);
            m_latest = static_cast<std::size_t>(oldest - m_windows.begin());
            oldest->number = number;
            fill(*oldest);
        }
    }
    m_windows[m_latest].lastUse = m_clock;
    return m_windows[m_latest];
}

// A window that cannot be read at once reaches past the end of the volume, or over a bad spot: its
// readable beginning is gathered in ever smaller steps.
void Volume::fill(Window& window) noexcept {
    const std::uint64_t offset = window.number * WINDOW_SIZE;
    window.valid = 0;
    for (std::size_t step = WINDOW_SIZE; step >= m_sectorSize; step /= 2) {
        if (window.valid + step <= WINDOW_SIZE &&
            callRead(offset + window.valid, step, bytes(window) + window.valid)) {
            window.valid += step;
        }
    }
}

char* Volume::bytes(const Window& window) noexcept {
    return m_bytes.get() + WINDOW_SIZE * static_cast<std::size_t>(&window - m_windows.data());
}

// Reads the sectors around a range that lies within one window and copies the range out of them.
bool Volume::readAround(std::uint64_t offset, std::size_t length, char* buffer) noexcept {
    const std::uint64_t mask = m_sectorSize - 1;
    const std::uint64_t begin = offset & ~mask;
    const std::uint64_t end = (offset + length + mask) & ~mask;
    if (!callRead(begin, end - begin, m_bounce.get())) {
        return false;
    }
    std::memcpy(buffer, m_bounce.get() + (offset - begin), length);
    return true;
}

bool Volume::callRead(std::uint64_t offset, std::size_t length, char* buffer) noexcept {
    if (++m_readCount % READS_PER_KEEP_ALIVE == 0 && m_keepAlive != nullptr) {
        m_keepAlive(m_context);
    }
    return m_read(m_context, offset, length, buffer);
}

void Volume::report(fs_log_level_t level, const char* format, ...) noexcept {
    if (m_log == nullptr) {
        return;
    }
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    const int composed = std::vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    if (composed < 0 || wasReported(line)) {
        return;
    }
    char text[2 * sizeof(line) + 2];
    char* end = text;
    for (const char* at = line; *at != '\0'; ++at) {
        if (*at == '%') {
            *end++ = '%'; // the host takes the text for a format
        }
        *end++ = *at;
    }
    *end++ = '\n';
    *end = '\0';
    m_log(level, text);
}

bool Volume::wasReported(const char* line) noexcept {
    const std::size_t hash = std::hash<std::string_view>{}(line);
    if (std::ranges::find(m_reported, hash) != m_reported.end()) {
        return true;
    }
    m_reported[m_nextReported] = hash;
    m_nextReported = (m_nextReported + 1) % REMEMBERED_LINES;
    return false;
}
