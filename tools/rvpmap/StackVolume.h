// From the VOLUME of the command line to a layer of the stack, when disks are given.
#ifndef RVPMAP_STACKVOLUME_H
#define RVPMAP_STACKVOLUME_H

#include "Stack.h"

#include <string>

// The node of that name, which may be given as it is or as `scan` shows it, or for a disk by its
// path. It has a layer. What users have to know of it and all below it is printed. Throws ToolError
// when there is none or it cannot be read.
const StackNode& findVolume(const Stack& stack, const std::string& name);

// Prints what users have to know of a node, though not of those below it.
void printNotes(const StackNode& node);

// A name as it is shown: escaped, and in quotes where a shell would take it apart.
std::string shownName(const std::string& name);

#endif
