// What knows one kind of thing that disks hold, and makes layers of it.
#ifndef STACK_PROBER_H
#define STACK_PROBER_H

#include "Stack.h"

#include <memory>

// How much a group of members must have before it is put together: what is whole comes first,
// because the members of others may lie on it.
enum class Demand { COMPLETE, USABLE, WHATEVER };

class Prober {
  public:
    virtual ~Prober() = default;
    // Looks at a node with a layer. True when it is of this prober's kind: the others then need not
    // look. Throws SourceError when the layer cannot be read.
    virtual bool look(Stack& stack, StackNode& node) = 0;
    // Puts one group of members together that meets the demand; false when there is none.
    virtual bool assemble(Stack& /*stack*/, Demand /*demand*/) { return false; }
};

std::unique_ptr<Prober> makeMdProber();
std::unique_ptr<Prober> makeLvmProber();
std::unique_ptr<Prober> makePartitionProber();

#endif
