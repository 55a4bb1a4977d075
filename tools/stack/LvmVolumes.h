// The logical volumes of a group, made into layers as far as they can be read.
#ifndef STACK_LVMVOLUMES_H
#define STACK_LVMVOLUMES_H

#include "LogicalVolume.h"
#include "LvmText.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

// A physical volume of the group, by its name there.
struct LvmDeviceLayer {
    const Layer* layer;  // null: it cannot be used
    std::string problem; // then why, in words that follow its name
};

// Layers are handed to `keep`, those of hidden volumes that others lie on as well.
class LvmVolumes {
  public:
    using Keep = std::function<const Layer&(std::unique_ptr<Layer>)>;
    // `text` and `devices` must outlive this. `namePrefix` comes before the names of the volumes.
    LvmVolumes(const LvmGroupText& text, const std::map<std::string, LvmDeviceLayer>& devices,
               std::string namePrefix, Keep keep);

    enum class Problem { DAMAGED, UNSUPPORTED, LACKS_DEVICE };
    struct Made {
        const Layer* layer = nullptr;
        uint64_t size = 0;                  // bytes, known for those that cannot be read as well
        std::string reason;                 // why there is no layer, in words that follow the name
        Problem problem = Problem::DAMAGED; // then
    };
    // Throws nothing of its own: what is wrong is said in the result.
    Made make(const LvmVolume& volume);

  private:
    class Failure;
    enum class Progress { NOT_MADE, BEING_MADE, DONE };
    struct Entry {
        const LvmVolume* volume;
        Progress progress = Progress::NOT_MADE;
        Made made = {};
    };

    const Made& makeEntry(Entry& entry);
    const Layer* build(const LvmVolume& volume);
    VolumeSegment segmentOf(const LvmSegment& segment);
    VolumeSegment stripesOf(const LvmSegment& segment);
    VolumeSegment legsOf(const LvmSegment& segment);
    LayerPlace placeOf(const std::pair<std::string, uint64_t>& area, uint64_t extents);
    LayerPlace placeOnDevice(const LvmDevice& device, uint64_t extent, uint64_t extents) const;
    uint64_t bytes(uint64_t extents) const;

    const LvmGroupText& m_text;
    const std::map<std::string, LvmDeviceLayer>& m_devices;
    std::string m_namePrefix;
    Keep m_keep;
    std::map<std::string, Entry> m_entries;
    unsigned m_depth = 0;
};

#endif
