// Reading a layer by its runs on the disks, past all layers in between.
#ifndef STACK_DISKRUNS_H
#define STACK_DISKRUNS_H

#include "Layer.h"

// Reads by exactly the runs that `mapToDisks` gives. Throws SourceError.
void readFromDisks(const Layer& layer, uint64_t offset, std::size_t length, char* buffer);

#endif
