// The runs of a layer on the disks, past all layers in between.
#ifndef STACK_DISKRUNS_H
#define STACK_DISKRUNS_H

#include "Layer.h"

// A run all the way down: places are on disks.
struct DiskRun {
    uint64_t logical; // where the run begins in the mapped layer
    LayerRun run;
};

// Maps a range of a layer through everything below it onto the disks.
std::vector<DiskRun> mapToDisks(const Layer& layer, uint64_t offset, uint64_t length);
// Reads by exactly the runs that `mapToDisks` gives. Throws SourceError.
void readFromDisks(const Layer& layer, uint64_t offset, std::size_t length, char* buffer);

#endif
