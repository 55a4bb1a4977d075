// Which members of an md array can be used, and whether the array can be read from them.
//
// Wrong bytes are worse than none: whatever the geometry library would not map as the kernel lays
// it out, and whatever may not hold the array's latest bytes, is refused with the reason.
#ifndef STACK_MDASSEMBLY_H
#define STACK_MDASSEMBLY_H

#include "MdSuperblock.h"

#include <string>
#include <utility>
#include <vector>

struct MdMember {
    const Layer* layer;
    MdSuperblock superblock;
};

enum class MdState { COMPLETE, DEGRADED, INCOMPLETE, UNSUPPORTED };

struct MdAssembly {
    MdState state = MdState::UNSUPPORTED;
    std::string reason;                  // unless complete: in words that follow the array's name
    const MdMember* newest = nullptr;    // whose superblock speaks for the array
    std::vector<const MdMember*> byRole; // null for a missing one
    uint32_t dataDisks = 0;              // whose chunks of one row hold different data
    uint64_t size = 0;                   // bytes of the array; 0 when they cannot be told
    // Members that are not used, and why.
    std::vector<std::pair<const MdMember*, std::string>> unused;
};

// `members` share one UUID and must outlive the result.
MdAssembly assembleMd(const std::vector<MdMember>& members);

#endif
