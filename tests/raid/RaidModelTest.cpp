// RvpRaid against a plain model that lays an array's chunks out one after another, as md describes
// its layouts: parity first, data into the places that are left.
#include "RaidTesting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>

namespace {

struct Member {
    std::string name;
    std::uint64_t start; // sectors
    std::uint64_t sectors;
};

struct Array {
    std::uint32_t level;
    std::uint32_t layout;
    std::uint32_t chunkSectors;
    std::vector<Member> members; // by role
};

// Where a chunk of the array lies.
struct Place {
    std::size_t role;
    std::uint64_t chunk; // of the member
};

// The roles of a stripe's data chunks, in their order.
std::vector<std::size_t> parityStripe(const Array& array, std::uint64_t stripe) {
    const std::size_t n = array.members.size();
    const bool right = array.layout % 2 == 1;
    const bool symmetric = array.layout >= 2;
    const std::size_t turn = stripe % n;

    std::size_t parity = right ? turn : n - 1 - turn;
    if (array.level == 4) {
        parity = n - 1;
    } else if (array.level == 6 && right) {
        parity = (turn + n - 1) % n; // one beside the kernel's place, as hosts know it
    }
    const std::size_t last = array.level == 6 ? (parity + 1) % n : parity;

    std::vector<std::size_t> roles(n);
    std::iota(roles.begin(), roles.end(), 0);
    if (symmetric && array.level != 4) {
        std::rotate(roles.begin(), roles.begin() + static_cast<std::ptrdiff_t>((last + 1) % n),
                    roles.end());
    }
    std::erase_if(roles, [&](std::size_t role) { return role == parity || role == last; });
    return roles;
}

Place parityPlace(const Array& array, std::uint64_t chunk) {
    const std::size_t dataDisks = array.members.size() - (array.level == 6 ? 2 : 1);
    const std::uint64_t stripe = chunk / dataDisks;
    return {parityStripe(array, stripe)[chunk % dataDisks], stripe};
}

// All chunks of a striped array: row by row, over the members that reach that far.
std::vector<Place> stripedPlaces(const Array& array) {
    const std::size_t stride = array.level == 10 ? 2 : 1;
    std::vector<Place> places;
    for (std::uint64_t row = 0;; ++row) {
        const std::size_t before = places.size();
        for (std::size_t role = 0; role < array.members.size(); role += stride) {
            if ((row + 1) * array.chunkSectors <= array.members[role].sectors) {
                places.push_back({role, row});
            }
        }
        if (places.size() == before) {
            return places;
        }
    }
}

class RandomArrays {
  public:
    explicit RandomArrays(unsigned seed) : m_random(seed) {}

    std::uint64_t between(std::uint64_t low, std::uint64_t high) {
        return std::uniform_int_distribution<std::uint64_t>(low, high)(m_random);
    }

    Array array(std::uint32_t level, std::uint32_t layout) {
        Array array{level, layout, static_cast<std::uint32_t>(between(1, 300)), {}};
        if (between(0, 1) == 0) {
            array.chunkSectors = 1U << between(0, 11);
        }
        std::uint64_t count = between(level == 6 ? 3 : 2, 11);
        if (level == 10) {
            count = 2 * between(2, 5);
        }
        const std::uint64_t lengths = between(1, 4); // how many different ones beside none
        for (std::uint64_t i = 0; i < count; ++i) {
            array.members.push_back({"disk" + std::to_string(i * 7 % 13), between(0, 1UL << 40),
                                     array.chunkSectors * 15 * between(0, lengths) +
                                         between(0, array.chunkSectors - 1)});
        }
        return array;
    }

    // Shows the members to `raid` in any order, with superblocks of either version.
    void assemble(RvpRaid& raid, const Array& array) {
        std::vector<std::size_t> order(array.members.size());
        std::iota(order.begin(), order.end(), 0);
        std::shuffle(order.begin(), order.end(), m_random);
        const bool v090 = between(0, 1) == 0;
        for (const std::size_t role : order) {
            const Member& member = array.members[role];
            RvpDisk disk = makeDisk(member.name, member.start, member.sectors);
            const SuperblockValues values{.level = array.level,
                                          .layout = array.layout,
                                          .disks = static_cast<std::uint32_t>(order.size()),
                                          .chunkSectors = array.chunkSectors,
                                          .role = static_cast<std::uint32_t>(role)};
            if (v090) {
                raid.addPartitionToVolume(disk, v090Bytes(values).v090());
            } else {
                raid.addPartitionToVolume_v1(disk, v1Bytes(values).v1());
            }
        }
    }

    // Any member tells where the array is.
    RvpVolume volume(const Array& array) {
        const Member& member = array.members[between(0, array.members.size() - 1)];
        return {member.name, member.start};
    }

  private:
    std::mt19937_64 m_random;
};

void expectPlace(RandomArrays& random, RvpRaid& raid, const Array& array, std::uint64_t chunk,
                 Place place) {
    const std::uint64_t inChunk = random.between(0, array.chunkSectors - 1);
    const std::uint64_t length = random.between(0, 2 * array.chunkSectors * 512UL);
    const std::uint64_t address =
        (chunk * array.chunkSectors + inChunk) * 512 + random.between(0, 511);
    const Member& member = array.members[place.role];
    const Mapped expected{(place.chunk * array.chunkSectors + inChunk) * 512,
                          std::min(length / 512, array.chunkSectors - inChunk) * 512, member.name,
                          member.start};
    ASSERT_EQ(mapAddress(raid, random.volume(array), address, length), expected)
        << "level " << array.level << ", layout " << array.layout << ", " << array.members.size()
        << " members, chunks of " << array.chunkSectors << ", chunk " << chunk;
}

TEST(RaidModel, ParityLevels) {
    RandomArrays random(20240229);
    for (int round = 0; round < 60 * 3 * 4 && !HasFatalFailure(); ++round) {
        const auto level = static_cast<std::uint32_t>(4 + round % 3);
        const auto layout = static_cast<std::uint32_t>(round / 3 % 4);
        const Array array = random.array(level, layout);
        RvpRaid raid;
        random.assemble(raid, array);
        // Every chunk of a whole turn of the parity, and some far out.
        const std::size_t turn = array.members.size() * (array.members.size() - 1);
        for (std::uint64_t chunk = 0; chunk < turn && !HasFatalFailure(); ++chunk) {
            expectPlace(random, raid, array, chunk, parityPlace(array, chunk));
            const std::uint64_t far = random.between(0, 1UL << 42);
            expectPlace(random, raid, array, far, parityPlace(array, far));
        }
    }
}

TEST(RaidModel, StripedLevels) {
    RandomArrays random(20240301);
    for (std::uint32_t round = 0; round < 60 * 2; ++round) {
        const Array array = random.array(round % 2 * 10, round);
        RvpRaid raid;
        random.assemble(raid, array);
        const std::vector<Place> places = stripedPlaces(array);
        for (std::uint64_t chunk = 0; chunk < places.size() && !HasFatalFailure(); ++chunk) {
            expectPlace(random, raid, array, chunk, places[chunk]);
        }
    }
}

} // namespace
