// Listings: no entry lost or doubled, whatever the directory's form and the buffer's size.
#include "Image.h"

#include <gtest/gtest.h>
#include <set>

namespace {

std::set<std::string> namesOf(const std::vector<Entry>& entries) {
    std::set<std::string> names;
    for (const Entry& entry : entries) {
        EXPECT_TRUE(names.insert(entry.name).second) << entry.name;
    }
    return names;
}

TEST(DirectoryTest, SmallBuffersOddPositionsAndDeletedEntries) {
    const Image image("-t ext4 -b 1024",
                      "mkdir -p many/folder && ln -s x many/link && "
                      "for i in 0 1 2 3; do : > \"many/an entry with number $i\"; done");
    image.change("unlink \"many/an entry with number 1\"\nunlink \"many/an entry with number 3\"");
    Host host(image);
    const auto entries = host.list(FILE_INDEX);
    EXPECT_EQ(namesOf(entries),
              (std::set<std::string>{"an entry with number 0", "an entry with number 2", "link",
                                     "folder"}));
    for (const Entry& entry : entries) {
        EXPECT_EQ(entry.type, host.open(entry.index).mode & 0xF000);
        host.list(entry.index);
        EXPECT_EQ(host.status, entry.type == 0x4000 ? FSO_OK : FSO_INVALID);
    }
    EXPECT_LT(host.list(FILE_INDEX, 48).size(), 3U); // 32 + a name of 22 bytes and its NUL
    EXPECT_EQ(host.status, FSO_INVALID);

    for (const std::uint64_t position : {7ULL, 1023ULL, 1024ULL, 1ULL << 40, ~0ULL}) {
        host.list(FILE_INDEX, 1024, position);
        EXPECT_EQ(host.status, position == ~0ULL ? FSO_INVALID : FSO_OK);
    }
}

// One entry as it lies in a directory.
std::string rawEntry(char inode, const std::string& name, char length) {
    std::string entry = {inode, 0, 0, 0, length, 0, static_cast<char>(name.size()), 1};
    entry += name;
    entry.resize(static_cast<unsigned char>(length));
    return entry;
}

TEST(DirectoryTest, InlineDirectoriesInTwoPieces) {
    // The parent, 56 bytes of entries, and the rest in an attribute.
    const Image image = Image::withFile("-t ext4 -b 1024 -I 512 -O inline_data",
                                        std::string("\2\0\0\0", 4) + rawEntry(11, "one", 12) +
                                            rawEntry(11, "two", 12) + rawEntry(0, "gone", 12) +
                                            rawEntry(11, "three", 20) + rawEntry(11, "four", 12) +
                                            rawEntry(11, "five", 88));
    image.change("sif file mode 040755");
    const std::set<std::string> names = {"one", "two", "three", "four", "five"};
    Host host(image);
    EXPECT_EQ(host.extents(FILE_INDEX).size(), 2U);
    EXPECT_EQ(namesOf(host.list(FILE_INDEX)), names);
    EXPECT_EQ(namesOf(host.list(FILE_INDEX, 40)), names);
    EXPECT_TRUE(host.log.empty());
}

} // namespace
