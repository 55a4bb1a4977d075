// A host in its smallest form: claims a volume image and prints the byte runs of one file.
//   host ROOT IMAGE INDEX
// ROOT is where dorado is installed, INDEX the file's index (on ext, its inode number).
#include "fso/IFileSystemObjectV1.h"
#include "kmp/rvp_map.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

// The provider reads the volume through this alone.
bool readImage(void* context, unsigned long offset, unsigned long length, char* buffer) {
    const int image = *static_cast<const int*>(context);
    return pread(image, buffer, length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length);
}

void printError(kmp_ehandler*, const char* english, const char*, int) {
    std::fprintf(stderr, "provider: %s\n", english);
}

void printRuns(RvpInstance* provider, kmp_obj* file) {
    auto* unused = reinterpret_cast<kmp_mapdomain_node*>(provider);
    unsigned long offset = 0;
    kmp_extent run = {};
    while ((run.flags & FSO_EXTENT_LAST) == 0) {
        int count = 0;
        int done = 0;
        if (rvp_map_get_extent(provider, file, offset, &run, 1, &count, &done, unused) != 0) {
            return;
        }
        std::printf("%12lu %12lu %10lu %#x\n", offset, run.offset, run.length, run.flags);
        offset += (run.flags & FSO_EXTENT_INLINE) != 0 ? run.flags >> FSO_EXTENT_INLINE_LENGTH_SHIFT
                                                       : run.length;
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        return 2;
    }
    km_root = argv[1];
    int image = open(argv[2], O_RDONLY);
    kmp_ehandler errors = {printError};
    RvpInstance* provider = nullptr;
    int version = 0;
    if (image < 0 || rvp_map_init(&provider, &errors, &version) != 0) {
        return 3;
    }
    rvp_map_set_logical_sector_size(provider, 512);
    rvp_map_set_volume_read_callback(provider, readImage, &image);

    int status = 1;
    if (rvp_map_claim_volume(provider, argv[2]) != KM_CLAIM_NONE) {
        struct km_objid* id = km_objid(argv[2], static_cast<int>(std::strlen(argv[2]) + 1), 3);
        kmp_obj* volume = nullptr;
        kmp_obj* file = nullptr;
        int flags = 0;
        rvp_map_open_id(provider, id, nullptr, &volume, KMP_OPEN_READ, &flags, nullptr);
        if (volume != nullptr &&
            rvp_map_open_file_index(provider, volume, std::strtoul(argv[3], nullptr, 0), &file,
                                    KMP_OPEN_READ, &flags, nullptr) == 0) {
            std::printf("%12s %12s %10s %s\n", "file offset", "on volume", "length", "flags");
            printRuns(provider, file);
            rvp_map_close(provider, file);
            status = 0;
        }
        if (volume != nullptr) {
            rvp_map_close(provider, volume);
        }
        km_free_objid(id);
    }
    rvp_map_fini(provider);
    close(image);
    return status;
}
