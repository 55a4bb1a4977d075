// The runs of files: all their bytes in the fewest runs, however they are asked for.
#include "Image.h"

#include <array>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;

constexpr std::uint64_t BLOCK = 4096;

// Extents fit into the inode, a node below it, two, or two levels.
TEST(ExtentsTest, FragmentsAreListedOnceHoweverTheyAreAskedFor) {
    for (const std::string type : {"ext2", "ext4"}) {
        for (const unsigned pieces : {4U, 5U, 85U, 337U, 5000U}) {
            Host host(Image::withFile("-b 1024 -t " + type, fragments(pieces), "16M"));
            const auto all = host.extents(FILE_INDEX, 20000);
            ASSERT_EQ(all.size(), 2 * pieces);
            for (const std::uint32_t capacity : {1U, 7U, 341U}) {
                EXPECT_TRUE(host.extents(FILE_INDEX, capacity) == all) << capacity;
            }
            EXPECT_LT(host.readCount, 400U); // each node about once a pass, not once a call
            EXPECT_EQ(host.keepAliveCount, host.readCount / 16);

            const std::uint64_t size = 2048 * pieces;
            fso_extent rest;
            std::uint32_t count = 0;
            EXPECT_EQ(host.object->getExtents(FILE_INDEX, size - 924, &rest, 1, &count), FSO_OK);
            EXPECT_EQ(rest, (fso_extent{all.back().offset + 100, 924, FSO_EXTENT_LAST, 0}));
            EXPECT_EQ(host.object->getExtents(FILE_INDEX, size, &rest, 1, &count), FSO_INVALID);
        }
    }
}

// The block of the file, the count (32768 more where unwritten), and the block of the volume.
using RawExtent = std::array<std::uint32_t, 3>;

// The records of a file whose inode is given these extents and this size.
std::vector<fso_extent> extentsOf(const std::vector<RawExtent>& raw, std::uint64_t size) {
    const Image image = Image::withFile("-t ext4 -b 4096 -O ^metadata_csum", "x", "256M");
    image.change("sif file size " + std::to_string(size));
    image.setMapWord(0, static_cast<std::uint32_t>(0xF30A | raw.size() << 16));
    for (std::size_t i = 0; i < 3 * raw.size(); ++i) {
        image.setMapWord(3 + i, raw[i / 3][i % 3]);
    }
    Host host(image);
    const auto extents = host.extents(FILE_INDEX);
    EXPECT_LT(host.readCount, 20U);
    return extents;
}

TEST(ExtentsTest, NeighboursMergeAndUnwrittenRangesStayApart) {
    constexpr std::uint32_t unwritten = 32768;
    EXPECT_THAT(extentsOf({{2, 1, 30000},
                           {3, 2, 30001},
                           {5, unwritten + 2, 30003},
                           {30, unwritten + 4, 31000}}, // behind the end
                          20 * BLOCK - 5),
                ElementsAre(fso_extent{0, 2 * BLOCK, FSO_EXTENT_HOLE, 0},
                            fso_extent{30000 * BLOCK, 3 * BLOCK, 0, 0},
                            fso_extent{30003 * BLOCK, 2 * BLOCK, FSO_EXTENT_UNWRITTEN, 0},
                            fso_extent{0, 23 * BLOCK, FSO_EXTENT_HOLE, 0},
                            fso_extent{31000 * BLOCK, 4 * BLOCK,
                                       FSO_EXTENT_UNWRITTEN | FSO_EXTENT_LAST, 0}));
    // Longer than one extent can be.
    EXPECT_THAT(extentsOf({{0, 32768, 10000}, {32768, 7232, 42768}}, 40000 * BLOCK),
                ElementsAre(fso_extent{10000 * BLOCK, 40000 * BLOCK, FSO_EXTENT_LAST, 0}));
}

TEST(ExtentsTest, HugeHolesTakeNoTime) {
    constexpr std::uint64_t tebibyte = std::uint64_t{1} << 40;
    EXPECT_THAT(extentsOf({{1, 1, 9000}, {0xfffffff0, 1, 9001}}, 16 * tebibyte - BLOCK),
                ElementsAre(fso_extent{0, BLOCK, FSO_EXTENT_HOLE, 0},
                            fso_extent{9000 * BLOCK, BLOCK, 0, 0},
                            fso_extent{0, 0xffffffee * BLOCK, FSO_EXTENT_HOLE, 0},
                            fso_extent{9001 * BLOCK, BLOCK, 0, 0},
                            fso_extent{0, 14 * BLOCK, FSO_EXTENT_HOLE | FSO_EXTENT_LAST, 0}));

    const Image pointers = Image::withFile("-t ext2 -b 4096", "x", "64M");
    pointers.change("sif file size 0x3FFFFFFF000");
    Host host(pointers);
    const auto runs = host.extents(FILE_INDEX);
    ASSERT_EQ(runs.size(), 2U);
    EXPECT_EQ(runs[1], (fso_extent{0, 0x3FFFFFFE000, FSO_EXTENT_HOLE | FSO_EXTENT_LAST, 0}));
    EXPECT_LT(host.readCount, 30U);
}

TEST(ExtentsTest, InlineBytesAreExactPieces) {
    Host host(
        Image::withFile("-t ext4 -b 4096 -I 256 -O inline_data", std::string(100, 'i'), "16M"));
    const auto flags = [](unsigned length, unsigned other = 0) {
        return FSO_EXTENT_INLINE | length << FSO_EXTENT_INLINE_LENGTH_SHIFT | other;
    };
    const auto pieces = host.extents(FILE_INDEX);
    ASSERT_EQ(pieces.size(), 2U);
    EXPECT_EQ(pieces[0], (fso_extent{pieces[0].offset, 60, flags(60), 0}));
    EXPECT_EQ(pieces[1], (fso_extent{pieces[1].offset, 40, flags(40, FSO_EXTENT_LAST), 0}));
    fso_extent rest;
    std::uint32_t count = 0;
    EXPECT_EQ(host.object->getExtents(FILE_INDEX, 70, &rest, 1, &count), FSO_OK);
    EXPECT_EQ(rest, (fso_extent{pieces[1].offset + 10, 30, flags(30, FSO_EXTENT_LAST), 0}));
    EXPECT_EQ(host.object->getExtents(FILE_INDEX, 100, &rest, 1, &count), FSO_INVALID);
}

} // namespace
