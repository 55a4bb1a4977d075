// What the way from an entry point to the library costs, over a library that answers from memory,
// logging off.
//
//     call_bench ROOT             nanoseconds a call, and memory after many opened files
//     call_bench ROOT count       10,000 calls of rvp_map_get_extent for one extent each and
//     nothing
//                                 else, to count instructions:
//                                   valgrind --tool=callgrind --toggle-collect=rvp_map_get_extent
//
// ROOT is the host's root directory, with the library in lib/map/rvp/.
#include "kmp/kmp.h"
#include "kmp/rvp_map.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr int ROUNDS = 31;
constexpr int COUNTED_CALLS = 10'000;
constexpr int TIMED_CALLS = 100'000;
constexpr unsigned long OPENED_FIRST = 10'000;
constexpr unsigned long OPENED_IN_ALL = 1'000'000;

void require(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "call_bench: %s failed\n", what);
        std::exit(1);
    }
}

bool readNothing(void*, unsigned long, unsigned long, char*) {
    return false;
}

class OpenedVolume {
  public:
    OpenedVolume() {
        int version = 0;
        require(rvp_map_init(&m_instance, nullptr, &version) == 0, "rvp_map_init");
        rvp_map_set_logical_sector_size(m_instance, 512);
        rvp_map_set_volume_read_callback(m_instance, readNothing, nullptr);
        require(rvp_map_claim_volume(m_instance, "VOLUME") == KM_CLAIM_SECONDARY, "the claim");
        struct km_objid* id = km_objid("VOLUME", 7, KM_OBJID_FSO);
        int flags = 0;
        require(rvp_map_open_id(m_instance, id, nullptr, &m_fileSystem, KMP_OPEN_READ, &flags,
                                nullptr) == 0,
                "rvp_map_open_id");
        km_free_objid(id);
    }
    ~OpenedVolume() {
        rvp_map_close(m_instance, m_fileSystem);
        rvp_map_fini(m_instance);
    }
    OpenedVolume(const OpenedVolume&) = delete;
    OpenedVolume& operator=(const OpenedVolume&) = delete;

    kmp_obj* open(unsigned long index) {
        kmp_obj* file = nullptr;
        int flags = 0;
        require(rvp_map_open_file_index(m_instance, m_fileSystem, index, &file, KMP_OPEN_READ,
                                        &flags, nullptr) == 0,
                "rvp_map_open_file_index");
        return file;
    }
    void close(kmp_obj* file) { require(rvp_map_close(m_instance, file) == 0, "rvp_map_close"); }

    int getExtents(kmp_obj* file, kmp_extent* extents, int capacity) {
        int count = 0;
        int done = 0;
        auto* node = reinterpret_cast<kmp_mapdomain_node*>(&done);
        require(rvp_map_get_extent(m_instance, file, 0, extents, capacity, &count, &done, node) ==
                    0,
                "rvp_map_get_extent");
        return count;
    }

  private:
    RvpInstance* m_instance = nullptr;
    kmp_obj* m_fileSystem = nullptr;
};

template <typename Work>
double nanosecondsACall(int calls, Work work) {
    std::vector<double> rounds;
    for (int round = 0; round < ROUNDS; ++round) {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < calls; ++i) {
            work();
        }
        const std::chrono::duration<double, std::nano> time =
            std::chrono::steady_clock::now() - start;
        rounds.push_back(time.count() / calls);
    }
    std::nth_element(rounds.begin(), rounds.begin() + ROUNDS / 2, rounds.end());
    return rounds[ROUNDS / 2];
}

// Resident KiB.
long residentSize() {
    long total = 0;
    long resident = 0;
    std::FILE* file = std::fopen("/proc/self/statm", "r");
    require(file != nullptr && std::fscanf(file, "%ld %ld", &total, &resident) == 2, "statm");
    std::fclose(file);
    return resident * 4;
}

void openAndClose(OpenedVolume& volume, unsigned long from, unsigned long to) {
    for (unsigned long index = from; index < to; ++index) {
        volume.close(volume.open(index));
    }
}

void measure(OpenedVolume& volume) {
    std::array<kmp_extent, 8> extents;
    kmp_obj* file = volume.open(12);
    for (const int capacity : {1, 8}) {
        const double time = nanosecondsACall(
            TIMED_CALLS, [&] { volume.getExtents(file, extents.data(), capacity); });
        std::printf("rvp_map_get_extent for %d: %.1f ns a call\n", capacity, time);
    }
    volume.close(file);
    const double time = nanosecondsACall(TIMED_CALLS / 10, [&] { volume.close(volume.open(13)); });
    std::printf("open and close of a file: %.1f ns\n", time);

    openAndClose(volume, 0, OPENED_FIRST);
    const long before = residentSize();
    openAndClose(volume, OPENED_FIRST, OPENED_IN_ALL);
    std::printf("resident after %lu files opened and closed: %ld KiB, after %lu: %ld KiB\n",
                OPENED_FIRST, before, OPENED_IN_ALL, residentSize());
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: call_bench ROOT [count]\n");
        return 2;
    }
    km_root = argv[1];
    km_debug_level = 0;
    OpenedVolume volume;
    if (argc == 2) {
        measure(volume);
        return 0;
    }
    kmp_extent extent;
    kmp_obj* file = volume.open(12);
    for (int i = 0; i < COUNTED_CALLS; ++i) {
        volume.getExtents(file, &extent, 1);
    }
    volume.close(file);
    return 0;
}
