// The label of an LVM2 physical volume and the metadata texts it leads to, checksums verified.
//
// On disk, after LVM2's format_text/layout.h and label.h: the label in one of the first four
// sectors of 512 bytes, behind it the physical volume's header with lists of data and metadata
// areas; a metadata area begins with a header of one sector and is a ring of texts behind that.
#ifndef STACK_LVMLABEL_H
#define STACK_LVMLABEL_H

#include "Layer.h"

#include <optional>
#include <string>
#include <vector>

struct LvmLabel {
    std::string uuid;               // 32 characters
    std::vector<std::string> texts; // of each metadata area that is in order
    std::vector<std::string> notes; // on those that are not
};

// Nothing where there is no label; `notes` then tells of one that is not in order. Throws
// SourceError when the layer cannot be read.
std::optional<LvmLabel> readLvmLabel(const Layer& layer, std::vector<std::string>& notes);

#endif
