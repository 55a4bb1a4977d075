// Mapping a range of a layer through everything below it.
#include "DiskRuns.h"

#include "MappedLayer.h"

#include <algorithm>

namespace {

using Runs = std::vector<LayerRun>;

Runs runsOnDisks(const Layer& layer, uint64_t offset, uint64_t length);

// Walks along the disk runs of one place.
struct RunCursor {
    Runs runs;
    std::size_t at = 0;
    uint64_t used = 0;

    uint64_t left() const { return runs[at].length - used; }
    RunKind kind() const { return runs[at].kind; }
    void append(const std::vector<LayerPlace>& places, std::vector<LayerPlace>& result) const {
        for (const LayerPlace& place : places) {
            result.push_back({place.layer, place.offset + used});
        }
    }
    void appendPlaces(std::vector<LayerPlace>& result) const { append(runs[at].places, result); }
    void appendCopies(std::vector<LayerPlace>& result) const { append(runs[at].copies, result); }
    void advance(uint64_t step) {
        used += step;
        if (left() == 0) {
            ++at;
            used = 0;
        }
    }
};

// Several places come to lie in runs of different lengths: cuts at all their ends, and calls
// `join(cursors, step)` for what is to stand for each piece.
template <typename Join>
void appendTogether(Runs& result, const std::vector<LayerPlace>& places, uint64_t length,
                    Join join) {
    std::vector<RunCursor> cursors;
    for (const LayerPlace& place : places) {
        cursors.push_back({runsOnDisks(*place.layer, place.offset, length)});
    }
    for (uint64_t done = 0; done < length;) {
        uint64_t step = length - done;
        for (const RunCursor& cursor : cursors) {
            step = std::min(step, cursor.left());
        }
        appendRun(result, join(cursors, step));
        for (RunCursor& cursor : cursors) {
            cursor.advance(step);
        }
        done += step;
    }
}

// What a rebuilt run of places that are rebuilt themselves, or zeros, comes down to.
LayerRun rebuilt(const std::vector<RunCursor>& cursors, uint64_t length) {
    std::vector<LayerPlace> places;
    for (const RunCursor& cursor : cursors) {
        cursor.appendPlaces(places);
    }
    const RunKind kind = places.empty()       ? RunKind::ZERO
                         : places.size() == 1 ? RunKind::DATA
                                              : RunKind::XOR;
    return {length, kind, std::move(places)};
}

// The first cursor is what is read; copies that are rebuilt themselves are none.
LayerRun mirrored(const std::vector<RunCursor>& cursors, uint64_t length) {
    LayerRun run{length, cursors.front().kind(), {}};
    cursors.front().appendPlaces(run.places);
    cursors.front().appendCopies(run.copies);
    for (std::size_t i = 1; i < cursors.size(); ++i) {
        if (cursors[i].kind() == RunKind::DATA) {
            cursors[i].appendPlaces(run.copies);
            cursors[i].appendCopies(run.copies);
        }
    }
    return run;
}

void appendLower(Runs& result, const LayerRun& run) {
    if (run.kind != RunKind::DATA) {
        appendTogether(result, run.places, run.length, rebuilt);
    } else if (!run.copies.empty()) {
        std::vector<LayerPlace> places = run.places;
        places.insert(places.end(), run.copies.begin(), run.copies.end());
        appendTogether(result, places, run.length, mirrored);
    } else {
        const LayerPlace& place = run.places.front();
        for (LayerRun& lower : runsOnDisks(*place.layer, place.offset, run.length)) {
            appendRun(result, std::move(lower));
        }
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
        appendLower(result, run);
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
