// The layer of a logical volume: segments one after the other, each on one place or striped.
#ifndef STACK_LOGICALVOLUME_H
#define STACK_LOGICALVOLUME_H

#include "MappedLayer.h"

// All in bytes.
struct VolumeSegment {
    uint64_t start;
    uint64_t length;
    uint64_t stripeSize;            // the whole length where there is one place
    std::vector<LayerPlace> places; // one for each stripe; none: reads as zeros
    std::vector<LayerPlace> copies; // of a segment on one place: the same bytes once more
};

class LogicalVolume : public MappedLayer {
  public:
    // The segments lie next to each other from 0 on.
    LogicalVolume(std::string name, std::vector<VolumeSegment> segments);

  protected:
    LayerRun firstRun(uint64_t offset, uint64_t length) const override;
    std::vector<const Layer*> layersBelow() const override;
    std::vector<LayerUse> directUses(const LayerPlace& place, uint64_t length) const override;

  private:
    std::vector<VolumeSegment> m_segments;
};

#endif
