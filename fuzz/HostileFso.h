// A file-system-object library whose answers are an input's bytes. It keeps to the contract in what
// it writes where (never past a capacity, texts that end), and to nothing else.
#ifndef FUZZ_HOSTILEFSO_H
#define FUZZ_HOSTILEFSO_H

#include "ByteSource.h"

// The library answers from `in` from here on, and counts anew.
void scriptLibrary(ByteSource& in);

// What the provider owes the library: each opened file is closed once, each claimed volume too.
// Frees the objects that no contract asks to be closed.
void settleLibrary();

// Whether the next loading of the library shall fail.
extern bool g_libraryIsMissing;

#endif
