// What the command line asks for.
#ifndef RVPMAP_OPTIONS_H
#define RVPMAP_OPTIONS_H

#include "ExitStatus.h"

#include <optional>
#include <string>
#include <vector>

enum class Command { CLAIM, INFO, LIST, STAT, EXTENTS, EXTRACT, CATALOG, MAP, OWNER, SCAN };
enum class Format { TABLE, CSV, NDJSON, SQLITE };
enum class Colour { AUTO, ALWAYS, NEVER };

constexpr int FIRST_TRACE_LEVEL = 5;
constexpr int LAST_TRACE_LEVEL = 7;

struct Options {
    Command command = Command::CLAIM;
    std::string volume;
    std::string path = "/";
    std::string output;
    std::vector<std::string> paths;  // of the map's files
    std::vector<std::string> ranges; // OFFSET[+LENGTH] of the owners
    std::string ddrescue;            // a map file of bad areas
    bool json = false;
    bool details = false;
    bool recursive = false;
    bool unsorted = false;
    bool extents = false;
    bool owners = false;
    bool physical = false;         // down to the disks
    Format format = Format::TABLE; // of the catalogue
    // Global
    Colour colour = Colour::AUTO;
    std::string root;
    std::vector<std::string> disks; // where VOLUME is looked for
    int logLevel = 0; // the provider's log lines: 0 none, 1 errors, 2 and warnings, 3 and
                      // information, 4 and debugging
    int trace = 0;    // 0, or 5 to 7
};

// Empty when there is nothing to do but to end with `*status` (help, version, wrong usage).
std::optional<Options> parseOptions(int count, char** arguments, ExitStatus* status);

#endif
