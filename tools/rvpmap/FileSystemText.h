// A file system's kind and UUID as text.
#ifndef RVPMAP_FILESYSTEMTEXT_H
#define RVPMAP_FILESYSTEMTEXT_H

#include <array>
#include <cstdint>
#include <string>

// "ext4", by the kind that the statistics give; "unknown" for others.
const char* fileSystemName(uint64_t type);
// "01234567-89ab-cdef-0123-456789abcdef".
std::string uuidText(const std::array<uint8_t, 16>& uuid);

#endif
