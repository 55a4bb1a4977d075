#include "OwnerFinder.h"

#include <algorithm>

void OwnerFinder::beginVolume(uint64_t fileSystemBytes) {
    std::vector<LayerUse> uses;
    for (const ByteRange& range : m_ranges) {
        uses.push_back({range.begin, range.end - range.begin, UseKind::DATA, range.begin});
    }
    beginVolume("", uses, fileSystemBytes);
}

void OwnerFinder::beginVolume(const std::string& name, const std::vector<LayerUse>& uses,
                              uint64_t fileSystemBytes) {
    m_volume = name;
    m_uses = {};
    m_holders.push_back({name, ""});
    for (const LayerUse& use : uses) {
        if (use.kind == UseKind::PARITY) {
            continue;
        }
        m_uses.add({{use.logical, use.logical + use.length}, use.offset, use.kind});
        if (use.kind == UseKind::REBUILDS) {
            continue;
        }
        const uint64_t inside =
            std::min(use.length, fileSystemBytes - std::min(fileSystemBytes, use.logical));
        addArea(0,
                {{use.offset, use.offset + inside}, AreaKind::FILE_SYSTEM, m_holders.size() - 1});
        addArea(0, {{use.offset + inside, use.offset + use.length},
                    fileSystemBytes == 0 ? AreaKind::UNREAD : AreaKind::BEHIND,
                    m_holders.size() - 1});
    }
    m_uses.sort();
}

void OwnerFinder::addAreas(std::size_t rank, AreaKind kind, const AreaHolder& holder,
                           const std::vector<LayerUse>& uses) {
    m_holders.push_back(holder);
    for (const LayerUse& use : uses) {
        addArea(rank, {{use.offset, use.offset + use.length}, kind, m_holders.size() - 1});
    }
}

void OwnerFinder::addArea(std::size_t rank, const OwnedArea& area) {
    if (m_areas.size() <= rank) {
        m_areas.resize(rank + 1);
    }
    OwnedArea* last = m_areas[rank].last();
    if (last != nullptr && last->range.end == area.range.begin && last->kind == area.kind &&
        last->holder == area.holder) {
        last->range.end = area.range.end;
    } else if (area.range.begin < area.range.end) {
        m_areas[rank].add(area);
    }
}

void OwnerFinder::add(const std::string& path, File& file) {
    bool isKept = false;
    ExtentCursor cursor(file);
    while (const Run* run = cursor.next()) {
        if (!run->isHole()) {
            const uint64_t end = run->physical + std::min(run->length, UINT64_MAX - run->physical);
            m_uses.forEachIn({run->physical, end},
                             [&](const VolumeUse& use, const ByteRange& common) {
                                 if (!isKept) {
                                     m_files.push_back({m_volume, path, file.index(),
                                                        file.typeBits(), file.attributes().size});
                                     isKept = true;
                                 }
                                 addPiece(*run, use, common);
                             });
        }
    }
}

void OwnerFinder::addPiece(const Run& run, const VolumeUse& use, const ByteRange& common) {
    const uint64_t begin = use.offset + (common.begin - use.range.begin);
    m_pieces.add({{begin, begin + (common.end - common.begin)},
                  m_files.size() - 1,
                  run.logical + (common.begin - run.physical),
                  common.begin,
                  run.flags,
                  use.kind});
}

void OwnerFinder::finish() {
    m_pieces.sort();
    for (RangeIndex<OwnedArea>& areas : m_areas) {
        areas.sort();
    }
}
