// The metadata text of a volume group, made readable for the parser and read with care.
#ifndef STACK_LVMTEXT_H
#define STACK_LVMTEXT_H

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

// A text that is no metadata, in words that follow the volume group's or physical volume's name.
class LvmTextError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// All in extents unless said otherwise.
struct LvmSegment {
    uint64_t start;
    uint64_t count;
    std::string type;    // "striped", "mirror", "thin", ...
    uint64_t stripeSize; // sectors; 0 where there is one stripe
    // Stripes or legs: the name of a physical or logical volume, and where on it they start.
    std::vector<std::pair<std::string, uint64_t>> areas;
};

struct LvmVolume {
    std::string name;
    bool visible;
    std::string cannotBeRead; // why, for a volume whose own segments are not what it holds
    std::vector<LvmSegment> segments;
};

struct LvmDevice {
    std::string name; // "pv0"
    std::string uuid; // 32 characters
    bool missing;     // marked so: what it holds may be out of date
    uint64_t start;   // of extent 0, sectors
    uint64_t count;
};

struct LvmGroupText {
    std::string name;
    std::string uuid;
    uint64_t sequence;
    uint64_t extentSectors;
    std::vector<LvmDevice> devices;
    std::vector<LvmVolume> volumes;
};

// The same text as the parser takes it. `LvmConfig` knows no negative numbers, which LVM2 writes
// for some settings ("read_ahead = -1"), and of several comments in a row it skips only the first.
// Here a negative number becomes a string of the same characters, which is no number for anyone who
// asks for one, and comments become blanks. Strings are left as they are.
std::string parsableLvmText(const std::string& text);

// Throws LvmTextError.
LvmGroupText readLvmText(const std::string& text);

#endif
