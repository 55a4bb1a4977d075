// The owners of byte ranges as a table or as JSON.
#ifndef RVPMAP_OWNERPRINTER_H
#define RVPMAP_OWNERPRINTER_H

#include "Options.h"
#include "Output.h"
#include "OwnerFinder.h"
#include "Table.h"

// What bytes are that no volume holds: on a volume or on a disk.
enum class Ground { VOLUME, DISK };

// Prints every range in the order in which it was asked, each piece by its offset.
void printOwners(Output& output, const Table& table, bool json, const OwnerFinder& finder,
                 const std::vector<ByteRange>& ranges, Ground ground);

#endif
