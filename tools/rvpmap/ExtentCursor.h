// The runs of one file in file order, asked for in batches until the last one.
#ifndef RVPMAP_EXTENTCURSOR_H
#define RVPMAP_EXTENTCURSOR_H

#include "File.h"

#include <array>

// One run. All in bytes; `physical` counts from the volume's start and means nothing in a hole.
struct Run {
    uint64_t logical;
    uint64_t physical;
    uint64_t length; // whole blocks, except for inline runs
    uint32_t flags;  // fso_extent_flag bits, without the inline length

    bool isHole() const;
    bool isInline() const;
    bool isEncoded() const;
    bool isLast() const;
    // The bytes lie on the volume: neither a hole nor preallocated space.
    bool isData() const;
};

class ExtentCursor {
  public:
    // `file` must outlive the cursor.
    explicit ExtentCursor(File& file);
    // The next run, holes included; null behind the last. The pointer is valid until the next
    // call. Throws ToolError when the file cannot be mapped further, and also when the answers
    // would never come to an end.
    const Run* next();

  private:
    static constexpr int BATCH = 128;

    bool mayHaveRuns() const;
    void fetch();
    void take(const kmp_extent& extent);
    void account();

    File& m_file;
    std::array<kmp_extent, BATCH> m_batch;
    int m_count = 0;
    int m_at = 0;
    bool m_ended;
    uint64_t m_offset = 0;
    uint64_t m_allocated = 0;
    unsigned m_holesInARow = 0;
    Run m_run = {};
};

#endif
