// The library as the provider meets it: the file with its entry points, what it refuses, and how it
// treats the host's callbacks.
#include "Image.h"

#include <gtest/gtest.h>

namespace {

constexpr std::size_t INCOMPAT_OFFSET = 1024 + 0x60;

TEST(LibraryTest, ExportsItsFourEntryPointsOnly) {
    EXPECT_EQ(outputOf("nm -D --defined-only " LIBFSO_PATH " | sed 's/.* //;s/@.*//' | sort"),
              "closeFileSystemObject\nlibFini\nlibInit\nopenFileSystemObject\n");
    const fso_info* info = libInit("/some/where/");
    EXPECT_STREQ(info->name, "ext2/ext3/ext4");
    EXPECT_EQ(info->next, nullptr);
    libFini(info);
}

TEST(LibraryTest, BadArgumentsAreRefused) {
    const auto fail = [](void*, unsigned long, unsigned long, char*) { return false; };
    IFileSystemObjectV1* none = nullptr;
    Host host(Image("-t ext4 -b 1024"));
    IFileSystemObjectV1& object = *host.object;
    std::uint32_t count = 0;
    fso_extent extent;
    fso_dir_request request{};
    for (const std::uint32_t status :
         {openFileSystemObject(nullptr, 512, fail, nullptr, nullptr, nullptr),
          openFileSystemObject(&none, 512, nullptr, nullptr, nullptr, nullptr),
          openFileSystemObject(&none, 520, fail, nullptr, nullptr, nullptr),
          closeFileSystemObject(&none), object.rootIndex(nullptr), object.statFs(nullptr),
          object.openFile(2, nullptr, &count), object.readDir(2, nullptr, &count),
          object.readDir(2, &request, &count), object.getExtents(2, 0, nullptr, 1, &count),
          object.getExtents(2, 0, &extent, 0, &count), object.getMetadata(2, nullptr)}) {
        EXPECT_EQ(status, FSO_INVALID);
    }
}

TEST(LibraryTest, FeaturesThatCannotBeReadAreNamed) {
    std::string bytes = Image("-t ext4 -b 1024").bytes();
    bytes[INCOMPAT_OFFSET] = static_cast<char>(bytes[INCOMPAT_OFFSET] | 0x1);
    bytes[INCOMPAT_OFFSET + 3] = 0x40;
    const Host host(bytes);
    EXPECT_FALSE(host.recognised);
    EXPECT_TRUE(host.logged("feature compression cannot be read"));
    EXPECT_TRUE(host.logged("feature FEATURE_I30 cannot be read"));
    std::uint64_t root = 0;
    EXPECT_EQ(host.object->rootIndex(&root), FSO_NOT_INITIALISED);
    const Host foreign(std::string(2048, 'x'));
    EXPECT_FALSE(foreign.recognised);
    EXPECT_TRUE(foreign.log.empty());
}

TEST(LibraryTest, LargeSectorsAndTheLastBytesOfTheVolume) {
    // No whole window at the end.
    const Image image("-t ext2 -b 1024", "true", "3001K");
    Host host(image.bytes() + std::string(3 * 1024, '\0'), 4096);
    EXPECT_EQ(host.list(ROOT).size(), 1U);
    const Host unknown(image.bytes(), 0); // a host that was never told the sector size
    EXPECT_TRUE(unknown.recognised);
}

} // namespace
