#include "Layer.h"

#include "SourceError.h"

#include <algorithm>
#include <fmt/format.h>

void Layer::checkRange(uint64_t offset, uint64_t length) const {
    if (offset > m_size || length > m_size - offset) {
        throw SourceError(fmt::format("read of {} bytes at offset {}: past the end of {}, which "
                                      "has {} bytes",
                                      length, offset, m_name, m_size),
                          true);
    }
}

std::vector<LayerUse> Layer::ownUses(const LayerPlace& place, uint64_t length) {
    const uint64_t size = place.layer->size();
    if (place.offset >= size) {
        return {};
    }
    return {{place.offset, std::min(length, size - place.offset), UseKind::DATA, place.offset}};
}
