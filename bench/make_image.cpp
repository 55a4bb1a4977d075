// Adds what a benchmark needs to an ext4 image that mke2fs has made, straight through libext2fs,
// because a million files take seconds this way and most of an hour through a mounted volume.
//
//     make_image tree IMAGE DIRECTORIES FILES    /tree: so many files a directory, 0 to 5 extents
//                                                each, their data not written
//     make_image flat IMAGE ENTRIES              /flat: a directory of empty files
//     make_image fragments IMAGE MIB COUNT       /fragmented: one file of that size, its fragments
//                                                scattered over the volume
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ext2fs/ext2fs.h>
#include <functional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr std::uint32_t CREATION_TIME = 1'700'000'000;

void require(errcode_t error, const char* what) {
    if (error != 0) {
        std::fprintf(stderr, "make_image: %s: error %ld\n", what, error);
        std::exit(1);
    }
}

struct Entry {
    ext2_ino_t number;
    int type;
    std::string name;
};

class Image {
  public:
    explicit Image(const char* path) {
        require(ext2fs_open(path, EXT2_FLAG_RW | EXT2_FLAG_64BITS, 0, 0, unix_io_manager, &m_fs),
                path);
        require(ext2fs_read_bitmaps(m_fs), "the bitmaps");
    }
    ~Image() { require(ext2fs_close_free(&m_fs), "the image cannot be written"); }
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;

    std::uint32_t blockSize() const { return m_fs->blocksize; }

    ext2_ino_t addInode(std::uint16_t mode, std::uint16_t links) {
        ext2_ino_t number = 0;
        require(ext2fs_new_inode(m_fs, m_lastInode, mode, nullptr, &number), "no inode is free");
        ext2fs_inode_alloc_stats2(m_fs, number, 1, LINUX_S_ISDIR(mode));
        ext2_inode inode = {};
        inode.i_mode = mode;
        inode.i_links_count = links;
        inode.i_atime = inode.i_mtime = inode.i_ctime = CREATION_TIME;
        inode.i_flags = EXT4_EXTENTS_FL;
        ext2_extent_handle_t handle = nullptr; // makes the root of an empty tree
        require(ext2fs_extent_open2(m_fs, number, &inode, &handle), "an extent tree");
        ext2fs_extent_free(handle);
        require(ext2fs_write_new_inode(m_fs, number, &inode), "an inode");
        m_lastInode = number;
        return number;
    }

    // Takes `count` blocks in a row, none of them before `goal`.
    blk64_t allocate(blk64_t goal, unsigned count) {
        blk64_t first = 0;
        require(ext2fs_get_free_blocks2(m_fs, goal, 0, static_cast<int>(count), nullptr, &first),
                "no blocks are free");
        ext2fs_block_alloc_stats_range(m_fs, first, count, 1);
        return first;
    }
    // Behind the last ones, one block left free between them.
    blk64_t allocateNext(unsigned count) {
        const blk64_t first = allocate(m_nextBlock, count);
        m_nextBlock = first + count + 1;
        return first;
    }

    // Gives an empty file its extents, in file order, and its size in bytes.
    void map(ext2_ino_t number, const std::vector<ext2fs_extent>& extents, std::uint64_t size) {
        ext2_extent_handle_t handle = nullptr;
        require(ext2fs_extent_open(m_fs, number, &handle), "an extent tree");
        std::uint64_t blocks = 0;
        for (const ext2fs_extent& extent : extents) {
            ext2fs_extent copy = extent;
            require(ext2fs_extent_insert(handle, EXT2_EXTENT_INSERT_AFTER, &copy), "an extent");
            blocks += extent.e_len;
        }
        if (!extents.empty()) {
            require(ext2fs_extent_fix_parents(handle), "an extent tree");
        }
        ext2fs_extent_free(handle);
        ext2_inode inode;
        require(ext2fs_read_inode(m_fs, number, &inode), "an inode");
        ext2fs_iblk_add_blocks(m_fs, &inode, blocks);
        require(ext2fs_inode_size_set(m_fs, &inode, static_cast<ext2_off64_t>(size)), "a size");
        require(ext2fs_write_inode(m_fs, number, &inode), "an inode");
    }

    void writeBlocks(blk64_t first, int count, const char* bytes) {
        require(io_channel_write_blk64(m_fs->io, first, count, bytes), "data");
    }

    // Fills a new directory; the entries are laid out in their order.
    void fillDirectory(ext2_ino_t number, ext2_ino_t parent, std::vector<Entry> entries) {
        entries.insert(entries.begin(), {{number, EXT2_FT_DIR, "."}, {parent, EXT2_FT_DIR, ".."}});
        std::vector<ext2fs_extent> extents;
        std::uint32_t count = 0;
        for (auto next = entries.cbegin(); next != entries.cend(); ++count) {
            const std::vector<char> block = directoryBlock(next, entries.cend());
            const blk64_t place = allocate(m_nextBlock, 1);
            m_nextBlock = place + 1;
            require(
                ext2fs_write_dir_block4(m_fs, place, const_cast<char*>(block.data()), 0, number),
                "a directory");
            append(extents, place, count);
        }
        map(number, extents, std::uint64_t{count} * blockSize());
    }

    void linkIntoRoot(const char* name, ext2_ino_t number, bool isDirectory) {
        require(ext2fs_link(m_fs, EXT2_ROOT_INO, name, number,
                            isDirectory ? EXT2_FT_DIR : EXT2_FT_REG_FILE),
                name);
        if (isDirectory) {
            ext2_inode root;
            require(ext2fs_read_inode(m_fs, EXT2_ROOT_INO, &root), "the root");
            ++root.i_links_count;
            require(ext2fs_write_inode(m_fs, EXT2_ROOT_INO, &root), "the root");
        }
    }

    static void append(std::vector<ext2fs_extent>& extents, blk64_t place, std::uint32_t logical,
                       std::uint32_t count = 1) {
        constexpr std::uint32_t LONGEST = 32768;
        if (!extents.empty() && extents.back().e_pblk + extents.back().e_len == place &&
            extents.back().e_lblk + extents.back().e_len == logical &&
            extents.back().e_len + count <= LONGEST) {
            extents.back().e_len += count;
            return;
        }
        extents.push_back({place, logical, count, 0});
    }

  private:
    static std::size_t recordLength(const Entry& entry) {
        return EXT2_DIR_REC_LEN(static_cast<__u8>(entry.name.size()));
    }

    // Takes as many entries as one block holds.
    std::vector<char> directoryBlock(std::vector<Entry>::const_iterator& next,
                                     std::vector<Entry>::const_iterator end) const {
        const bool hasChecksum = ext2fs_has_feature_metadata_csum(m_fs->super) != 0;
        const std::size_t room = blockSize() - (hasChecksum ? sizeof(ext2_dir_entry_tail) : 0);
        std::vector<char> block(blockSize());
        ext2_dir_entry* last = nullptr;
        std::size_t at = 0;
        for (; next != end && at + recordLength(*next) <= room; ++next) {
            last = reinterpret_cast<ext2_dir_entry*>(block.data() + at);
            last->inode = next->number;
            last->rec_len = static_cast<__u16>(recordLength(*next));
            ext2fs_dirent_set_name_len(last, static_cast<int>(next->name.size()));
            ext2fs_dirent_set_file_type(last, next->type);
            next->name.copy(last->name, next->name.size());
            at += last->rec_len;
        }
        const std::size_t left = room - at;
        require(ext2fs_set_rec_len(m_fs, static_cast<unsigned>(last->rec_len + left), last),
                "a directory entry");
        if (hasChecksum) {
            ext2fs_initialize_dirent_tail(
                m_fs, reinterpret_cast<ext2_dir_entry_tail*>(block.data() + room));
        }
        return block;
    }

    ext2_filsys m_fs = nullptr;
    ext2_ino_t m_lastInode = EXT2_ROOT_INO;
    blk64_t m_nextBlock = 0;
};

// Most files in a volume are small and whole, a few are not.
std::vector<ext2fs_extent> scatter(Image& image, unsigned number) {
    const unsigned count = number % 10 == 0 ? 0 : number % 10 < 8 ? 1 : 2 + number % 4;
    std::vector<ext2fs_extent> extents;
    std::uint32_t logical = 0;
    for (unsigned i = 0; i < count; ++i) {
        const unsigned length = 1 + (number / 10 + i) % 4;
        Image::append(extents, image.allocateNext(length), logical, length);
        logical += length;
    }
    return extents;
}

Entry addFile(Image& image, unsigned number) {
    const ext2_ino_t inode = image.addInode(LINUX_S_IFREG | 0644, 1);
    const std::vector<ext2fs_extent> extents = scatter(image, number);
    if (!extents.empty()) {
        const std::uint64_t blocks = extents.back().e_lblk + extents.back().e_len;
        image.map(inode, extents, blocks * image.blockSize() - number % image.blockSize());
    }
    return {inode, EXT2_FT_REG_FILE, "document-" + std::to_string(number) + ".txt"};
}

void makeTree(Image& image, unsigned directories, unsigned filesEach) {
    const auto top =
        image.addInode(LINUX_S_IFDIR | 0755, static_cast<std::uint16_t>(2 + directories));
    std::vector<Entry> folders;
    for (unsigned i = 0; i < directories; ++i) {
        const ext2_ino_t folder = image.addInode(LINUX_S_IFDIR | 0755, 2);
        std::vector<Entry> files;
        for (unsigned j = 0; j < filesEach; ++j) {
            files.push_back(addFile(image, i * filesEach + j));
        }
        image.fillDirectory(folder, top, files);
        folders.push_back({folder, EXT2_FT_DIR, "folder-" + std::to_string(i)});
    }
    image.fillDirectory(top, EXT2_ROOT_INO, folders);
    image.linkIntoRoot("tree", top, true);
}

void makeFlat(Image& image, unsigned count) {
    const ext2_ino_t directory = image.addInode(LINUX_S_IFDIR | 0755, 2);
    std::vector<Entry> entries;
    for (unsigned i = 0; i < count; ++i) {
        entries.push_back({image.addInode(LINUX_S_IFREG | 0644, 1), EXT2_FT_REG_FILE,
                           "entry-" + std::to_string(i)});
    }
    image.fillDirectory(directory, EXT2_ROOT_INO, entries);
    image.linkIntoRoot("flat", directory, true);
}

void makeFragments(Image& image, unsigned mebibytes, unsigned count) {
    const std::uint64_t size = std::uint64_t{mebibytes} << 20;
    const auto blocks = static_cast<unsigned>(size / image.blockSize());
    std::mt19937 random(1);
    std::vector<blk64_t> places;
    std::vector<unsigned> lengths;
    for (unsigned i = 0; i < count; ++i) {
        lengths.push_back(blocks / count + (i < blocks % count ? 1 : 0));
        places.push_back(image.allocateNext(blocks / count + 1));
    }
    std::shuffle(places.begin(), places.end(), random);
    std::vector<ext2fs_extent> extents;
    std::vector<std::uint32_t> data;
    std::uint32_t logical = 0;
    for (unsigned i = 0; i < count; ++i) {
        data.resize(std::size_t{lengths[i]} * image.blockSize() / sizeof data[0]);
        std::generate(data.begin(), data.end(), std::ref(random));
        image.writeBlocks(places[i], static_cast<int>(lengths[i]),
                          reinterpret_cast<const char*>(data.data()));
        Image::append(extents, places[i], logical, lengths[i]);
        logical += lengths[i];
    }
    const ext2_ino_t file = image.addInode(LINUX_S_IFREG | 0644, 1);
    image.map(file, extents, size);
    image.linkIntoRoot("fragmented", file, false);
}

} // namespace

int main(int argc, char** argv) {
    const std::string_view what = argc > 1 ? argv[1] : "";
    const auto number = [&](int at) { return static_cast<unsigned>(std::atoi(argv[at])); };
    if (what == "tree" && argc == 5) {
        Image image(argv[2]);
        makeTree(image, number(3), number(4));
    } else if (what == "flat" && argc == 4) {
        Image image(argv[2]);
        makeFlat(image, number(3));
    } else if (what == "fragments" && argc == 5) {
        Image image(argv[2]);
        makeFragments(image, number(3), number(4));
    } else {
        std::fprintf(stderr, "usage: make_image tree IMAGE DIRECTORIES FILES\n"
                             "       make_image flat IMAGE ENTRIES\n"
                             "       make_image fragments IMAGE MIB COUNT\n");
        return 2;
    }
    return 0;
}
