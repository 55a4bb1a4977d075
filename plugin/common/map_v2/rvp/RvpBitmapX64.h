// A bitmap over the sectors of a volume, and its runs.
//
// Sector s is bit s mod 8 (the least significant first) of byte s / 8, so that word w of the array,
// taken as a little-endian 64-bit integer, covers the 64 sectors from 64w on. All positions and
// counts are sectors; sizes are bytes. Nothing is locked.
//
// A refused call logs "Exception: VERIFY_ORMA_BOOL\n", throws OrmaError(3) and changes nothing.
// The order of fields and virtual operations is part of the binary interface.
#ifndef RVP_RVPBITMAPX64_H
#define RVP_RVPBITMAPX64_H

#include "Error.h"

#include <cstdint>
#include <cstring>
#include <string>

class RvpMap {
  public:
    virtual ~RvpMap();
    virtual bool isSet(unsigned long sector) = 0;
    virtual void setBit(const unsigned long& sector) = 0;
    virtual int init(unsigned long sectors, bool wanted, int unused, std::string prefix) = 0;
};

// Keeps its bits on the heap or in a private mapping of a temporary file: the file gives the
// mapping its zero bytes and its room beside the heap, but never receives a bit. The bitmap owns
// the memory, the descriptor and the file.
//
//     RvpBitmap used(RvpBitmap::FILE_MAPPING);
//     used.init(sectors, true, 0, "used");
//     used.setRegion(2048, 4096);
//     bool set = false;
//     unsigned long run = used.getExtent(0, sectors, set); // 2048, set == false
class RvpBitmap : public RvpMap {
  public:
    static constexpr int FILE_MAPPING = 1;
    static constexpr int HEAP = 0;

    static const std::uint8_t BitMask[8]; // 0x01, 0x02, ... 0x80

    // FILE_MAPPING, or any other value for the heap. There are no bits before `init`.
    explicit RvpBitmap(int storageKind);
    // Releases everything; removes the temporary file, see `freeMemory`.
    ~RvpBitmap() override;
    RvpBitmap(const RvpBitmap&) = delete;
    RvpBitmap& operator=(const RvpBitmap&) = delete;

    // True everywhere when the bitmap is inactive. The sector equal to the number of sectors
    // is answered as well (see `setBit`); one beyond it is refused.
    bool isSet(unsigned long sector) override {
        if (m_inactive) {
            return true;
        }
        requireReadable(sector, __LINE__, __func__);
        return (m_bits[sector / 8] & BitMask[sector % 8]) != 0;
    }

    // Accepts the sector equal to the number of sectors: its bit lies behind the volume's and is
    // never part of a run. Refuses one beyond it, and an inactive bitmap.
    void setBit(const unsigned long& sector) override;

    // Makes the bits of `sectors` sectors; 0. A bitmap that is not `wanted` becomes inactive and
    // stays so. A file mapping begins clear. On the heap only the first eighth of the array does:
    // clear what you need with `clearRegion`. `prefix` begins the temporary file's name.
    // Throws OrmaError(3) when the heap is short, LinuxError when a system call fails; the bitmap
    // then has no bits, every call that needs them is refused, and the destructor cleans up. A
    // second call first releases what the one before took.
    int init(unsigned long sectors, bool wanted, int unused, std::string prefix) override;

    // Sets or clears `count` bits from `start`. Refuses an inactive bitmap, a count of 0, and a
    // region that ends behind the last sector.
    void setRegion(unsigned long start, unsigned long count);
    void clearRegion(unsigned long start, unsigned long count);

    // How far the bits from `start` on stay the same, but at most `count`; `set` tells which bits
    // they are. A count of 0 gives 0 and leaves `set` alone. An inactive bitmap is one set
    // run. Refuses to look behind the last sector.
    unsigned long getExtent(unsigned long start, unsigned long count, bool& set);

    // Whether the whole byte, or 64-bit word, that holds `sector` equals `set`, the bits behind the
    // last sector included. Refused like `isSet`, and by an inactive bitmap.
    bool isUint8Set(unsigned long sector, bool set) {
        requireReadable(sector, __LINE__, __func__);
        return m_bits[sector / 8] == (set ? 0xFF : 0);
    }
    bool isUint64Set(unsigned long sector, bool set) {
        requireReadable(sector, __LINE__, __func__);
        return wordAt(sector / 64) == (set ? ~std::uint64_t{0} : 0);
    }

    // The size of the array: whole 64-bit words.
    unsigned long getSize();

    // Writes the set runs as text to `name`.mmf (file mapping) or `name`.dump (heap); nothing when
    // the file cannot be opened. A bitmap of 1 to 7 sectors is refused after the first line.
    void dump(std::string name);

    // The steps of `init`: the temporary file; the memory for `size` bytes.
    void createBitmapFile();
    void allocMemory(unsigned long size);
    // Gives the memory back, closes the descriptor and removes the file whose name is kept: the
    // temporary file, or for the heap a file that is named like the prefix given to `init`.
    void freeMemory();

  private:
    // Inlined into hosts, whose copy of this header lies elsewhere: so the name is spelled out.
    static constexpr const char* HEADER = "plugin/common/map_v2/rvp/RvpBitmapX64.h";

    void requireReadable(unsigned long sector, int line, const char* function) const {
        if (sector > m_sectors || m_bits == nullptr) {
            raiseOrmaError(VERIFY_ORMA_BOOL_TEXT, KMP_EINVAL, HEADER, line, function);
        }
    }
    bool holds(unsigned long start, unsigned long count) const {
        return count <= m_sectors && start <= m_sectors - count;
    }
    std::uint64_t wordAt(unsigned long index) const {
        std::uint64_t word;
        std::memcpy(&word, m_bits + index * sizeof word, sizeof word);
        return word;
    }
    __attribute__((visibility("hidden"))) unsigned long
    skipWords(unsigned long first, unsigned long end, std::uint64_t equal) const;
    __attribute__((visibility("hidden"))) unsigned long
    firstOther(unsigned long first, unsigned long end, std::uint64_t equal) const;
    __attribute__((visibility("hidden"))) void fill(unsigned long start, unsigned long count,
                                                    bool set);
    __attribute__((visibility("hidden"))) void fillByteBits(unsigned long byte, unsigned mask,
                                                            bool set);

    int m_storageKind;
    bool m_inactive;
    std::uint8_t* m_bits; // owned
    unsigned long m_size; // bytes of the array
    unsigned long m_sectors;
    unsigned long m_mapLength; // bytes; file mapping only
    std::string m_fileName;    // the prefix, then the temporary file's path
    int m_descriptor;          // -1 when closed
    unsigned long m_mapSize;   // `m_size` once it is mapped
};

static_assert(sizeof(RvpMap) == 8 && sizeof(RvpBitmap) == 96);

#endif
