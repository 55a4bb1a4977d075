// Mapping a range of a layer through everything below it.
#include "DiskRuns.h"

#include "MappedLayer.h"

#include <algorithm>

namespace {

using Runs = std::vector<LayerRun>;

Runs runsOnDisks(const Layer& layer, uint64_t offset, uint64_t length);

// Walks along the disk runs of one place of a rebuilt run.
struct RunCursor {
    Runs runs;
    std::size_t at = 0;
    uint64_t used = 0;

    uint64_t left() const { return runs[at].length - used; }
    void appendPlaces(std::vector<LayerPlace>& places) const {
        for (const LayerPlace& place : runs[at].places) {
            places.push_back({place.layer, place.offset + used});
        }
    }
    void advance(uint64_t step) {
        used += step;
        if (left() == 0) {
            ++at;
            used = 0;
        }
    }
};

// What a rebuilt run of places that are rebuilt themselves, or zeros, comes down to.
LayerRun xorRun(uint64_t length, std::vector<LayerPlace> places) {
    const RunKind kind = places.empty()       ? RunKind::ZERO
                         : places.size() == 1 ? RunKind::DATA
                                              : RunKind::XOR;
    return {length, kind, std::move(places)};
}

// The places of a rebuilt run come to lie in runs of different lengths: cuts at all their ends.
void appendRebuilt(Runs& result, const LayerRun& run) {
    std::vector<RunCursor> cursors;
    for (const LayerPlace& place : run.places) {
        cursors.push_back({runsOnDisks(*place.layer, place.offset, run.length)});
    }
    for (uint64_t done = 0; done < run.length;) {
        uint64_t step = run.length - done;
        std::vector<LayerPlace> places;
        for (const RunCursor& cursor : cursors) {
            step = std::min(step, cursor.left());
            cursor.appendPlaces(places);
        }
        appendRun(result, xorRun(step, std::move(places)));
        for (RunCursor& cursor : cursors) {
            cursor.advance(step);
        }
        done += step;
    }
}

Runs runsOnDisks(const Layer& layer, uint64_t offset, uint64_t length) {
    if (length == 0) {
        return {};
    }
    const Runs below = layer.map(offset, length);
    if (below.empty()) {
        return {{length, RunKind::DATA, {{&layer, offset}}}};
    }
    Runs result;
    for (const LayerRun& run : below) {
        if (run.kind == RunKind::DATA) {
            const LayerPlace& place = run.places.front();
            for (LayerRun& lower : runsOnDisks(*place.layer, place.offset, run.length)) {
                appendRun(result, std::move(lower));
            }
        } else {
            appendRebuilt(result, run);
        }
    }
    return result;
}

} // namespace

std::vector<DiskRun> mapToDisks(const Layer& layer, uint64_t offset, uint64_t length) {
    std::vector<DiskRun> result;
    for (LayerRun& run : runsOnDisks(layer, offset, length)) {
        const uint64_t runLength = run.length;
        result.push_back({offset, std::move(run)});
        offset += runLength;
    }
    return result;
}

void readFromDisks(const Layer& layer, uint64_t offset, std::size_t length, char* buffer) {
    for (const DiskRun& piece : mapToDisks(layer, offset, length)) {
        readRun(piece.run, buffer);
        buffer += piece.run.length;
    }
}
