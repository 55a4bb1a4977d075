// The library as the provider meets it: the file with its entry points, what it refuses, and how it
// treats the host's callbacks.
#include "Image.h"

#include <cstring>
#include <dlfcn.h>
#include <gtest/gtest.h>

namespace {

constexpr std::size_t INCOMPAT_OFFSET = 1024 + 0x60;

TEST(LibraryTest, ExportsItsFourEntryPointsOnly) {
    EXPECT_EQ(outputOf("nm -D --defined-only " LIBFSO_PATH " | sed 's/.* //;s/@.*//' | sort"),
              "closeFileSystemObject\nlibFini\nlibInit\nopenFileSystemObject\n");
    void* library = dlopen(LIBFSO_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    dlclose(library);
    const fso_info* info = libInit("/some/where/");
    ASSERT_NE(info, nullptr);
    EXPECT_STREQ(info->name, "ext2/ext3/ext4");
    EXPECT_EQ(info->next, nullptr);
    libFini(info);
}

TEST(LibraryTest, BadArgumentsAreRefused) {
    const auto fail = [](void*, unsigned long, unsigned long, char*) { return false; };
    IFileSystemObjectV1* object = nullptr;
    EXPECT_EQ(openFileSystemObject(nullptr, 512, fail, nullptr, nullptr, nullptr), FSO_INVALID);
    EXPECT_EQ(openFileSystemObject(&object, 512, nullptr, nullptr, nullptr, nullptr), FSO_INVALID);
    EXPECT_EQ(openFileSystemObject(&object, 520, fail, nullptr, nullptr, nullptr), FSO_INVALID);
    EXPECT_EQ(closeFileSystemObject(&object), FSO_INVALID);

    const Image image("-t ext4 -b 1024", "8M");
    const Host host(image);
    std::uint32_t count = 0;
    fso_extent extent;
    fso_dir_request request{};
    EXPECT_EQ(host.object->rootIndex(nullptr), FSO_INVALID);
    EXPECT_EQ(host.object->statFs(nullptr), FSO_INVALID);
    EXPECT_EQ(host.object->openFile(2, nullptr, &count), FSO_INVALID);
    EXPECT_EQ(host.object->readDir(2, nullptr, &count), FSO_INVALID);
    EXPECT_EQ(host.object->readDir(2, &request, &count), FSO_INVALID);
    EXPECT_EQ(host.object->getExtents(2, 0, nullptr, 1, &count), FSO_INVALID);
    EXPECT_EQ(host.object->getExtents(2, 0, &extent, 0, &count), FSO_INVALID);
    EXPECT_EQ(host.object->getMetadata(2, nullptr), FSO_INVALID);
}

TEST(LibraryTest, FeaturesThatCannotBeReadAreNamed) {
    const Image image("-t ext4 -b 1024", "8M");
    std::string bytes = image.bytes();
    const char before = bytes[INCOMPAT_OFFSET];
    bytes[INCOMPAT_OFFSET] = static_cast<char>(before | 0x1);
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

TEST(LibraryTest, AWaitingJournalIsReportedAndTheVolumeServed) {
    const Image image("-t ext4 -b 1024", "8M");
    image.change("feature needs_recovery\nssv state 2");
    const Host host(image);
    ASSERT_TRUE(host.recognised);
    EXPECT_TRUE(host.logged("served as it lies"));
    EXPECT_EQ(host.log[0].back(), '\n');
    fso_fs_record fs;
    ASSERT_EQ(host.object->statFs(&fs), FSO_OK);
    EXPECT_EQ(fs.state, FSO_FS_NEEDS_RECOVERY | FSO_FS_HAS_ERRORS);
    EXPECT_EQ(host.list(2).size(), 1U);
}

TEST(LibraryTest, LargeSectorsAndTheLastBytesOfTheVolume) {
    // No whole window at the end.
    const Image image = Image::withFile("-t ext2 -b 1024", "3001K", pattern(20000));
    const Host host(image.bytes() + std::string(3 * 1024, '\0'), 4096);
    ASSERT_TRUE(host.recognised);
    EXPECT_TRUE(host.content(host.find("/file")) == pattern(20000));
    const Host unknown(image.bytes(), 0); // a host that was never told the sector size
    EXPECT_TRUE(unknown.recognised);
}

} // namespace
