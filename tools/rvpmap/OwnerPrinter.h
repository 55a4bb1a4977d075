// The owners of byte ranges as a table or as JSON.
#ifndef RVPMAP_OWNERPRINTER_H
#define RVPMAP_OWNERPRINTER_H

#include "Options.h"
#include "Output.h"
#include "OwnerFinder.h"
#include "Table.h"

// Prints every range in the order in which it was asked, each piece by its offset.
void printOwners(Output& output, const Table& table, bool json, const OwnerFinder& finder,
                 const std::vector<ByteRange>& ranges);

#endif
