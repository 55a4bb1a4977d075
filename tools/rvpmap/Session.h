// What every command works with, and the commands themselves, one source file each.
#ifndef RVPMAP_SESSION_H
#define RVPMAP_SESSION_H

#include "Options.h"
#include "Output.h"
#include "Table.h"
#include "Volume.h"

class Stack;
struct StackNode;

struct Session {
    const Options& options;
    Volume& volume; // opened, except for `claim`
    Output output;  // main flushes it
    Table table;
    const Stack* stack; // null where no disks were given
};

// Each prints its result and throws ToolError when it cannot go on.
ExitStatus runClaim(Session& session);
ExitStatus runInfo(Session& session);
ExitStatus runList(Session& session);
ExitStatus runStat(Session& session);
ExitStatus runExtents(Session& session);
ExitStatus runExtract(Session& session);
ExitStatus runCatalog(Session& session);
ExitStatus runMap(Session& session);
ExitStatus runOwner(Session& session);
// Tells the owners of bytes of a node, through all volumes that lie on it.
ExitStatus runNodeOwner(const Options& options, const Stack& stack, const StackNode& ground,
                        const Table& table);
// Shows what the disks hold; there is no single volume.
ExitStatus runScan(const Options& options, const Stack& stack);

#endif
