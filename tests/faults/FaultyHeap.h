// The allocator of a test program: it counts, and fails when it is told to.
//
// It stands in for malloc and operator new of the whole process, the C library's own use and that
// of libraries loaded later included. Only allocations that are watched can fail; one thread
// watches.
#ifndef TESTS_FAULTS_FAULTYHEAP_H
#define TESTS_FAULTS_FAULTYHEAP_H

#include <atomic>

// What fails at its Nth time, counted from 1, and with `onwards` at all times after that.
struct Fault {
    long number = 0; // 0 for never
    bool onwards = false;
    long counted = 0;
    long strikes = 0;

    bool strikesNow() {
        ++counted;
        const bool now = number != 0 && (onwards ? counted >= number : counted == number);
        strikes += now ? 1 : 0;
        return now;
    }
    bool hasStruck() const { return number != 0 && strikes != 0; }
};

namespace FaultyHeap {

// They serve before any constructor has run.
inline constinit Fault fault; // of the watched allocations
inline constinit bool isWatched = false;
inline constinit std::atomic<long> liveBlocks = 0; // in the whole process; any thread may free

// Allocations are watched while it lives.
struct Watch {
    Watch() { isWatched = true; }
    ~Watch() { isWatched = false; }
};

} // namespace FaultyHeap

#endif
