#include "MappedLayer.h"

#include "SourceError.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <functional>

namespace {

bool continues(const LayerRun& last, const LayerRun& next) {
    return last.kind == next.kind &&
           std::equal(last.places.begin(), last.places.end(), next.places.begin(),
                      next.places.end(), [&](const LayerPlace& a, const LayerPlace& b) {
                          return a.layer == b.layer && a.offset + last.length == b.offset;
                      });
}

void readXor(const LayerRun& run, char* buffer) {
    const auto length = static_cast<std::size_t>(run.length);
    std::vector<char> other(length);
    std::memset(buffer, 0, length);
    for (const LayerPlace& place : run.places) {
        place.layer->read(place.offset, length, other.data());
        std::transform(buffer, buffer + length, other.data(), buffer, std::bit_xor<>());
    }
}

} // namespace

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
    if (offset > m_size || length > m_size - offset) {
        throw SourceError(fmt::format("read of {} bytes at offset {}: past the end of {}, which "
                                      "has {} bytes",
                                      length, offset, m_name, m_size),
                          true);
    }
    std::vector<LayerRun> runs;
    while (length > 0) {
        LayerRun run = firstRun(offset, length);
        offset += run.length;
        length -= run.length;
        appendRun(runs, std::move(run));
    }
    return runs;
}

void MappedLayer::read(uint64_t offset, std::size_t length, char* buffer) const {
    for (const LayerRun& run : map(offset, length)) {
        readRun(run, buffer);
        buffer += run.length;
    }
}
