// What a picture of a volume shows, counted from its files: how much of each small part of each
// disk holds what, and how the files are fragmented.
//
// Memory is bounded by the number of cells and the volume's block count (one bit each, in a mapped
// file), whatever the number of files.
#ifndef RVPMAP_VOLUMEPICTURE_H
#define RVPMAP_VOLUMEPICTURE_H

#include "ExtentCursor.h"
#include "IndexSet.h"
#include "PhysicalMap.h"

#include "RvpBitmapX64.h"

#include <string>
#include <vector>

// A part of a disk; bytes.
struct PictureCell {
    uint64_t volume = 0; // belongs to the volume
    uint64_t used = 0;   // holds files or directories
    uint64_t directories = 0;
    // The shown file that the cell is coloured for, and how much of it lies here.
    int shownFile = -1;
    uint64_t shownBytes = 0;
};

// A file or tree that the picture is to show in a colour of its own.
struct ShownFile {
    std::string path;
    uint64_t files = 0;
    uint64_t bytes = 0; // allocated
    uint64_t fragments = 0;
};

struct PictureTotals {
    uint64_t files = 0; // of any type but directories, each once
    uint64_t directories = 0;
    uint64_t fileBytes = 0; // allocated, by runs
    uint64_t directoryBytes = 0;
    uint64_t mappedFiles = 0; // with at least one run of blocks
    uint64_t fragments = 0;   // of those
    uint64_t fragmentedFiles = 0;
    uint64_t gaps = 0; // runs of blocks that no file holds
    uint64_t largestGap = 0;
};

class VolumePicture {
  public:
    static constexpr std::size_t COLUMNS = 256;
    static constexpr std::size_t MOST_ROWS = 64;

    // `map` must outlive the picture. `shown` are paths as a walk gives them.
    VolumePicture(const Volume& volume, const PhysicalMap& map, std::vector<std::string> shown);

    // Throws ToolError when the file cannot be mapped to its end; what came before counts.
    void add(const std::string& path, File& file);
    // Counts the gaps; to be called once, at the end.
    void finish();

    uint64_t cellBytes() const { return m_cellBytes; }
    const std::vector<const Layer*>& disks() const { return m_map.disks(); }
    const std::vector<PictureCell>& cells(std::size_t disk) const { return m_cells[disk]; }
    const std::vector<ShownFile>& shown() const { return m_shown; }
    const PictureTotals& totals() const { return m_totals; }

  private:
    struct Measure {
        uint64_t bytes = 0;
        uint64_t fragments = 0;
        uint64_t end = UINT64_MAX; // of the last run
    };

    void makeBitmap();
    void layOutCells();
    void addVolumeArea();
    int shownIndex(const std::string& path) const;
    void addRun(const Run& run, bool directory, int shown, Measure& measure);
    void fillFree(uint64_t offset, uint64_t length, bool directory);
    void colour(uint64_t offset, uint64_t length, int shown);
    template <typename Action>
    void forEachCell(uint64_t offset, uint64_t length, Action action);
    void account(const File& file, int shown, const Measure& measure, bool anew);

    const PhysicalMap& m_map;
    uint64_t m_blockSize;
    uint64_t m_blocks;
    uint64_t m_cellBytes = 0;
    std::vector<std::vector<PictureCell>> m_cells; // of each disk
    std::vector<ShownFile> m_shown;
    PictureTotals m_totals;
    RvpBitmap m_used; // a bit for each block
    IndexSet m_linked;
    std::vector<IndexSet> m_shownLinked;
};

#endif
