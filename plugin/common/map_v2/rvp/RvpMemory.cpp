#include "RvpMemory.h"

#include "Error.h"
#include "LogHelper.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr std::uint32_t SIGNATURE = 0x534D7652; // "RvMS"
constexpr unsigned long SIGNATURE_SIZE = sizeof SIGNATURE;

// Dumps once allowed stay so.
int s_rvp_memory_log = 0;
std::string s_rvp_memory_dump_path;

// A zero-filled block with its signature, or null.
void* makeBlock(unsigned long size) {
    auto* block =
        size <= LONG_MAX ? static_cast<char*>(std::malloc(size + SIGNATURE_SIZE)) : nullptr;
    if (block != nullptr) {
        std::memset(block, 0, size);
        std::memcpy(block + size, &SIGNATURE, SIGNATURE_SIZE);
    }
    return block;
}

// A null address is not copied from, even for no bytes.
void copyBytes(void* to, const void* from, unsigned long size) {
    if (size != 0) {
        std::memcpy(to, from, size);
    }
}

bool writeBytes(std::FILE* file, const void* data, unsigned long size) {
    return size == 0 || std::fwrite(data, 1, size, file) == size;
}

} // namespace

RvpMemory::RvpMemory() : m_size(0), m_pMemory(nullptr), m_allocSize(0) {}

RvpMemory::RvpMemory(const RvpMemory& other) : RvpMemory() {
    *this = other;
}

RvpMemory& RvpMemory::operator=(const RvpMemory& other) {
    if (this == &other) {
        return *this;
    }
    freeMemory();
    if (other.m_pMemory != nullptr) {
        alloc(other.m_size);
        copyBytes(m_pMemory, other.m_pMemory, m_size);
    }
    return *this;
}

RvpMemory::~RvpMemory() {
    freeMemory();
}

void RvpMemory::alloc(unsigned long size) {
    freeMemory();
    void* block = makeBlock(size);
    VERIFY_PTR(block, KMP_EINVAL);
    m_pMemory = block;
    m_size = size;
    m_allocSize = size + SIGNATURE_SIZE;
}

void RvpMemory::extend(unsigned long size) {
    if (size <= m_size) {
        return;
    }
    void* block = makeBlock(size);
    VERIFY_PTR(block, KMP_EINVAL);
    copyBytes(block, m_pMemory, m_size);
    freeMemory();
    m_pMemory = block;
    m_size = size;
    m_allocSize = size + SIGNATURE_SIZE;
}

void RvpMemory::copy(const void* data, unsigned long size) {
    alloc(size);
    copyBytes(m_pMemory, data, size);
}

void RvpMemory::freeMemory() {
    if (m_pMemory != nullptr) {
        const char* guard = static_cast<const char*>(m_pMemory) + m_size;
        if (std::memcmp(guard, &SIGNATURE, SIGNATURE_SIZE) != 0) {
            PLUGIN_LOG(4, "Invalid memory signature, check for memory consistency\n");
        }
        std::free(m_pMemory);
        m_pMemory = nullptr;
    }
    m_size = 0;
    m_allocSize = 0;
}

RvpMemory::operator void*() const {
    return m_pMemory;
}

RvpMemory::operator const void*() const {
    return m_pMemory;
}

void* RvpMemory::getMemory() const {
    return m_pMemory;
}

unsigned long RvpMemory::getSize() const {
    return m_size;
}

bool RvpMemory::dump(const char* name, unsigned long length, std::FILE** stream) {
    if (s_rvp_memory_log == 0) {
        if (km_debug_level >= 0) {
            return false;
        }
        s_rvp_memory_dump_path = std::string(km_log_root) + "/";
        s_rvp_memory_log = 1;
    }
    const std::string fileName = s_rvp_memory_dump_path + name + ".rvpmem";
    std::FILE* file = stream != nullptr ? *stream : nullptr;
    if (file == nullptr) {
        PLUGIN_LOG(3, "Opening log file: %s\n", fileName.c_str());
        file = std::fopen(fileName.c_str(), "wb+");
        if (file == nullptr) {
            PLUGIN_LOG(2, "Unable to create log file: %s\n", fileName.c_str());
            return false;
        }
    }
    const unsigned long wanted = length != 0 ? length : m_size;
    const bool written = writeBytes(file, m_pMemory, std::min(wanted, m_allocSize));
    if (stream != nullptr) {
        *stream = file;
        return written;
    }
    return std::fclose(file) == 0 && written;
}
