// The stand-in host: what a program that plays the host framework sets up.
//
// libkmhost.so defines every symbol that a provider imports. A program links it, sets `km_root`,
// `km_log_root` and `km_debug_level` (see kmp.h) and chooses where log lines go. Ids are interned
// by name and kind and counted. All functions may be called from any thread.
#ifndef HOST_KMHOST_H
#define HOST_KMHOST_H

#include "kmp/kmp.h"

#include <cstddef>

// Where a log line ends up. `text` ends in a line feed as a rule; `indent` counts trace scopes.
using kmhost_log_sink = void (*)(void* context, const char* text, int indent,
                                 kmp_eseverity severity);

// Lines go to standard error, indented by two blanks a scope; so they do at the start.
void kmhost_log_to_stderr();
// Lines are appended to `name` in `km_log_root`, indented the same way; false, errno set and the
// sink unchanged, when the file cannot be opened.
bool kmhost_log_to_file(const char* name);
// Lines go to a function, one at a time; null drops them. The function must not log or choose
// another sink.
void kmhost_log_to(kmhost_log_sink sink, void* context);

// Lines pass whose severity is in this set of bits 1 << severity; all do at the start.
void kmhost_filter_severity(unsigned severities);

// The number of ids alive: made and not given back by as many frees.
std::size_t kmhost_objid_count();

#endif
