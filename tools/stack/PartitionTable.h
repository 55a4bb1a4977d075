// Partition tables, as libblkid reads them.
#ifndef STACK_PARTITIONTABLE_H
#define STACK_PARTITIONTABLE_H

#include "Layer.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct PartitionEntry {
    int number;
    uint64_t start; // bytes
    uint64_t size;  // bytes
};

struct PartitionTable {
    std::string type;                       // "gpt", "dos"
    std::vector<PartitionEntry> partitions; // without extended ones, which only hold others
};

// Nothing where there is no table. Throws SourceError when the layer cannot be read.
std::optional<PartitionTable> readPartitionTable(const Layer& layer);

#endif
