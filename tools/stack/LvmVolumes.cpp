#include "LvmVolumes.h"

#include "MdSuperblock.h"

#include <algorithm>
#include <fmt/format.h>

namespace {

constexpr unsigned DEEPEST = 16; // volumes that lie on each other
constexpr uint64_t LARGEST_VOLUME = UINT64_C(1) << 62;

} // namespace

class LvmVolumes::Failure : public std::runtime_error {
  public:
    enum class Kind { DAMAGED, UNSUPPORTED, LACKS_DEVICE };
    Failure(Kind kind, const std::string& text) : std::runtime_error(text), m_kind(kind) {}
    Kind kind() const { return m_kind; }

  private:
    Kind m_kind;
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
        throw Failure(Failure::Kind::DAMAGED, "is larger than any disk");
    }
    return extents * extentBytes;
}

LvmVolumes::Made LvmVolumes::make(const LvmVolume& volume) {
    return makeEntry(m_entries.at(volume.name));
}

const LvmVolumes::Made& LvmVolumes::makeEntry(Entry& entry) {
    if (entry.progress == Progress::BEING_MADE) {
        throw Failure(Failure::Kind::DAMAGED, "lies on itself");
    }
    if (entry.progress == Progress::DONE) {
        return entry.made;
    }
    entry.progress = Progress::BEING_MADE;
    try {
        uint64_t extents = 0;
        for (const LvmSegment& segment : entry.volume->segments) {
            extents += segment.count;
        }
        entry.made.size = bytes(extents);
        entry.made.layer = build(*entry.volume);
    } catch (const Failure& failure) {
        entry.made.problem = failure.what();
        entry.made.unsupported = failure.kind() == Failure::Kind::UNSUPPORTED;
        entry.made.lacksDevice = failure.kind() == Failure::Kind::LACKS_DEVICE;
    }
    entry.progress = Progress::DONE;
    return entry.made;
}

const Layer* LvmVolumes::build(const LvmVolume& volume) {
    if (!volume.cannotBeRead.empty()) {
        throw Failure(Failure::Kind::UNSUPPORTED, volume.cannotBeRead);
    }
    if (m_depth >= DEEPEST) {
        throw Failure(Failure::Kind::DAMAGED, "lies on too many others in a row");
    }
    std::vector<VolumeSegment> segments;
    uint64_t next = 0; // extent
    ++m_depth;
    try {
        for (const LvmSegment& segment : volume.segments) {
            if (segment.start != next || segment.count == 0) {
                throw Failure(Failure::Kind::DAMAGED, "has segments with gaps or overlaps");
            }
            next += segment.count;
            segments.push_back(segmentOf(segment));
        }
    } catch (...) {
        --m_depth;
        throw;
    }
    --m_depth;
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
    throw Failure(Failure::Kind::UNSUPPORTED,
                  fmt::format("has a segment of type {}, which is not supported", segment.type));
}

VolumeSegment LvmVolumes::stripesOf(const LvmSegment& segment) {
    const uint64_t stripes = segment.areas.size();
    if (stripes == 0 || segment.count % stripes != 0 ||
        (stripes > 1 &&
         (segment.stripeSize == 0 ||
          m_text.extentSectors * (segment.count / stripes) % segment.stripeSize != 0))) {
        throw Failure(Failure::Kind::DAMAGED, "has a segment whose stripes make no sense");
    }
    VolumeSegment result{
        bytes(segment.start), bytes(segment.count), segment.stripeSize * SECTOR_BYTES, {}, {}};
    for (const auto& area : segment.areas) {
        result.places.push_back(placeOf(area, segment.count / stripes));
    }
    return result;
}

// All legs hold the same; the first of those that can be read is taken.
VolumeSegment LvmVolumes::legsOf(const LvmSegment& segment) {
    VolumeSegment result{bytes(segment.start), bytes(segment.count), 0, {}, {}};
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
        throw failure.value_or(Failure(Failure::Kind::DAMAGED, "has a mirror without legs"));
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
        throw Failure(Failure::Kind::DAMAGED,
                      fmt::format("has a segment on {}, which there is not", name));
    }
    const Made& below = makeEntry(found->second);
    if (below.layer == nullptr) {
        throw Failure(below.unsupported   ? Failure::Kind::UNSUPPORTED
                      : below.lacksDevice ? Failure::Kind::LACKS_DEVICE
                                          : Failure::Kind::DAMAGED,
                      fmt::format("lies on {}, which {}", name, below.problem));
    }
    const uint64_t offset = bytes(extent);
    const uint64_t length = bytes(extents);
    if (offset > below.size || length > below.size - offset) {
        throw Failure(Failure::Kind::DAMAGED, fmt::format("has a segment outside of {}", name));
    }
    return {below.layer, offset};
}

LayerPlace LvmVolumes::placeOnDevice(const LvmDevice& device, uint64_t extent,
                                     uint64_t extents) const {
    if (extent > device.count || extents > device.count - extent) {
        throw Failure(Failure::Kind::DAMAGED,
                      fmt::format("has a segment outside of its physical volume {}", device.name));
    }
    const LvmDeviceLayer& found = m_devices.at(device.name);
    if (found.layer == nullptr) {
        throw Failure(
            Failure::Kind::LACKS_DEVICE,
            fmt::format("lies on physical volume {}, which {}", device.name, found.problem));
    }
    bytes(device.count); // the end of the device fits as well
    return {found.layer, device.start * SECTOR_BYTES + bytes(extent)};
}
