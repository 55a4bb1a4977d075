// A whole host: prints the byte runs of one file of a volume.
//   host ROOT IMAGE INDEX
// ROOT is where dorado is installed, INDEX the file's index (on ext, its inode number).
#include "fso/IFileSystemObjectV1.h"
#include "kmp/rvp_map.h"
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

static RvpInstance* provider;

// The provider reads the volume through this alone.
static bool readImage(void* image, unsigned long offset, unsigned long length, char* buffer) {
    const ssize_t got =
        pread(*static_cast<int*>(image), buffer, length, static_cast<off_t>(offset));
    return got >= 0 && static_cast<unsigned long>(got) == length;
}

static void check(int code) {
    char* text = nullptr;
    if (code != 0) {
        rvp_map_errmsg(provider, code, &text);
        std::fprintf(stderr, "code %d: %s\n", code, text != nullptr ? text : "");
        std::exit(3);
    }
}

static void printRuns(kmp_obj* file) {
    auto* unused = reinterpret_cast<kmp_mapdomain_node*>(provider);
    kmp_extent run = {};
    for (unsigned long at = 0; (run.flags & FSO_EXTENT_LAST) == 0; at += run.length) {
        int count = 0, done = 0;
        check(rvp_map_get_extent(provider, file, at, &run, 1, &count, &done, unused));
        std::printf("%12lu %12lu %10lu %#x\n", at, run.offset, run.length, run.flags);
        if ((run.flags & FSO_EXTENT_INLINE) != 0) // lengths are rounded up to sectors
            run.length = run.flags >> FSO_EXTENT_INLINE_LENGTH_SHIFT;
    }
}

int main(int count, char** arguments) {
    int image = count == 4 ? open(arguments[2], O_RDONLY) : -1, version = 0, flags = 0;
    check(image < 0 ? KMP_EINVAL : KMP_OK);
    km_root = arguments[1];
    check(rvp_map_init(&provider, nullptr, &version));
    check(rvp_map_set_logical_sector_size(provider, 512));
    check(rvp_map_set_volume_read_callback(provider, readImage, &image));
    if (rvp_map_claim_volume(provider, "volume") == KM_CLAIM_NONE)
        return 1;
    auto* id = km_objid("volume", sizeof "volume", KM_OBJID_FSO);
    unsigned long index = std::strtoul(arguments[3], nullptr, 0);
    kmp_obj *volume = nullptr, *file = nullptr;
    check(rvp_map_open_id(provider, id, nullptr, &volume, KMP_OPEN_READ, &flags, nullptr));
    check(rvp_map_open_file_index(provider, volume, index, &file, 1, &flags, nullptr));
    printRuns(file);
    check(rvp_map_close(provider, file));
    check(rvp_map_close(provider, volume));
    km_free_objid(id);
    rvp_map_fini(provider);
}
