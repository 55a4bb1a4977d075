// The picture of a volume as an SVG document that needs no script and no font of its own.
#ifndef RVPMAP_SVGPICTURE_H
#define RVPMAP_SVGPICTURE_H

#include "Output.h"
#include "VolumePicture.h"

#include <string>

// The lines above the picture; the text of the user's volume is escaped here.
struct PictureHeading {
    std::string title;
    std::string fileSystem; // its kind and name
    std::string uuid;
    uint64_t blockSize;
    uint64_t volumeBytes;
    uint64_t freeBytes; // as the file system counts them
};

// The document's size is bounded by the number of cells and shown files.
void appendSvg(TextBuffer& out, const VolumePicture& picture, const PictureHeading& heading);

#endif
