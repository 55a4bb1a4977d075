// Makes the checksums of a changed disk right again, so that hostile metadata is believed: md
// superblocks of all versions, LVM2 labels and metadata areas, GPT headers and entries.
#ifndef FUZZ_CHECKSUMS_H
#define FUZZ_CHECKSUMS_H

#include "Patches.h"

// The disk is `size` bytes of the image from byte `start` on.
void renewChecksums(PatchedImage& image, std::size_t start, std::size_t size);

#endif
