// The content of a file, read from the volume's own runs.
#ifndef RVPMAP_CONTENT_H
#define RVPMAP_CONTENT_H

#include "ExtentCursor.h"
#include "Progress.h"

// Into an empty regular file: holes and space that was never written become holes. Throws
// ToolError when the source fails, std::system_error when the target does.
void copyToFile(File& file, int target, Progress& progress);
// Into a pipe or device: holes become zeros. `name` is the target's in messages.
void copyToStream(File& file, int target, const std::string& name, Progress& progress);

#endif
