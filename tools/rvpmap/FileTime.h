// The times of a file.
#ifndef RVPMAP_FILETIME_H
#define RVPMAP_FILETIME_H

#include "Output.h"

#include "kmp/kmp.h"

#include <ctime>
#include <string>

// Since 1970; the nanoseconds count forwards, before 1970 too.
timespec toTimespec(const km_time& time);
// Whether the file system keeps creation times at all.
bool isKept(const km_time& creationTime);

// Decimal seconds since 1970 with nine decimals.
void appendSeconds(TextBuffer& out, const km_time& time);
// "2024-02-29 13:37:00" in local time.
std::string localTime(const km_time& time);

#endif
