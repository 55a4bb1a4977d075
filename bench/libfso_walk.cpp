// How long a walk over a whole ext volume takes through the file-system-object interface, and how
// long a bare program over libext2fs takes for the same: every directory is listed, every inode is
// read, every file's extents are listed.
//
//   libfso_walk IMAGE [ROUNDS]
//
// Prints the median of each over the rounds, which alternate, with what was counted.
#include "fso/IFileSystemObjectV1.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ext2fs/ext2fs.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace {

struct Counts {
    unsigned long inodes = 0;
    unsigned long runs = 0;
    unsigned long bytes = 0;
};

// ---- Through the interface ----------------------------------------------------------------------

bool readImage(void* context, unsigned long offset, unsigned long length, char* buffer) {
    const int file = *static_cast<int*>(context);
    return pread(file, buffer, length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length);
}

int printLine(fs_log_level_t, const char* text) {
    return std::fputs(text, stderr) >= 0;
}

void listDirectory(IFileSystemObjectV1& fs, std::uint64_t index,
                   std::vector<std::uint64_t>& found) {
    std::array<std::uint64_t, 8192> buffer;
    fso_dir_request request = {reinterpret_cast<std::uint64_t>(buffer.data()), sizeof(buffer), 0,
                               0};
    std::uint32_t count = 0;
    while (fs.readDir(index, &request, &count) == FSO_OK && count > 0) {
        const char* at = reinterpret_cast<const char*>(buffer.data());
        fso_dir_entry entry{};
        for (; count > 0; --count, at += entry.recordLength) {
            std::memcpy(&entry, at, sizeof(entry));
            found.push_back(entry.index);
        }
        request.position = entry.next;
    }
}

void countRuns(IFileSystemObjectV1& fs, std::uint64_t index, Counts& counts) {
    std::array<fso_extent, 64> extents;
    std::uint64_t offset = 0;
    std::uint32_t count = 0;
    while (fs.getExtents(index, offset, extents.data(), extents.size(), &count) == FSO_OK) {
        for (std::uint32_t i = 0; i < count; ++i) {
            offset += extents[i].length;
            if ((extents[i].flags & FSO_EXTENT_HOLE) == 0) {
                ++counts.runs;
                counts.bytes += extents[i].length;
            }
        }
        if ((extents[count - 1].flags & FSO_EXTENT_LAST) != 0) {
            break;
        }
    }
}

Counts walkInterface(const char* image) {
    int file = open(image, O_RDONLY);
    IFileSystemObjectV1* fs = nullptr;
    if (file < 0 ||
        openFileSystemObject(&fs, 512, readImage, &file, printLine, nullptr) != FSO_OK ||
        !fs->recognise()) {
        std::fprintf(stderr, "%s: not an ext volume\n", image);
        std::exit(1);
    }
    Counts counts;
    std::vector<std::uint64_t> todo(1);
    fs->rootIndex(todo.data());
    while (!todo.empty()) {
        const std::uint64_t index = todo.back();
        todo.pop_back();
        fso_file_record record;
        std::uint32_t flags = 0;
        if (fs->openFile(index, &record, &flags) == FSO_OK) {
            ++counts.inodes;
            countRuns(*fs, index, counts);
            if ((record.mode & 0xF000) == 0x4000) {
                listDirectory(*fs, index, todo);
            }
        }
        fs->closeFile(index);
    }
    closeFileSystemObject(&fs);
    close(file);
    return counts;
}

// ---- Bare libext2fs -----------------------------------------------------------------------------

int addEntry(ext2_ino_t, int kind, ext2_dir_entry* entry, int, int, char*, void* found) {
    if (kind == DIRENT_OTHER_FILE && entry->inode != 0) {
        static_cast<std::vector<std::uint64_t>*>(found)->push_back(entry->inode);
    }
    return 0;
}

void countExtents(ext2_filsys fs, ext2_ino_t number, ext2_inode& inode, Counts& counts) {
    ext2_extent_handle_t handle = nullptr;
    if ((inode.i_flags & EXT4_EXTENTS_FL) == 0 ||
        ext2fs_extent_open2(fs, number, &inode, &handle) != 0) {
        return;
    }
    ext2fs_extent extent;
    errcode_t error = ext2fs_extent_get(handle, EXT2_EXTENT_ROOT, &extent);
    for (; error == 0; error = ext2fs_extent_get(handle, EXT2_EXTENT_NEXT, &extent)) {
        if ((extent.e_flags & EXT2_EXTENT_FLAGS_LEAF) != 0) {
            ++counts.runs;
            counts.bytes += std::uint64_t{extent.e_len} * fs->blocksize;
        }
    }
    ext2fs_extent_free(handle);
}

Counts walkBare(const char* image) {
    ext2_filsys fs = nullptr;
    if (ext2fs_open(image, EXT2_FLAG_64BITS, 0, 0, unix_io_manager, &fs) != 0) {
        std::fprintf(stderr, "%s: not an ext volume\n", image);
        std::exit(1);
    }
    Counts counts;
    std::vector<std::uint64_t> todo = {EXT2_ROOT_INO};
    while (!todo.empty()) {
        const auto number = static_cast<ext2_ino_t>(todo.back());
        todo.pop_back();
        ext2_inode inode;
        if (ext2fs_read_inode(fs, number, &inode) != 0) {
            continue;
        }
        ++counts.inodes;
        countExtents(fs, number, inode, counts);
        if (LINUX_S_ISDIR(inode.i_mode)) {
            ext2fs_dir_iterate2(fs, number, 0, nullptr, addEntry, &todo);
        }
    }
    ext2fs_close_free(&fs);
    return counts;
}

// ---- The comparison -----------------------------------------------------------------------------

double timed(Counts (*walk)(const char*), const char* image, Counts& counts) {
    const auto begin = std::chrono::steady_clock::now();
    counts = walk(image);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

double median(std::vector<double> values) {
    std::ranges::sort(values);
    return values[values.size() / 2];
}

void print(const char* name, double seconds, const Counts& counts) {
    std::printf("%-12s %8.1f ms  %lu inodes, %lu runs, %lu bytes\n", name, seconds * 1000,
                counts.inodes, counts.runs, counts.bytes);
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: libfso_walk IMAGE [ROUNDS]\n");
        return 2;
    }
    const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 9;
    std::vector<double> interface;
    std::vector<double> bare;
    Counts interfaceCounts;
    Counts bareCounts;
    for (int round = 0; round < rounds; ++round) {
        interface.push_back(timed(walkInterface, argv[1], interfaceCounts));
        bare.push_back(timed(walkBare, argv[1], bareCounts));
    }
    print("interface", median(interface), interfaceCounts);
    print("bare", median(bare), bareCounts);
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("ratio %.2f, peak resident %ld KiB\n", median(interface) / median(bare),
                usage.ru_maxrss);
    return 0;
}
