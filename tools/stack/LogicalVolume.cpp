#include "LogicalVolume.h"

#include <algorithm>
#include <set>

namespace {

uint64_t sizeOf(const std::vector<VolumeSegment>& segments) {
    return segments.empty() ? 0 : segments.back().start + segments.back().length;
}

// What a range is to a segment that lies on one place; a length of 0 when it is nothing.
LayerUse linearUse(const VolumeSegment& segment, const LayerPlace& own, UseKind kind,
                   const LayerPlace& place, uint64_t length) {
    LayerUse use = commonUse(own.offset, segment.length, place, length, kind);
    use.logical += segment.start;
    return use;
}

void appendStripeUses(const VolumeSegment& segment, std::size_t stripe, const LayerPlace& place,
                      uint64_t length, std::vector<LayerUse>& uses) {
    const std::size_t stripes = segment.places.size();
    const LayerUse all = commonUse(segment.places[stripe].offset, segment.length / stripes, place,
                                   length, UseKind::DATA);
    for (uint64_t done = 0; done < all.length;) {
        const uint64_t inside = all.logical + done;
        const uint64_t inChunk = inside % segment.stripeSize;
        const uint64_t step = std::min(all.length - done, segment.stripeSize - inChunk);
        const uint64_t chunk = inside / segment.stripeSize * stripes + stripe;
        appendUse(uses, {all.offset + done, step, UseKind::DATA,
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
    if (stripes == 1) {
        const LayerPlace& place = segment.places.front();
        LayerRun run{length, RunKind::DATA, {{place.layer, place.offset + inside}}};
        for (const LayerPlace& copy : segment.copies) {
            run.copies.push_back({copy.layer, copy.offset + inside});
        }
        return run;
    }
    const uint64_t chunk = inside / segment.stripeSize;
    const uint64_t inChunk = inside % segment.stripeSize;
    const LayerPlace& place = segment.places[chunk % stripes];
    return {std::min(length, segment.stripeSize - inChunk),
            RunKind::DATA,
            {{place.layer, place.offset + chunk / stripes * segment.stripeSize + inChunk}}};
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
            if (segment.places[stripe].layer != place.layer) {
                continue;
            }
            if (segment.places.size() == 1) {
                appendUse(uses,
                          linearUse(segment, segment.places.front(), UseKind::DATA, place, length));
            } else {
                appendStripeUses(segment, stripe, place, length, uses);
            }
        }
        for (const LayerPlace& copy : segment.copies) {
            if (copy.layer == place.layer) {
                appendUse(uses, linearUse(segment, copy, UseKind::COPY, place, length));
            }
        }
    }
    return uses;
}
