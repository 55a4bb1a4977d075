#include "PhysicalMap.h"

#include "ExitStatus.h"
#include "Session.h"
#include "SourceError.h"
#include "Stack.h"

#include <algorithm>

PhysicalMap::PhysicalMap(const Layer& volume, const Stack* stack)
    : m_volume(volume), m_identity(volume.map(0, 1).empty()) {
    const auto addDisk = [&](const Layer& disk) {
        m_disks.push_back({&disk, disk.name(), disk.size()});
    };
    if (stack != nullptr) {
        for (const StackNode* disk : stack->disks()) {
            addDisk(*disk->layer);
        }
    } else if (m_identity) {
        addDisk(volume);
    } else {
        addDisk(*mapToDisks(volume, 0, 1).front().run.places.front().layer);
    }
}

void PhysicalMap::append(uint64_t offset, uint64_t length, std::vector<PhysicalRun>& runs) const {
    if (m_identity) {
        runs.push_back({offset, length, indexOf(&m_volume), offset, false, false});
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
    const auto found = std::find_if(m_disks.begin(), m_disks.end(),
                                    [&](const PhysicalDisk& known) { return known.layer == disk; });
    if (found == m_disks.end()) {
        throw ToolError(ExitStatus::FAILED, "lies on a disk that was not given");
    }
    return static_cast<std::size_t>(found - m_disks.begin());
}

PhysicalMap makePhysicalMap(const Session& session) {
    return {session.volume.source(), session.stack};
}
