#include "LogicalVolume.h"

#include <algorithm>

namespace {

uint64_t sizeOf(const std::vector<VolumeSegment>& segments) {
    return segments.empty() ? 0 : segments.back().start + segments.back().length;
}

} // namespace

LogicalVolume::LogicalVolume(std::string name, std::vector<VolumeSegment> segments)
    : MappedLayer(std::move(name), sizeOf(segments)), m_segments(std::move(segments)) {}

LayerRun LogicalVolume::firstRun(uint64_t offset, uint64_t length) const {
    const VolumeSegment& segment = *std::prev(std::upper_bound(
        m_segments.begin(), m_segments.end(), offset,
        [](uint64_t value, const VolumeSegment& one) { return value < one.start; }));
    const uint64_t inside = offset - segment.start;
    length = std::min(length, segment.length - inside);
    const std::size_t stripes = segment.places.size();
    if (stripes == 0) {
        return {length, RunKind::ZERO, {}};
    }
    if (stripes == 1) {
        const LayerPlace& place = segment.places.front();
        return {length, RunKind::DATA, {{place.layer, place.offset + inside}}};
    }
    const uint64_t chunk = inside / segment.stripeSize;
    const uint64_t inChunk = inside % segment.stripeSize;
    const LayerPlace& place = segment.places[chunk % stripes];
    return {std::min(length, segment.stripeSize - inChunk),
            RunKind::DATA,
            {{place.layer, place.offset + chunk / stripes * segment.stripeSize + inChunk}}};
}
