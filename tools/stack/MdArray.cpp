#include "MdArray.h"

#include "SourceError.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

namespace {

// Only of the library: the disk's name in its records.
const char* const LIBRARY_DISK = "member";

// Superblocks as the library is to see them: that of the array, in turn with each role. A missing
// member is thus stood in for, and every array of the library is complete.
union LibrarySuperblock {
    std::array<char, MD_SUPERBLOCK_SIZE> raw;
    md_superblock_s v090;
    md_superblock_v1_s v1;
};

// The library never completes an array of one disk; a mirror of two lies on the first as well. A
// stripe over one disk is a mirror of one.
bool isSingle(const MdSuperblock& superblock) {
    return superblock.raidDisks == 1;
}

void addV090(RvpRaid& raid, RvpDisk& disk, LibrarySuperblock& superblock, uint32_t role,
             bool single) {
    superblock.v090.this_disk_raid_disk = role;
    superblock.v090.this_disk_state |= MD_DISK_IN_SYNC;
    if (single) {
        superblock.v090.level = 1;
        superblock.v090.raid_disks = 2;
    }
    raid.addPartitionToVolume(disk, &superblock.v090);
}

void addV1(RvpRaid& raid, RvpDisk& disk, LibrarySuperblock& superblock, uint32_t role,
           bool single) {
    superblock.v1.dev_number = 0;
    superblock.v1.dev_roles[0] = static_cast<uint16_t>(role);
    if (single) {
        superblock.v1.level = 1;
        superblock.v1.raid_disks = 2;
    }
    raid.addPartitionToVolume_v1(disk, &superblock.v1);
}

// What the library may use of a member: at level 0 all that the member has, else as much as the
// array uses, so that larger members make no zones.
uint64_t usedSectors(const MdAssembly& assembly, const MdMember* member) {
    const MdSuperblock& array = assembly.newest->superblock;
    return array.level == 0 && member != nullptr ? member->superblock.dataSectors
                                                 : array.componentSectors;
}

} // namespace

MdArray::MdArray(std::string name, const MdAssembly& assembly)
    : MappedLayer(std::move(name), assembly.size), m_level(assembly.newest->superblock.level),
      m_chunkBytes(m_level == 1 ? assembly.size : assembly.newest->superblock.chunkBytes),
      m_dataDisks(assembly.dataDisks) {
    for (const MdMember* member : assembly.byRole) {
        const uint64_t length = usedSectors(assembly, member) * SECTOR_BYTES;
        m_members.push_back(
            member == nullptr
                ? Member{nullptr, 0, length}
                : Member{member->layer, member->superblock.dataStart * SECTOR_BYTES, length});
    }
    addToLibrary(assembly);
}

void MdArray::addToLibrary(const MdAssembly& assembly) {
    const MdSuperblock& array = assembly.newest->superblock;
    const bool single = isSingle(array);
    for (uint32_t role = 0; role < (single ? 2 : array.raidDisks); ++role) {
        const MdMember* member = role < assembly.byRole.size() ? assembly.byRole[role] : nullptr;
        RvpDisk disk;
        disk.name = LIBRARY_DISK;
        disk.callerWord = role;
        RvpPartition& partition = disk.partitions.emplace_back();
        partition.startSector = member != nullptr ? member->superblock.dataStart : 0;
        partition.sectorCount = usedSectors(assembly, member);

        LibrarySuperblock superblock;
        superblock.raw = array.raw;
        if (array.version == "0.90") {
            addV090(m_raid, disk, superblock, role, single);
        } else {
            addV1(m_raid, disk, superblock, role, single);
        }
        m_volume = {LIBRARY_DISK, partition.startSector};
    }
}

MdArray::Location MdArray::locate(uint64_t offset, uint64_t length) const {
    // The library answers in whole sectors.
    const uint64_t head = offset % SECTOR_BYTES;
    const uint64_t sectors = (head + length + SECTOR_BYTES - 1) / SECTOR_BYTES;
    unsigned long memberOffset = 0;
    unsigned long runLength = 0;
    unsigned long partitionStart = 0;
    RvpDisk* disk = nullptr; // stays null when the library cannot tell
    m_raid.calculatePartitionRun(&m_volume, offset - head, sectors * SECTOR_BYTES, memberOffset,
                                 runLength, &disk, &partitionStart);
    if (disk == nullptr || runLength <= head) {
        throw SourceError(fmt::format("read of {} bytes at offset {}: {} cannot be mapped there",
                                      length, offset, name()),
                          false);
    }
    return {disk->callerWord, memberOffset + head, std::min<uint64_t>(length, runLength - head)};
}

LayerRun MdArray::firstRun(uint64_t offset, uint64_t length) const {
    const Location at = locate(offset, length);
    if (m_level == 1 || m_level == 10) {
        return mirrorRun(at);
    }
    if (m_members.at(at.role).layer != nullptr) {
        return {at.length, RunKind::DATA, {placeOn(at.role, at.offset)}};
    }
    return rebuiltRun(at);
}

LayerPlace MdArray::placeOn(uint32_t role, uint64_t offset) const {
    return {m_members[role].layer, m_members[role].start + offset};
}

bool MdArray::areMirrors(uint32_t a, uint32_t b) const {
    return a == b || m_level == 1 || (m_level == 10 && a == (b ^ 1U));
}

// The first that is there is read.
LayerRun MdArray::mirrorRun(const Location& at) const {
    LayerRun run{at.length, RunKind::DATA, {}};
    for (uint32_t role = 0; role < m_members.size(); ++role) {
        if (areMirrors(role, at.role) && m_members[role].layer != nullptr) {
            (run.places.empty() ? run.places : run.copies).push_back(placeOn(role, at.offset));
        }
    }
    return run;
}

// What a missing member would hold: the exclusive or of all others.
LayerRun MdArray::rebuiltRun(const Location& at) const {
    LayerRun run{at.length, RunKind::XOR, {}};
    for (uint32_t other = 0; other < m_members.size(); ++other) {
        if (m_members[other].layer != nullptr) {
            run.places.push_back(placeOn(other, at.offset));
        }
    }
    return run;
}

std::vector<const Layer*> MdArray::layersBelow() const {
    std::vector<const Layer*> layers;
    for (const Member& member : m_members) {
        if (member.layer != nullptr) {
            layers.push_back(member.layer);
        }
    }
    return layers;
}

std::vector<LayerUse> MdArray::directUses(const LayerPlace& place, uint64_t length) const {
    std::vector<LayerUse> uses;
    uint32_t role = 0;
    while (m_members[role].layer != place.layer) {
        ++role;
    }
    const Member& member = m_members[role];
    const LayerUse all = commonUse(member.start, member.length, place, length, UseKind::DATA);
    for (uint64_t done = 0; done < all.length;) {
        const uint64_t offset = all.logical + done;
        const uint64_t step = std::min(all.length - done, m_chunkBytes - offset % m_chunkBytes);
        appendRowUses(role, offset, step, uses);
        done += step;
    }
    return uses;
}

// What a mirror of `holder` is: data where it is the first that is there.
UseKind MdArray::mirrorKind(uint32_t role, uint32_t holder) const {
    for (uint32_t other = 0; other < role; ++other) {
        if (areMirrors(other, holder) && m_members[other].layer != nullptr) {
            return UseKind::COPY;
        }
    }
    return UseKind::DATA;
}

// At level 0, only members that reach so high have a part in the row.
MdArray::Row MdArray::rowAt(uint64_t height) const {
    Row row{0, 0};
    for (const Member& member : m_members) {
        const uint64_t chunks = member.length / m_chunkBytes;
        row.firstChunk += std::min(height, chunks);
        row.chunks += height < chunks ? 1 : 0;
    }
    if (m_level == 0) {
        return row;
    }
    return {height * m_dataDisks, row.chunks == 0 ? 0 : m_dataDisks};
}

// What bytes within one chunk of a member are, told by where the library puts the row's chunks.
void MdArray::appendRowUses(uint32_t role, uint64_t offset, uint64_t length,
                            std::vector<LayerUse>& uses) const {
    const Row row = rowAt(offset / m_chunkBytes);
    const uint64_t place = m_members[role].start + offset;
    bool isData = row.chunks == 0;
    for (uint64_t chunk = row.firstChunk; chunk < row.firstChunk + row.chunks; ++chunk) {
        const uint64_t logical = chunk * m_chunkBytes + offset % m_chunkBytes;
        const uint32_t holder = locate(logical, length).role;
        if (areMirrors(role, holder)) {
            appendUse(uses, {place, length, mirrorKind(role, holder), logical});
            isData = true;
        } else if (m_members[holder].layer == nullptr && keepsParity()) {
            appendUse(uses, {place, length, UseKind::REBUILDS, logical});
        }
    }
    if (!isData && keepsParity()) {
        appendUse(uses, {place, length, UseKind::PARITY, 0});
    }
}
