// From the VOLUME of the command line to its bytes.
#ifndef RVPMAP_VOLUMESOURCE_H
#define RVPMAP_VOLUMESOURCE_H

#include "Layer.h"

#include <memory>

// FILE or FILE@OFFSET; a file whose own name is the whole text wins. OFFSET is decimal or, after
// 0x, hexadecimal, with K, M, G or T behind it for powers of 1024. Throws ToolError and
// SourceError.
std::unique_ptr<Layer> openVolumeSource(const std::string& volume);

#endif
