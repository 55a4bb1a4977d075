#include "PhysicalMap.h"

#include "DiskRuns.h"
#include "Stack.h"
#include "Volume.h"

#include <algorithm>

PhysicalMap::PhysicalMap(const Layer& volume, const Stack* stack) : m_volume(volume) {
    const bool isDisk = volume.map(0, 1).empty();
    if (stack != nullptr) {
        for (const StackNode* disk : stack->disks()) {
            m_disks.push_back(disk->layer);
        }
    } else if (isDisk) {
        m_disks.push_back(&volume);
    } else {
        m_disks.push_back(mapToDisks(volume, 0, 1).front().run.places.front().layer);
    }
    if (isDisk) {
        m_ownDisk = indexOf(&volume);
    }
}

void PhysicalMap::append(uint64_t offset, uint64_t length, std::vector<PhysicalRun>& runs) const {
    if (m_ownDisk) {
        runs.push_back({offset, length, *m_ownDisk, offset, false, false});
        return;
    }
    try {
        for (const DiskRun& run : mapToDisks(m_volume, offset, length)) {
            for (const LayerPlace& place : run.run.places) {
                runs.push_back({run.logical, run.run.length, indexOf(place.layer), place.offset,
                                run.run.kind == RunKind::XOR, false});
            }
            for (const LayerPlace& place : run.run.copies) {
                runs.push_back(
                    {run.logical, run.run.length, indexOf(place.layer), place.offset, false, true});
            }
        }
    } catch (const SourceError& error) {
        throw readError(error);
    }
}

std::size_t PhysicalMap::indexOf(const Layer* disk) const {
    const auto found = std::find(m_disks.begin(), m_disks.end(), disk);
    if (found == m_disks.end()) {
        throw ToolError(ExitStatus::FAILED, "lies on a disk that was not given");
    }
    return static_cast<std::size_t>(found - m_disks.begin());
}
