// A host that does not end: claims, opens, stats, asks for extents and closes, over several volumes
// and instances in one process, and tells what that cost in memory and descriptors.
//
//     soak ROUNDS
//
// The exit status is 1 when an answer changes, memory grows or a descriptor stays open.
#include "Session.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>

namespace {

constexpr unsigned long INSTANCES = 4;
constexpr unsigned long ROUNDS_AN_INSTANCE = 8; // every claim holds its windows until the end
constexpr unsigned long FIRST_ROUNDS = 2000;
#if defined(__SANITIZE_ADDRESS__)
constexpr long ALLOWED_GROWTH_KIB = 512 * 1024; // freed memory is held back
#else
constexpr long ALLOWED_GROWTH_KIB = 512; // the heap is uneven
#endif

long peakKib() {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word && word != "VmHWM:") {
    }
    status >> word;
    return std::stol(word);
}

long descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// One round of an instance; every few, the instance begins anew. The files of the root directory
// take turns. Whether the answers were those of the first round over the same file.
bool serve(std::unique_ptr<Session>& instance, const std::string& volume, unsigned long round) {
    if (round % ROUNDS_AN_INSTANCE == 0) {
        if (instance != nullptr) {
            instance->finish();
        }
        instance = std::make_unique<Session>(volume);
        instance->start();
    }
    instance->transcript.clear();
    instance->claim();
    instance->openVolume();
    const std::vector<uint64_t> files = instance->visit(2);
    const uint64_t file = files[round % files.size()];
    instance->visit(file);
    instance->closeVolume();
    static std::map<std::pair<const std::string*, uint64_t>, std::vector<std::string>> usual;
    const auto first = usual.try_emplace({&volume, file}, instance->transcript).first;
    return first->second == instance->transcript;
}

} // namespace

int main(int count, char** arguments) {
    const unsigned long rounds = count == 2 ? std::strtoul(arguments[1], nullptr, 10) : 0;
    if (rounds <= FIRST_ROUNDS) {
        std::fprintf(stderr, "usage: soak ROUNDS, more than %lu\n", FIRST_ROUNDS);
        return 2;
    }
    km_root = ROOT;
    const std::string volumes[] = {makeVolume("ext4"), makeVolume("ext2")};
    std::unique_ptr<Session> instances[INSTANCES];
    const long descriptorsBefore = descriptors();
    long peakBefore = 0;
    long changed = 0;
    const auto started = std::chrono::steady_clock::now();
    for (unsigned long round = 0; round < rounds; ++round) {
        changed +=
            serve(instances[round % INSTANCES], volumes[round % 2], round / INSTANCES) ? 0 : 1;
        if (round == FIRST_ROUNDS) {
            peakBefore = peakKib();
        }
    }
    for (const auto& instance : instances) {
        instance->finish();
    }
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - started;
    const long growth = peakKib() - peakBefore;
    const long left = descriptors() - descriptorsBefore;
    std::printf("%lu rounds in %.0f s: peak %ld KiB after %lu rounds, %+ld KiB since then; "
                "%ld descriptors left open; %ld answers changed\n",
                rounds, taken.count(), peakBefore, FIRST_ROUNDS, growth, left, changed);
    // A byte a round more: a block that is lost in each costs 16 at least.
    const long allowed = ALLOWED_GROWTH_KIB + static_cast<long>(rounds / 1024);
    return growth <= allowed && left == 0 && changed == 0 ? 0 : 1;
}
