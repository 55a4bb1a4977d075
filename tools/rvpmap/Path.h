// Finding a file of a volume by its path.
#ifndef RVPMAP_PATH_H
#define RVPMAP_PATH_H

#include "File.h"

#include <string>

// A file and its path from the volume's root, without repeated or trailing slashes.
struct FoundFile {
    std::string path;
    File file;
};

// Follows `path` from the root by raw bytes. Empty components and "." are skipped, ".." goes back
// one component, symbolic links are not followed. Throws ToolError, NOT_FOUND when there is no
// such file.
FoundFile findFile(Volume& volume, const std::string& path);

#endif
