#include "LogicalVolume.h"

#include <algorithm>
#include <set>

namespace {

uint64_t sizeOf(const std::vector<VolumeSegment>& segments) {
    return segments.empty() ? 0 : segments.back().start + segments.back().length;
}

// What a range is to one stripe of a segment, or to a copy of its only one, which lies at `own`.
void appendStripeUses(const VolumeSegment& segment, const LayerPlace& own, std::size_t stripe,
                      UseKind kind, const LayerPlace& place, uint64_t length,
                      std::vector<LayerUse>& uses) {
    if (own.layer != place.layer) {
        return;
    }
    const std::size_t stripes = segment.places.size();
    const LayerUse all = commonUse(own.offset, segment.length / stripes, place, length, kind);
    for (uint64_t done = 0; done < all.length;) {
        const uint64_t inside = all.logical + done;
        const uint64_t inChunk = inside % segment.stripeSize;
        const uint64_t step = std::min(all.length - done, segment.stripeSize - inChunk);
        const uint64_t chunk = inside / segment.stripeSize * stripes + stripe;
        appendUse(uses, {all.offset + done, step, kind,
                         segment.start + chunk * segment.stripeSize + inChunk});
        done += step;
    }
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
    const uint64_t chunk = inside / segment.stripeSize;
    const uint64_t inChunk = inside % segment.stripeSize;
    const LayerPlace& place = segment.places[chunk % stripes];
    LayerRun run{std::min(length, segment.stripeSize - inChunk),
                 RunKind::DATA,
                 {{place.layer, place.offset + chunk / stripes * segment.stripeSize + inChunk}}};
    for (const LayerPlace& copy : segment.copies) {
        run.copies.push_back({copy.layer, copy.offset + inside});
    }
    return run;
}

std::vector<const Layer*> LogicalVolume::layersBelow() const {
    std::set<const Layer*> layers;
    for (const VolumeSegment& segment : m_segments) {
        for (const auto* places : {&segment.places, &segment.copies}) {
            for (const LayerPlace& place : *places) {
                layers.insert(place.layer);
            }
        }
    }
    return {layers.begin(), layers.end()};
}

std::vector<LayerUse> LogicalVolume::directUses(const LayerPlace& place, uint64_t length) const {
    std::vector<LayerUse> uses;
    for (const VolumeSegment& segment : m_segments) {
        for (std::size_t stripe = 0; stripe < segment.places.size(); ++stripe) {
            appendStripeUses(segment, segment.places[stripe], stripe, UseKind::DATA, place, length,
                             uses);
        }
        for (const LayerPlace& copy : segment.copies) {
            appendStripeUses(segment, copy, 0, UseKind::COPY, place, length, uses);
        }
    }
    return uses;
}
