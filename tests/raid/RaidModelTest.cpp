// RvpRaid against a plain model that lays an array's chunks out row by row, as md describes its
// layouts: parity first, data into the places that are left.
#include "RaidTesting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace {

std::uint64_t startOf(const RvpDisk& disk) {
    return disk.partitions.front().startSector;
}

struct Array {
    bool isStriped() const { return values.level == 0 || values.level == 10; }

    // The members that hold data in a row of chunks, one on each, in the order of the array.
    std::vector<std::size_t> dataRoles(std::uint64_t row) const {
        return isStriped() ? stripedRoles(row) : parityRoles(row);
    }

    // Those that reach that far; at level 10, of the first of each pair.
    std::vector<std::size_t> stripedRoles(std::uint64_t row) const {
        std::vector<std::size_t> roles;
        for (std::size_t role = 0; role < disks.size(); role += values.level == 10 ? 2 : 1) {
            if (disks[role].partitions.front().sectorCount >= (row + 1) * values.chunkSectors) {
                roles.push_back(role);
            }
        }
        return roles;
    }

    std::vector<std::size_t> parityRoles(std::uint64_t row) const {
        const std::size_t n = disks.size();
        const bool right = values.layout % 2 == 1;
        const bool symmetric = values.layout >= 2;
        const std::size_t turn = row % n;
        std::size_t parity = right ? turn : n - 1 - turn;
        if (values.level == 4) {
            parity = n - 1;
        } else if (values.level == 6 && right) {
            parity = (turn + n - 1) % n; // one beside the kernel's place, as hosts know it
        }
        const std::size_t last = values.level == 6 ? (parity + 1) % n : parity;
        const std::size_t first = symmetric && values.level != 4 ? last + 1 : 0;
        std::vector<std::size_t> roles;
        for (std::size_t role = first; role < first + n; ++role) {
            if (role % n != parity && role % n != last) {
                roles.push_back(role % n);
            }
        }
        return roles;
    }

    SuperblockValues values;
    std::vector<RvpDisk> disks; // by role
};

Array randomArray(std::mt19937_64& random, std::uint32_t level, std::uint32_t layout) {
    const auto below = [&](std::uint64_t end) {
        return static_cast<std::uint32_t>(random() % end);
    };
    const std::uint32_t count = level == 10 ? 4 + 2 * below(4) : 3 + below(9);
    const std::uint32_t chunk = below(2) == 0 ? 1U << below(12) : 1 + below(300);
    Array array{{level, layout, count, chunk}, {}};
    array.values.isV1 = below(2) == 0;
    const std::uint32_t lengths = 2 + below(4); // how many different ones
    for (std::uint32_t i = 0; i < count; ++i) {
        array.disks.push_back(makeDisk("disk" + std::to_string(i * 7 % 13), random() >> 24,
                                       chunk * 15 * below(lengths) + below(chunk)));
    }
    return array;
}

TEST(RaidModel, EveryChunkLiesWhereMdPutsIt) {
    constexpr std::uint32_t LEVELS[] = {0, 4, 5, 6, 10};
    constexpr std::uint64_t ROWS = 64; // more than a member holds, and than parity takes to turn
    std::mt19937_64 random(20240229);
    for (std::uint32_t round = 0; round < 30 * 5 * 4; ++round) {
        const Array array = randomArray(random, LEVELS[round % 5], round / 5 % 4);
        RvpRaid raid;
        addMembers(raid, array.values, array.disks);
        // Stripes end with their members; parity is laid out to any height.
        const std::uint64_t firstRow = array.isStriped() || random() % 2 == 0 ? 0 : random() >> 26;
        std::uint64_t chunk = firstRow * array.dataRoles(firstRow).size();
        for (std::uint64_t row = firstRow; row < firstRow + ROWS; ++row) {
            for (const std::size_t role : array.dataRoles(row)) {
                const std::uint64_t size = array.values.chunkSectors;
                const std::uint64_t inChunk = random() % size;
                const std::uint64_t length = random() % (2 * size * 512);
                const std::uint64_t address = (chunk * size + inChunk) * 512 + random() % 512;
                const RvpDisk& expected = array.disks[role];
                ASSERT_EQ(mapAddress(raid, {expected.name, startOf(expected)}, address, length),
                          (Mapped{(row * size + inChunk) * 512,
                                  std::min(length / 512, size - inChunk) * 512, expected.name,
                                  startOf(expected)}))
                    << "level " << array.values.level << ", layout " << array.values.layout << ", "
                    << array.disks.size() << " members, chunk " << chunk;
                ++chunk;
            }
        }
    }
}

} // namespace
