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
#include <memory>

namespace {

constexpr std::size_t INSTANCES = 4;
constexpr long ROUNDS_AN_INSTANCE = 8; // every claim holds its volume's windows until the end
constexpr long FIRST_ROUNDS = 2000;
#if defined(__SANITIZE_ADDRESS__)
constexpr long ALLOWED_GROWTH_KIB = 512 * 1024; // freed memory is held back
#else
constexpr long ALLOWED_GROWTH_KIB = 1024;
#endif

long peakKib() {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word && word != "VmHWM:") {
    }
    long size = 0;
    status >> size;
    return size;
}

long descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// An instance, the volume that it serves, and the answers of its first round.
struct Seat {
    const std::string* volume;
    std::unique_ptr<Session> session;
    std::vector<Transcript> usual; // one for each file of the root directory, which take turns
    long rounds = 0;
};

bool sameAsBefore(Seat& seat) {
    const std::size_t turn = static_cast<std::size_t>(seat.rounds) % seat.usual.size();
    Transcript& answers = seat.session->transcript;
    if (seat.usual[turn].empty()) {
        seat.usual[turn] = answers;
    }
    const bool same = answers == seat.usual[turn];
    answers.clear();
    return same;
}

// One round; every few, the instance begins anew.
bool serve(Seat& seat, Faults& none) {
    if (seat.session == nullptr) {
        seat.session = std::make_unique<Session>(*seat.volume, none);
        seat.session->listsAnything = false;
        seat.session->start();
        seat.session->transcript.clear();
    }
    Session& session = *seat.session;
    session.claim();
    session.openVolume();
    session.describeVolume();
    session.visit(2);
    const std::vector<uint64_t> files = session.found();
    seat.usual.resize(files.size());
    session.visit(files[static_cast<std::size_t>(seat.rounds) % files.size()]);
    session.closeVolume();
    const bool same = sameAsBefore(seat);
    if (++seat.rounds % ROUNDS_AN_INSTANCE == 0) {
        seat.session.reset();
    }
    return same;
}

} // namespace

int main(int count, char** arguments) {
    const long rounds = count == 2 ? std::atol(arguments[1]) : 0;
    if (rounds <= FIRST_ROUNDS) {
        std::fprintf(stderr, "usage: soak ROUNDS, more than %ld\n", FIRST_ROUNDS);
        return 2;
    }
    km_root = ROOT;
    const std::vector<std::string> volumes = {makeVolume(VOLUME_OPTIONS[0]),
                                              makeVolume(VOLUME_OPTIONS[1])};
    Faults none;
    std::vector<Seat> seats(INSTANCES);
    for (std::size_t i = 0; i < INSTANCES; ++i) {
        seats[i].volume = &volumes[i % volumes.size()];
    }
    const long descriptorsBefore = descriptors();
    long peakBefore = 0;
    long changed = 0;
    const auto started = std::chrono::steady_clock::now();
    for (long round = 0; round < rounds; ++round) {
        changed += serve(seats[static_cast<std::size_t>(round) % INSTANCES], none) ? 0 : 1;
        if (round == FIRST_ROUNDS) {
            peakBefore = peakKib();
        }
    }
    seats.clear();
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - started;
    const long growth = peakKib() - peakBefore;
    const long left = descriptors() - descriptorsBefore;
    std::printf("%ld rounds in %.0f s: peak %ld KiB after %ld rounds, %+ld KiB since then; "
                "%ld descriptors left open; %ld answers changed\n",
                rounds, taken.count(), peakBefore, FIRST_ROUNDS, growth, left, changed);
    return growth <= ALLOWED_GROWTH_KIB && left == 0 && changed == 0 ? 0 : 1;
}
