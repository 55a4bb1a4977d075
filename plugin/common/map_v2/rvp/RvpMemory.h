// A block of zeroed heap memory that notices when it was written past its end.
//
// Sizes are bytes. The block is `m_size` usable bytes followed by the four signature bytes "RvMS",
// which are checked when the block is released: a damaged signature leaves a line in the log at
// level 4 and nothing else. Copies are deep. One thread uses a block at a time.
//
// The order of fields and virtual operations is part of the binary interface.
#ifndef RVP_RVPMEMORY_H
#define RVP_RVPMEMORY_H

#include <cstdint>
#include <cstdio>

class RvpMemory {
  public:
    RvpMemory();
    RvpMemory(const RvpMemory& other);
    // When memory is short the object is left empty.
    RvpMemory& operator=(const RvpMemory& other);
    virtual ~RvpMemory();

    // Replaces the block by a zero-filled one; of 0 bytes, too. OrmaError(3) when memory is short;
    // the object is then empty.
    void alloc(unsigned long size);
    // Grows the block, the new bytes zero; a size that is not larger changes nothing. The block
    // moves. OrmaError(3) when memory is short; the block is then as it was.
    void extend(unsigned long size);
    // Replaces the block by a copy of `size` bytes that lie outside of it. Fails like `alloc`.
    void copy(const void* data, unsigned long size);
    // Leaves the object empty.
    void freeMemory();

    // The block, null when empty; it belongs to the object.
    operator void*() const;
    operator const void*() const;
    void* getMemory() const;
    unsigned long getSize() const;

    // Writes `length` bytes of the block, or all usable ones for 0, to the file `name`.rvpmem in
    // the host's log directory; never more than the block and its signature. False and without
    // effect until it is called with bit 31 of `km_debug_level` set; from then on it is allowed,
    // in that directory, for the rest of the process. False, too, when the file cannot be created
    // or written.
    // With a `stream` the file stays open for more dumps: it is made and stored in `*stream` when
    // that is null, else written as it is; the caller closes it.
    bool dump(const char* name, unsigned long length, std::FILE** stream);

  private:
    std::uint64_t m_size;
    void* m_pMemory; // owned
    std::uint64_t m_allocSize;
};

static_assert(sizeof(RvpMemory) == 32);

#endif
