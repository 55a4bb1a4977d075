// The names of a listed run's flags, in the order in which they are shown.
#ifndef RVPMAP_RUNFLAGS_H
#define RVPMAP_RUNFLAGS_H

#include "fso/IFileSystemObjectV1.h"

#include <array>
#include <string_view>

struct RunFlag {
    uint32_t bit;
    std::string_view name;
};

inline constexpr std::array<RunFlag, 4> RUN_FLAGS = {{{FSO_EXTENT_UNWRITTEN, "unwritten"},
                                                      {FSO_EXTENT_INLINE, "inline"},
                                                      {FSO_EXTENT_ENCODED, "encoded"},
                                                      {FSO_EXTENT_LAST, "last"}}};

template <typename Action>
void forEachFlag(uint32_t flags, Action action) {
    for (const RunFlag& flag : RUN_FLAGS) {
        if ((flags & flag.bit) != 0) {
            action(flag.name);
        }
    }
}

#endif
