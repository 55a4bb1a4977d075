#include "LvmVolumes.h"

#include <fmt/format.h>
#include <optional>
#include <stdexcept>

namespace {

constexpr unsigned DEEPEST = 16; // volumes that lie on each other
constexpr uint64_t LARGEST_VOLUME = UINT64_C(1) << 62;

} // namespace

class LvmVolumes::Failure : public std::runtime_error {
  public:
    Failure(Problem problem, const std::string& text)
        : std::runtime_error(text), m_problem(problem) {}
    Problem problem() const { return m_problem; }

  private:
    Problem m_problem;
};

LvmVolumes::LvmVolumes(const LvmGroupText& text,
                       const std::map<std::string, LvmDeviceLayer>& devices, std::string namePrefix,
                       Keep keep)
    : m_text(text), m_devices(devices), m_namePrefix(std::move(namePrefix)),
      m_keep(std::move(keep)) {
    for (const LvmVolume& volume : m_text.volumes) {
        m_entries.emplace(volume.name, Entry{&volume});
    }
}

uint64_t LvmVolumes::bytes(uint64_t extents) const {
    const uint64_t extentBytes = m_text.extentSectors * SECTOR_BYTES;
    if (extents > LARGEST_VOLUME / extentBytes) {
        throw Failure(Problem::DAMAGED, "is larger than any disk");
    }
    return extents * extentBytes;
}

LvmVolumes::Made LvmVolumes::make(const LvmVolume& volume) {
    return makeEntry(m_entries.at(volume.name));
}

const LvmVolumes::Made& LvmVolumes::makeEntry(Entry& entry) {
    if (entry.progress == Progress::BEING_MADE) {
        throw Failure(Problem::DAMAGED, "lies on itself");
    }
    if (entry.progress == Progress::DONE) {
        return entry.made;
    }
    entry.progress = Progress::BEING_MADE;
    ++m_depth;
    try {
        uint64_t extents = 0;
        for (const LvmSegment& segment : entry.volume->segments) {
            extents += segment.count;
        }
        entry.made.size = bytes(extents);
        entry.made.layer = build(*entry.volume);
    } catch (const Failure& failure) {
        entry.made.reason = failure.what();
        entry.made.problem = failure.problem();
    }
    --m_depth;
    entry.progress = Progress::DONE;
    return entry.made;
}

const Layer* LvmVolumes::build(const LvmVolume& volume) {
    if (!volume.cannotBeRead.empty()) {
        throw Failure(Problem::UNSUPPORTED, volume.cannotBeRead);
    }
    if (m_depth > DEEPEST) {
        throw Failure(Problem::DAMAGED, "lies on too many others in a row");
    }
    std::vector<VolumeSegment> segments;
    uint64_t next = 0; // extent
    for (const LvmSegment& segment : volume.segments) {
        if (segment.start != next || segment.count == 0) {
            throw Failure(Problem::DAMAGED, "has segments with gaps or overlaps");
        }
        next += segment.count;
        segments.push_back(segmentOf(segment));
    }
    return &m_keep(
        std::make_unique<LogicalVolume>(m_namePrefix + volume.name, std::move(segments)));
}

VolumeSegment LvmVolumes::segmentOf(const LvmSegment& segment) {
    if (segment.type == "striped" || segment.type == "linear") {
        return stripesOf(segment);
    }
    if (segment.type == "mirror" || segment.type == "raid1") {
        return legsOf(segment);
    }
    if (segment.type == "zero") {
        return {bytes(segment.start), bytes(segment.count), 0, {}, {}};
    }
    throw Failure(Problem::UNSUPPORTED,
                  fmt::format("has a segment of type {}, which is not supported", segment.type));
}

VolumeSegment LvmVolumes::stripesOf(const LvmSegment& segment) {
    const uint64_t stripes = segment.areas.size();
    if (stripes == 0 || segment.count % stripes != 0 ||
        (stripes > 1 &&
         (segment.stripeSize == 0 ||
          m_text.extentSectors * (segment.count / stripes) % segment.stripeSize != 0))) {
        throw Failure(Problem::DAMAGED, "has a segment whose stripes make no sense");
    }
    const uint64_t length = bytes(segment.count);
    VolumeSegment result{bytes(segment.start),
                         length,
                         stripes == 1 ? length : segment.stripeSize * SECTOR_BYTES,
                         {},
                         {}};
    for (const auto& area : segment.areas) {
        result.places.push_back(placeOf(area, segment.count / stripes));
    }
    return result;
}

// All legs hold the same; the first of those that can be read is taken.
VolumeSegment LvmVolumes::legsOf(const LvmSegment& segment) {
    const uint64_t length = bytes(segment.count);
    VolumeSegment result{bytes(segment.start), length, length, {}, {}};
    std::optional<Failure> failure;
    for (const auto& area : segment.areas) {
        try {
            auto& places = result.places.empty() ? result.places : result.copies;
            places.push_back(placeOf(area, segment.count));
        } catch (const Failure& error) {
            if (!failure) {
                failure = error;
            }
        }
    }
    if (result.places.empty()) {
        throw failure.value_or(Failure(Problem::DAMAGED, "has a mirror without legs"));
    }
    return result;
}

LayerPlace LvmVolumes::placeOf(const std::pair<std::string, uint64_t>& area, uint64_t extents) {
    const auto& [name, extent] = area;
    for (const LvmDevice& device : m_text.devices) {
        if (device.name == name) {
            return placeOnDevice(device, extent, extents);
        }
    }
    const auto found = m_entries.find(name);
    if (found == m_entries.end()) {
        throw Failure(Problem::DAMAGED,
                      fmt::format("has a segment on {}, which there is not", name));
    }
    const Made& below = makeEntry(found->second);
    if (below.layer == nullptr) {
        throw Failure(below.problem, fmt::format("lies on {}, which {}", name, below.reason));
    }
    const uint64_t offset = bytes(extent);
    const uint64_t length = bytes(extents);
    if (offset > below.size || length > below.size - offset) {
        throw Failure(Problem::DAMAGED, fmt::format("has a segment outside of {}", name));
    }
    return {below.layer, offset};
}

LayerPlace LvmVolumes::placeOnDevice(const LvmDevice& device, uint64_t extent,
                                     uint64_t extents) const {
    if (extent > device.count || extents > device.count - extent) {
        throw Failure(Problem::DAMAGED,
                      fmt::format("has a segment outside of its physical volume {}", device.name));
    }
    const LvmDeviceLayer& found = m_devices.at(device.name);
    if (found.layer == nullptr) {
        throw Failure(Problem::LACKS_DEVICE, fmt::format("lies on physical volume {}, which {}",
                                                         device.name, found.problem));
    }
    bytes(device.count); // the end of the device fits as well
    return {found.layer, device.start * SECTOR_BYTES + bytes(extent)};
}
