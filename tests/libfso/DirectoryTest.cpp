// Listings: no entry lost or doubled, whatever the directory's form and the buffer's size.
#include "Image.h"

#include <cstring>
#include <gtest/gtest.h>
#include <set>

namespace {

std::set<std::string> namesOf(const std::vector<Entry>& entries) {
    std::set<std::string> names;
    for (const Entry& entry : entries) {
        EXPECT_TRUE(names.insert(entry.name).second) << entry.name;
        EXPECT_NE(entry.next, 0U);
    }
    return names;
}

// One entry as it lies in a directory.
std::string rawEntry(std::uint64_t index, const std::string& name, std::size_t length) {
    std::string entry(length, '\0');
    const auto inode = static_cast<std::uint32_t>(index);
    std::memcpy(entry.data(), &inode, 4);
    std::memcpy(entry.data() + 4, &length, 2);
    entry[6] = static_cast<char>(name.size());
    entry[7] = 1; // a regular file
    entry.replace(8, name.size(), name);
    return entry;
}

// Turns a file with the given bytes into a directory, which is quicker than to make its entries.
void makeFolder(const Image& image, const std::string& name, const std::string& content) {
    const TemporaryFolder folder;
    writeFile(folder / name, content);
    image.change("write " + (folder / name) + " " + name + "\nsif " + name + " mode 040755");
}

TEST(DirectoryTest, TwentyThousandEntriesPlainAndHashed) {
    constexpr std::size_t blockSize = 1024;
    constexpr std::size_t perBlock = 20;
    const Image image = Image::withFile("-t ext4 -b 1024 -O ^metadata_csum", "16M", "x");
    const std::uint64_t file = Host(image).find("/file");
    std::string content = rawEntry(2, ".", 12) + rawEntry(2, "..", blockSize - 12);
    std::set<std::string> names;
    for (unsigned i = 0; i < 20000; ++i) {
        const std::string name = "an entry with number " + std::to_string(i);
        const std::size_t length = blockSize / perBlock / 4 * 4;
        const bool isLast = i % perBlock == perBlock - 1;
        content += rawEntry(file, name, isLast ? blockSize - (perBlock - 1) * length : length);
        names.insert(name);
    }
    makeFolder(image, "many", content);
    for (const bool hashed : {false, true}) {
        if (hashed) {
            outputOf("e2fsck -fyD '" + image.path() + "' >/dev/null 2>&1; test $? -le 1");
        }
        const Host host(image);
        const std::uint64_t many = host.find("/many");
        EXPECT_EQ(image.ask("stat /many").find("Flags: 0x81000") != std::string::npos, hashed);
        EXPECT_TRUE(namesOf(host.list(many)) == names);
        const unsigned before = host.readCount;
        EXPECT_TRUE(namesOf(host.list(many, 64)) == names); // one entry a call
        EXPECT_LT(host.readCount - before, 200U);
        EXPECT_TRUE(host.log.empty());
        EXPECT_EQ(host.keepAliveCount, host.readCount / 16);
    }
}

TEST(DirectoryTest, SmallBuffersOddPositionsAndDeletedEntries) {
    TemporaryFolder source;
    outputOf("cd '" + (source / "") +
             "' && mkdir -p many/folder && ln -s x many/link && : > file && " +
             "for i in 0 1 2 3; do : > \"many/an entry with number $i\"; done");
    const Image image("-t ext4 -b 1024", "8M", source / "");
    image.change("unlink \"many/an entry with number 1\"\nunlink \"many/an entry with number 3\"");
    const Host host(image);
    const std::uint64_t many = host.find("/many");
    const auto entries = host.list(many);
    EXPECT_EQ(namesOf(entries),
              (std::set<std::string>{"an entry with number 0", "an entry with number 2", "link",
                                     "folder"}));
    for (const Entry& entry : entries) {
        EXPECT_EQ(entry.type, host.open(entry.index).mode & 0xF000);
    }
    std::uint32_t status = FSO_OK;
    EXPECT_LT(host.list(many, 48, &status).size(), 3U); // 32 + a name of 22 bytes and its NUL
    EXPECT_EQ(status, FSO_INVALID);

    std::vector<std::uint64_t> buffer(128);
    fso_dir_request request = {reinterpret_cast<std::uint64_t>(buffer.data()), 1024, 0, 0};
    std::uint32_t count = 0;
    for (const std::uint64_t position : {7ULL, 1023ULL, 1024ULL, 1ULL << 40, ~0ULL}) {
        request.position = position;
        EXPECT_EQ(host.object->readDir(many, &request, &count),
                  position == ~0ULL ? FSO_INVALID : FSO_OK);
    }
    request.position = 0;
    EXPECT_EQ(host.object->readDir(host.find("/file"), &request, &count), FSO_INVALID);
}

TEST(DirectoryTest, InlineDirectoriesInTwoPieces) {
    const Image image("-t ext4 -b 1024 -I 512 -O inline_data", "8M");
    // The parent, 56 bytes of entries, and the rest in an attribute.
    makeFolder(image, "folder",
               std::string("\2\0\0\0", 4) + rawEntry(11, "one", 12) + rawEntry(11, "two", 12) +
                   rawEntry(0, "gone", 12) + rawEntry(11, "three", 20) + rawEntry(11, "four", 12) +
                   rawEntry(11, "five", 88));
    const std::set<std::string> names = {"one", "two", "three", "four", "five"};
    const Host host(image);
    const std::uint64_t folder = host.find("/folder");
    EXPECT_EQ(host.extents(folder).size(), 2U);
    EXPECT_EQ(namesOf(host.list(folder)), names);
    EXPECT_EQ(namesOf(host.list(folder, 40)), names);
    EXPECT_TRUE(host.log.empty());
}

} // namespace
