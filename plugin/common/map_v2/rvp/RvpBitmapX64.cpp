#include "RvpBitmapX64.h"

#include "RvpOrma.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

static_assert(std::endian::native == std::endian::little);

namespace {

constexpr unsigned long WORD_BITS = 64;
constexpr unsigned long WORD_BYTES = 8;
// So many words are compared at once in long runs.
constexpr unsigned long BLOCK_WORDS = 16;

constexpr int PATH_SIZE = 260;
constexpr unsigned long FILE_SIZE_FACTOR = 10;
constexpr unsigned long DEFAULT_PAGE_SIZE = 4096;

// On the heap the sector equal to the number of sectors needs a word of its own when the sectors
// fill the last word; a scan looks one word ahead.
constexpr unsigned long HEAP_PADDING = WORD_BYTES;

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

constexpr unsigned long roundUp(unsigned long value, unsigned long unit) {
    return (value / unit + (value % unit != 0 ? 1 : 0)) * unit;
}

constexpr unsigned long sizeOfArray(unsigned long sectors) {
    return (sectors / WORD_BITS + (sectors % WORD_BITS != 0 ? 1 : 0)) * WORD_BYTES;
}
static_assert(sizeOfArray(100) == 16 && sizeOfArray(128) == 16 && sizeOfArray(~0UL) == 1UL << 61);

// Two words in a register that every x86-64 has.
using WordPair = std::uint64_t __attribute__((vector_size(16)));

WordPair pairAt(const std::uint8_t* bytes, unsigned long index) {
    WordPair pair;
    std::memcpy(&pair, bytes + index * sizeof pair, sizeof pair);
    return pair;
}

// Whether all BLOCK_WORDS words are `equal`. Written out: a loop would stay one at -O2.
bool blockIs(const std::uint8_t* block, std::uint64_t equal) {
    const WordPair e = {equal, equal};
    const WordPair differing = ((pairAt(block, 0) ^ e) | (pairAt(block, 1) ^ e)) |
                               ((pairAt(block, 2) ^ e) | (pairAt(block, 3) ^ e)) |
                               ((pairAt(block, 4) ^ e) | (pairAt(block, 5) ^ e)) |
                               ((pairAt(block, 6) ^ e) | (pairAt(block, 7) ^ e));
    return (differing[0] | differing[1]) == 0;
}

// The zero bits below the lowest one that is set, of `lowWidth` bits and then those of `high`; one
// is set. Runs end in one word as often as in the next, so a jump here would be mispredicted half
// of the time: hence the mask, and a count that does not test for 0 again.
unsigned long zerosBelow(std::uint64_t low, unsigned long lowWidth, std::uint64_t high) {
    const std::uint64_t lowIsZero = ((low | (0 - low)) >> (WORD_BITS - 1)) - 1; // a mask
    const auto zeros = static_cast<unsigned long>(__builtin_ctzl(low | (high & lowIsZero)));
    return (lowWidth & lowIsZero) + zeros;
}

constexpr unsigned lowBits(unsigned long count) {
    return (1U << count) - 1;
}

} // namespace

RvpMap::~RvpMap() = default;

// Not inline: an inline one would be a unique symbol, which keeps a library from being unloaded.
const std::uint8_t RvpBitmap::BitMask[8] = {0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80};

RvpBitmap::RvpBitmap(int storageKind)
    : m_storageKind(storageKind), m_inactive(false), m_bits(nullptr), m_size(0), m_sectors(0),
      m_mapLength(0), m_descriptor(-1), m_mapSize(0) {
// The fields' places are part of the binary interface. The type is not of standard layout, yet the
// compilers at hand define offsetof for all but virtual bases.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
    static_assert(offsetof(RvpBitmap, m_storageKind) == 8 && offsetof(RvpBitmap, m_inactive) == 12);
    static_assert(offsetof(RvpBitmap, m_bits) == 16 && offsetof(RvpBitmap, m_size) == 24);
    static_assert(offsetof(RvpBitmap, m_sectors) == 32 && offsetof(RvpBitmap, m_mapLength) == 40);
    static_assert(offsetof(RvpBitmap, m_fileName) == 48 && offsetof(RvpBitmap, m_descriptor) == 80);
    static_assert(offsetof(RvpBitmap, m_mapSize) == 88);
#pragma GCC diagnostic pop
}

RvpBitmap::~RvpBitmap() {
    freeMemory();
}

int RvpBitmap::init(unsigned long sectors, bool wanted, int /*unused*/, std::string prefix) {
    PLUGIN_LOG(3, "Using RvpBitmap");
    if (m_bits != nullptr || m_descriptor != -1) {
        freeMemory();
    }
    m_descriptor = -1;
    m_fileName = std::move(prefix);
    m_sectors = sectors;
    m_size = sizeOfArray(sectors);
    if (!wanted) {
        m_inactive = true;
        return 0;
    }
    PLUGIN_LOG(3, " Size of file = [%llu] bytes. Number of sectors = [%llu] \n",
               static_cast<unsigned long long>(m_size), static_cast<unsigned long long>(m_sectors));
    if (m_storageKind == FILE_MAPPING) {
        createBitmapFile();
    }
    allocMemory(m_size);
    return 0;
}

void RvpBitmap::createBitmapFile() {
    char directory[PATH_SIZE];
    char path[PATH_SIZE];
    VERIFY_LINUX_BOOL(GetTempPath(PATH_SIZE, directory) != 0);
    VERIFY_LINUX_BOOL(GetTempFileName(directory, PATH_SIZE, m_fileName.data(), 0, path) != 0);
    m_fileName = path;
    PLUGIN_LOG(4, "Temp file name for bitmapfile: %s\n", path);
    m_descriptor = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    VERIFY_LINUX_BOOL(m_descriptor != -1);
}

void RvpBitmap::allocMemory(unsigned long size) {
    if (m_storageKind != FILE_MAPPING) {
        const unsigned long rounded = roundUp(size, WORD_BYTES);
        void* block = size <= LONG_MAX ? std::malloc(rounded + HEAP_PADDING) : nullptr;
        VERIFY_PTR(block, KMP_EINVAL);
        m_bits = static_cast<std::uint8_t*>(block);
        // One eighth of the array: callers of this kind know that, and clear the rest themselves.
        std::memset(m_bits, 0, rounded / WORD_BITS * WORD_BYTES);
        std::memset(m_bits + rounded, 0, HEAP_PADDING);
        return;
    }

    const long systemPageSize = sysconf(_SC_PAGESIZE);
    if (systemPageSize == -1) {
        PLUGIN_LOG(3, "Fail to get page size, using page size 4096\n");
    }
    const unsigned long pageSize =
        systemPageSize == -1 ? DEFAULT_PAGE_SIZE : static_cast<unsigned long>(systemPageSize);

    const unsigned long fileSize = size * FILE_SIZE_FACTOR;
    const bool resized = truncate(m_fileName.c_str(), static_cast<off_t>(fileSize)) == 0;
    if (!resized) {
        const int truncateErrno = errno;
        PLUGIN_LOG(0, "Fail to truncate file to size: [%llu] \n",
                   static_cast<unsigned long long>(fileSize));
        errno = truncateErrno;
    }
    VERIFY_LINUX_BOOL(resized);

    // A page more than needed when the size is a multiple of it; there the sector equal to the
    // number of sectors has its bit.
    m_mapLength = pageSize + size - size % pageSize;
    PLUGIN_LOG(3, "File map done, allocated [%llu] \n",
               static_cast<unsigned long long>(m_mapLength));
    // An empty file has no page behind that bit. Without a reservation a bitmap may be larger than
    // the memory, as long as the pages that were written fit.
    const int source = fileSize == 0 ? MAP_ANONYMOUS : 0;
    void* view = mmap(nullptr, m_mapLength, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_NORESERVE | source, m_descriptor, 0);
    VERIFY_LINUX(view != MAP_FAILED);
    PLUGIN_LOG(3, "Map view done \n");
    m_bits = static_cast<std::uint8_t*>(view);
    m_mapSize = size;
}

void RvpBitmap::freeMemory() {
    if (m_storageKind == FILE_MAPPING) {
        if (m_bits != nullptr) {
            munmap(m_bits, m_mapLength);
        }
        if (m_descriptor != -1) {
            close(m_descriptor);
            m_descriptor = -1;
        }
    } else {
        std::free(m_bits);
    }
    m_bits = nullptr;
    unlink(m_fileName.c_str());
    m_size = 0;
}

unsigned long RvpBitmap::getSize() {
    return m_size;
}

void RvpBitmap::setBit(const unsigned long& sector) {
    VERIFY_ORMA_BOOL(!m_inactive && m_bits != nullptr, KMP_EINVAL);
    VERIFY_ORMA_BOOL(sector <= m_sectors, KMP_EINVAL);
    fillByteBits(sector / 8, BitMask[sector % 8], true);
}

void RvpBitmap::setRegion(unsigned long start, unsigned long count) {
    VERIFY_ORMA_BOOL(!m_inactive && m_bits != nullptr, KMP_EINVAL);
    VERIFY_ORMA_BOOL(count != 0 && holds(start, count), KMP_EINVAL);
    fill(start, count, true);
}

void RvpBitmap::clearRegion(unsigned long start, unsigned long count) {
    VERIFY_ORMA_BOOL(!m_inactive && m_bits != nullptr, KMP_EINVAL);
    VERIFY_ORMA_BOOL(count != 0 && holds(start, count), KMP_EINVAL);
    fill(start, count, false);
}

void RvpBitmap::fill(unsigned long start, unsigned long count, bool set) {
    unsigned long byte = start / 8;
    if (const unsigned long skipped = start % 8; skipped != 0) {
        const unsigned long head = std::min(count, 8 - skipped);
        fillByteBits(byte, lowBits(head) << skipped, set);
        count -= head;
        ++byte;
    }
    // The widest stores that the machine has, in place of bytes up to a word and words from there.
    std::memset(m_bits + byte, set ? 0xFF : 0, count / 8);
    if (count % 8 != 0) {
        fillByteBits(byte + count / 8, lowBits(count % 8), set);
    }
}

void RvpBitmap::fillByteBits(unsigned long byte, unsigned mask, bool set) {
    const unsigned bits = m_bits[byte];
    m_bits[byte] = static_cast<std::uint8_t>(set ? bits | mask : bits & ~mask);
}

unsigned long RvpBitmap::getExtent(unsigned long start, unsigned long count, bool& set) {
    VERIFY_ORMA_BOOL(holds(start, count), KMP_EINVAL);
    if (count == 0) {
        return 0;
    }
    if (m_inactive) {
        set = true;
        return std::min(count, m_sectors);
    }
    VERIFY_ORMA_BOOL(m_bits != nullptr, KMP_EINVAL);
    // Bits beyond the region may be looked at, those of the padding word included, but the result
    // is never beyond it, and so never behind the last sector.
    const unsigned long first = start / WORD_BITS;
    const unsigned long offset = start % WORD_BITS;
    const std::uint64_t word = wordAt(first) >> offset;
    const std::uint64_t equal = 0 - (word & 1); // all ones or zero
    const std::uint64_t here = word ^ (equal >> offset);
    const std::uint64_t next = wordAt(first + 1) ^ equal;
    set = equal != 0;
    const unsigned long run = (here | next) != 0
                                  ? zerosBelow(here, WORD_BITS - offset, next)
                                  : firstOther(first + 2, start + count, equal) - start;
    return std::min(run, count);
}

// The first sector from word `first` on whose bit is not as in `equal`, or one from `end` on.
unsigned long RvpBitmap::firstOther(unsigned long first, unsigned long end,
                                    std::uint64_t equal) const {
    const unsigned long endWord = (end - 1) / WORD_BITS + 1;
    if (first >= endWord) {
        return end;
    }
    const unsigned long word = skipWords(first, endWord, equal);
    if (word == endWord) {
        return end;
    }
    return word * WORD_BITS + static_cast<unsigned long>(std::countr_zero(wordAt(word) ^ equal));
}

// The first word from `first` on that is not `equal`, or `end`.
unsigned long RvpBitmap::skipWords(unsigned long first, unsigned long end,
                                   std::uint64_t equal) const {
    unsigned long word = first;
    for (const unsigned long nearEnd = std::min(first + BLOCK_WORDS, end); word < nearEnd; ++word) {
        if (wordAt(word) != equal) {
            return word;
        }
    }
    while (end - word >= BLOCK_WORDS && blockIs(m_bits + word * WORD_BYTES, equal)) {
        word += BLOCK_WORDS;
    }
    while (word < end && wordAt(word) == equal) {
        ++word;
    }
    return word;
}

void RvpBitmap::dump(std::string name) {
    name += m_storageKind == FILE_MAPPING ? ".mmf" : ".dump";
    PLUGIN_LOG(4, "Opening log file: %s\n", name.c_str());
    const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(name.c_str(), "w"));
    if (file == nullptr) {
        return;
    }
    std::fprintf(file.get(), "Size of file = [%lu] bytes. Number of sectors = [%lu] \n", m_size,
                 m_sectors);
    // The first look takes the bytes of the array for a number of sectors: readers of dumps know
    // that the first run may be cut there.
    unsigned long count = m_size;
    for (unsigned long sector = 0; sector < m_sectors; count = m_sectors - sector) {
        bool set = false;
        const unsigned long run = getExtent(sector, count, set);
        if (set) {
            std::fprintf(file.get(), " [%lu]   [%lu] \n", sector, run);
        }
        sector += run;
    }
}
