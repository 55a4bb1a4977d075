// The allocator of a test program: it counts, and fails when it is told to.
//
// It stands in for malloc and operator new of the whole process, the C library's own use and that
// of libraries loaded later included. Only allocations made while it is watched count and fail; one
// thread watches.
#ifndef TESTS_FAULTS_FAULTYHEAP_H
#define TESTS_FAULTS_FAULTYHEAP_H

namespace FaultyHeap {

// Lets the watched allocation of this number fail, counted from 1 and from now on; with `onwards`
// all watched ones behind it as well. 0 for none.
void fail(long number, bool onwards);
void watch(bool on);
// Nothing fails any more; what has failed stays so.
void heal();
// How many watched allocations have failed since `fail`.
long failures();
// Blocks of the whole process that were not given back.
long liveBlocks();

} // namespace FaultyHeap

#endif
