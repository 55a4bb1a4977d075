#include "MappedLayer.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

bool goOn(const std::vector<LayerPlace>& last, const std::vector<LayerPlace>& next,
          uint64_t length) {
    return std::equal(last.begin(), last.end(), next.begin(), next.end(),
                      [length](const LayerPlace& a, const LayerPlace& b) {
                          return a.layer == b.layer && a.offset + length == b.offset;
                      });
}

bool continues(const LayerRun& last, const LayerRun& next) {
    return last.kind == next.kind && goOn(last.places, next.places, last.length) &&
           goOn(last.copies, next.copies, last.length);
}

// In words, which compilers do not make of bytes.
void xorInto(char* buffer, const char* other, std::size_t length) {
    std::size_t at = 0;
    for (; at + sizeof(uint64_t) <= length; at += sizeof(uint64_t)) {
        uint64_t a = 0;
        uint64_t b = 0;
        std::memcpy(&a, buffer + at, sizeof a);
        std::memcpy(&b, other + at, sizeof b);
        a ^= b;
        std::memcpy(buffer + at, &a, sizeof a);
    }
    for (; at < length; ++at) {
        buffer[at] = static_cast<char>(buffer[at] ^ other[at]);
    }
}

void readXor(const LayerRun& run, char* buffer) {
    const auto length = static_cast<std::size_t>(run.length);
    const auto other = std::make_unique_for_overwrite<char[]>(length);
    const LayerPlace& first = run.places.front();
    first.layer->read(first.offset, length, buffer);
    for (std::size_t i = 1; i < run.places.size(); ++i) {
        run.places[i].layer->read(run.places[i].offset, length, other.get());
        xorInto(buffer, other.get(), length);
    }
}

} // namespace

LayerUse commonUse(uint64_t start, uint64_t size, const LayerPlace& place, uint64_t length,
                   UseKind kind) {
    const uint64_t begin = std::max(start, place.offset);
    const uint64_t end = std::min(start + size, place.offset + length);
    return {begin, begin < end ? end - begin : 0, kind, begin - start};
}

void appendUse(std::vector<LayerUse>& uses, const LayerUse& use) {
    if (!uses.empty()) {
        LayerUse& last = uses.back();
        const bool logicalGoesOn =
            use.kind == UseKind::PARITY || last.logical + last.length == use.logical;
        if (last.kind == use.kind && last.offset + last.length == use.offset && logicalGoesOn) {
            last.length += use.length;
            return;
        }
    }
    if (use.length != 0) {
        uses.push_back(use);
    }
}

void appendRun(std::vector<LayerRun>& runs, LayerRun run) {
    if (!runs.empty() && continues(runs.back(), run)) {
        runs.back().length += run.length;
    } else {
        runs.push_back(std::move(run));
    }
}

void readRun(const LayerRun& run, char* buffer) {
    const auto length = static_cast<std::size_t>(run.length);
    switch (run.kind) {
    case RunKind::DATA:
        run.places.front().layer->read(run.places.front().offset, length, buffer);
        break;
    case RunKind::XOR:
        readXor(run, buffer);
        break;
    case RunKind::ZERO:
        std::memset(buffer, 0, length);
        break;
    }
}

std::vector<LayerRun> MappedLayer::map(uint64_t offset, uint64_t length) const {
    checkRange(offset, length);
    std::vector<LayerRun> runs;
    while (length > 0) {
        LayerRun run = firstRun(offset, length);
        offset += run.length;
        length -= run.length;
        appendRun(runs, std::move(run));
    }
    return runs;
}

std::size_t MappedLayer::send(uint64_t offset, std::size_t length, int target, uint64_t to) const {
    checkRange(offset, length);
    const LayerRun run = firstRun(offset, length);
    if (run.kind != RunKind::DATA) {
        return 0;
    }
    const LayerPlace& place = run.places.front();
    return place.layer->send(place.offset, static_cast<std::size_t>(run.length), target, to);
}

std::vector<LayerUse> MappedLayer::uses(const LayerPlace& place, uint64_t length) const {
    if (place.layer == this) {
        return ownUses(place, length);
    }
    std::vector<LayerUse> result;
    for (const Layer* below : layersBelow()) {
        for (const LayerUse& lower : below->uses(place, length)) {
            if (lower.kind == UseKind::PARITY) {
                continue;
            }
            for (LayerUse use : directUses({below, lower.logical}, lower.length)) {
                use.offset = lower.offset + (use.offset - lower.logical);
                use.kind = std::max(use.kind, lower.kind);
                appendUse(result, use);
            }
        }
    }
    return result;
}

void MappedLayer::read(uint64_t offset, std::size_t length, char* buffer) const {
    for (const LayerRun& run : map(offset, length)) {
        readRun(run, buffer);
        buffer += run.length;
    }
}
