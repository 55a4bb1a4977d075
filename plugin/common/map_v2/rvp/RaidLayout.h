// Where md's levels keep the bytes of an array: chunks, stripes, and the roles of a stripe's
// members.
//
// The superblock's own words and what is added to or taken from them stay 32 bits wide; quotients
// and products are 64. All of it is unsigned and wraps. Nothing guards against dividing by zero.
#ifndef RVP_RAIDLAYOUT_H
#define RVP_RAIDLAYOUT_H

#include <algorithm>
#include <cstdint>
#include <optional>

constexpr std::uint64_t MD_SECTOR_SIZE = 512;

struct Division {
    std::uint64_t quotient;
    std::uint64_t remainder;
};

// Processors divide 32 bits faster than 64, and most dividends here fit.
inline Division divide(std::uint64_t value, std::uint32_t divisor) {
    if (value <= UINT32_MAX) {
        const auto narrow = static_cast<std::uint32_t>(value);
        return {narrow / divisor, narrow % divisor};
    }
    return {value / divisor, value % divisor};
}

// A byte address of an array, by chunks.
struct ChunkPlace {
    std::uint64_t chunk;
    std::uint64_t inChunk; // sectors
    std::uint32_t chunkSectors;

    ChunkPlace(std::uint32_t chunkSize, std::uint64_t address)
        : chunkSectors(chunkSize / static_cast<std::uint32_t>(MD_SECTOR_SIZE)) {
        const std::uint64_t sector = address / MD_SECTOR_SIZE;
        const Division chunks = divide(sector, chunkSectors);
        chunk = chunks.quotient;
        inChunk = chunks.remainder;
    }

    // The address on a member of the same place in its chunk `memberChunk`.
    std::uint64_t memberOffset(std::uint64_t memberChunk) const {
        return (inChunk + chunkSectors * memberChunk) * MD_SECTOR_SIZE;
    }

    // What is left of the chunk, at most `length`, in whole sectors.
    std::uint64_t runLength(std::uint64_t length) const {
        return std::min(length / MD_SECTOR_SIZE, chunkSectors - inChunk) * MD_SECTOR_SIZE;
    }
};

// Where a parity array keeps a chunk of data.
struct ParityPlace {
    std::uint64_t stripe;
    std::uint64_t dataIndex; // which of the stripe's data chunks, 0 to dataDisks - 1

    ParityPlace(std::uint64_t chunk, std::uint32_t dataDisks) {
        const Division stripes = divide(chunk, dataDisks);
        stripe = stripes.quotient;
        dataIndex = stripes.remainder;
    }
};

// The role of the member that holds a data chunk; nothing for an unknown layout.
inline std::optional<std::uint64_t> raid5Role(std::uint32_t layout, std::uint32_t disks,
                                              ParityPlace place) {
    const std::uint32_t dataDisks = disks - 1;
    const std::uint32_t disksPlusOne = disks + 1;
    const std::uint64_t data = place.dataIndex;
    const std::uint64_t parity = divide(place.stripe, disks).remainder;
    switch (layout) {
    case 0: // left asymmetric
        return data >= dataDisks - parity ? data + 1 : data;
    case 1: // right asymmetric
        return data >= parity ? data + 1 : data;
    case 2: // left symmetric
        return divide(parity * dataDisks + data, disks).remainder;
    case 3: // right symmetric
        return divide(data + parity * disksPlusOne + 1, disks).remainder;
    default:
        return std::nullopt;
    }
}

// Layouts 1 and 3 place the parity one member beside where the kernel's arrays have it; hosts rely
// on these roles.
inline std::optional<std::uint64_t> raid6Role(std::uint32_t layout, std::uint32_t disks,
                                              ParityPlace place) {
    const std::uint32_t dataDisks = disks - 2;
    const std::uint32_t lastDisk = disks - 1;
    const std::uint32_t disksPlusOne = disks + 1;
    const std::uint64_t data = place.dataIndex;
    const std::uint64_t turn = divide(place.stripe + lastDisk, disks).remainder;
    switch (layout) {
    case 0:
        if (turn == lastDisk) {
            return data + 1;
        }
        return data >= dataDisks - turn ? data + 2 : data;
    case 1: {
        const std::uint64_t role = turn == lastDisk ? data + 1 : data;
        return role >= turn ? role + 2 : role;
    }
    case 2:
        return divide(lastDisk * turn + data, disks).remainder;
    case 3:
        return divide(data + turn * disksPlusOne + 2, disks).remainder;
    default:
        return std::nullopt;
    }
}

#endif
