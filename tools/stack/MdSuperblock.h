// The superblock of an md array's member: found, verified, and in one form for all its versions.
//
// The layouts are those of the Linux kernel's linux/raid/md_p.h: version 0.90 in the last whole 64
// KiB of a member, 1.0 near its end, 1.1 at its start, 1.2 at byte 4096.
#ifndef STACK_MDSUPERBLOCK_H
#define STACK_MDSUPERBLOCK_H

#include "Layer.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

constexpr uint32_t NO_ROLE = UINT32_MAX;

// What a member is to its array.
enum class MemberKind { ACTIVE, SPARE, FAULTY, JOURNAL, REPLACEMENT, REBUILDING };

// Lengths and places are in sectors of 512 bytes.
struct MdSuperblock {
    std::string version; // "0.90", "1.0", "1.1", "1.2"
    std::array<uint8_t, 16> uuid = {};
    std::string arrayName; // "md0", "md_backup"
    int32_t level = 0;
    uint32_t layout = 0;
    uint64_t chunkBytes = 0;
    uint32_t raidDisks = 0;
    uint64_t componentSectors = 0; // of each member that the array uses; not kept at level 0
    uint64_t events = 0;
    uint64_t created = 0; // seconds since 1970

    MemberKind kind = MemberKind::SPARE;
    uint32_t role = 0; // of an active member, below raidDisks
    uint32_t deviceNumber = 0;
    // What the superblock says of every device of the array, by its number: the role of those that
    // hold the array's bytes, NO_ROLE for the others.
    std::vector<uint32_t> roles;
    uint64_t dataStart = 0;
    uint64_t dataSectors = 0;

    bool clean = true;          // parity is known to agree with the data
    bool reshaping = false;     // the layout changes somewhere within the array
    bool journal = false;       // writes go through a journal first
    bool partialLog = false;    // a log of partial parity keeps what a crash left open
    bool badBlocks = false;     // the member knows of places that cannot be trusted
    bool zonesAreNamed = false; // level 0: `layout` says how zones are laid out

    std::array<char, 4096> raw = {}; // as read
};

// "level 5"; md has names for those that are no RAID.
std::string levelName(int32_t level);

// The newest verified superblock. `notes` gains a sentence for each that was found and not used.
// Throws SourceError when the layer cannot be read.
std::optional<MdSuperblock> readMdSuperblock(const Layer& layer, std::vector<std::string>& notes);

#endif
