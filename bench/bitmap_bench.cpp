// How fast RvpBitmap scans and fills, beside what the same memory allows.
//
//     bitmap_bench
//
// Peers and candidates take turns in one process; a line gives the medians and their ratio. The
// peers: a sum of the array's 64-bit words, memset, std::vector<bool>, boost::dynamic_bitset.
#include "RvpBitmapX64.h"

#include <algorithm>
#include <boost/dynamic_bitset.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

namespace {

constexpr int ROUNDS = 31;
constexpr unsigned long SMALL_SECTORS = 1UL << 23; // 1 MiB of bits: within a core's cache
constexpr unsigned long LARGE_SECTORS = 1UL << 30; // 128 MiB of bits
constexpr unsigned long PEER_SECTORS = 1UL << 22;  // for the peers that go bit by bit
constexpr unsigned MEAN_RUN = 64;

volatile std::uint64_t s_sink; // keeps results alive

template <typename Work>
double nanosecondsOf(const Work& work) {
    const auto start = std::chrono::steady_clock::now();
    s_sink = work();
    const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - start;
    return time.count();
}

double median(std::vector<double>& values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

struct Medians {
    double first;
    double second;
};

template <typename First, typename Second>
Medians compare(const First& first, const Second& second) {
    std::vector<double> firstTimes;
    std::vector<double> secondTimes;
    nanosecondsOf(first);
    nanosecondsOf(second);
    for (int i = 0; i < ROUNDS; ++i) {
        firstTimes.push_back(nanosecondsOf(first));
        secondTimes.push_back(nanosecondsOf(second));
    }
    return {median(firstTimes), median(secondTimes)};
}

void print(const char* what, Medians medians, const char* peer) {
    std::printf("%-46s %12.0f ns   %-34s %12.0f ns   %7.2f times its speed\n", what, medians.first,
                peer, medians.second, medians.second / medians.first);
}

// One word an addition; -O2 leaves the loop scalar.
__attribute__((noinline)) std::uint64_t sumOfWords(const std::uint64_t* words, std::size_t count) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < count; ++i) {
        sum += words[i];
    }
    return sum;
}

std::uint64_t runFromStart(RvpBitmap& bitmap, unsigned long sectors) {
    bool set = false;
    return bitmap.getExtent(0, sectors, set);
}

std::uint64_t countRuns(RvpBitmap& bitmap, unsigned long sectors) {
    std::uint64_t runs = 0;
    for (unsigned long sector = 0; sector < sectors; ++runs) {
        bool set = false;
        sector += bitmap.getExtent(sector, sectors - sector, set);
    }
    return runs;
}

void initClear(RvpBitmap& bitmap, unsigned long sectors) {
    bitmap.init(sectors, true, 0, "bitmap_bench");
    bitmap.clearRegion(0, sectors); // makes the mapped kind resident, too
}

void benchLongRuns(unsigned long sectors) {
    RvpBitmap heap(RvpBitmap::HEAP);
    RvpBitmap mapped(RvpBitmap::FILE_MAPPING);
    initClear(heap, sectors);
    initClear(mapped, sectors);
    std::vector<std::uint64_t> words(sectors / 64, 0);
    std::printf("One run of %lu sectors (%lu KiB)\n", sectors, sectors / 8192);

    const auto scanHeap = [&] { return runFromStart(heap, sectors); };
    const auto scanMapped = [&] { return runFromStart(mapped, sectors); };
    const auto sum = [&] { return sumOfWords(words.data(), words.size()); };
    print("  getExtent", compare(scanHeap, sum), "sum of the words");
    print("  getExtent, mapped", compare(scanMapped, scanHeap), "getExtent, heap");

    const auto set = [&] {
        heap.setRegion(3, sectors - 5);
        return std::uint64_t{0};
    };
    const auto clear = [&] {
        heap.clearRegion(3, sectors - 5);
        return std::uint64_t{0};
    };
    const auto setMapped = [&] {
        mapped.setRegion(3, sectors - 5);
        return std::uint64_t{0};
    };
    const auto fill = [&] {
        std::memset(words.data(), 0xFF, words.size() * 8);
        return words[0];
    };
    print("  setRegion", compare(set, fill), "memset");
    print("  clearRegion", compare(clear, fill), "memset");
    print("  setRegion, mapped", compare(setMapped, set), "setRegion, heap");
}

void benchContainers() {
    RvpBitmap bitmap(RvpBitmap::HEAP);
    initClear(bitmap, PEER_SECTORS);
    std::vector<bool> bits(PEER_SECTORS, false);
    boost::dynamic_bitset<> blocks(PEER_SECTORS);
    std::printf("One run of %lu sectors, beside containers\n", PEER_SECTORS);

    const auto scan = [&] { return runFromStart(bitmap, PEER_SECTORS); };
    const auto findBit = [&] {
        return static_cast<std::uint64_t>(std::find(bits.begin(), bits.end(), !bits[0]) -
                                          bits.begin());
    };
    const auto testBlocks = [&] {
        const bool first = blocks.test(0);
        std::size_t run = 0;
        while (run < blocks.size() && blocks.test(run) == first) {
            ++run;
        }
        return std::uint64_t{run};
    };
    const auto findNext = [&] { return std::uint64_t{blocks.find_first()}; };
    print("  getExtent", compare(scan, findBit), "vector<bool>, std::find");
    print("  getExtent", compare(scan, testBlocks), "dynamic_bitset, bit by bit");
    print("  getExtent", compare(scan, findNext), "dynamic_bitset, find_first");
}

void benchShortRuns(RvpBitmap& bitmap, const char* what) {
    initClear(bitmap, SMALL_SECTORS);
    std::mt19937_64 random(1);
    std::geometric_distribution<unsigned long> length(1.0 / MEAN_RUN);
    bool set = false;
    for (unsigned long sector = 0; sector < SMALL_SECTORS; set = !set) {
        const unsigned long run = std::min(1 + length(random), SMALL_SECTORS - sector);
        if (set) {
            bitmap.setRegion(sector, run);
        }
        sector += run;
    }
    std::vector<double> times;
    std::uint64_t runs = 0;
    for (int i = 0; i < ROUNDS; ++i) {
        times.push_back(nanosecondsOf([&] { return runs = countRuns(bitmap, SMALL_SECTORS); }));
    }
    std::printf("%s: %.2f ns a run of %u sectors on average\n", what,
                median(times) / static_cast<double>(runs), MEAN_RUN);
}

} // namespace

int main() {
    benchLongRuns(SMALL_SECTORS);
    benchLongRuns(LARGE_SECTORS);
    benchContainers();
    RvpBitmap heap(RvpBitmap::HEAP);
    benchShortRuns(heap, "Heap");
    RvpBitmap mapped(RvpBitmap::FILE_MAPPING);
    benchShortRuns(mapped, "Mapped");
}
