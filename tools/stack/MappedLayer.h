// What the layers above the disks share: reading by the runs of `map`.
#ifndef STACK_MAPPEDLAYER_H
#define STACK_MAPPEDLAYER_H

#include "Layer.h"

#include <vector>

class MappedLayer : public Layer {
  public:
    void read(uint64_t offset, std::size_t length, char* buffer) const override;
    std::size_t send(uint64_t offset, std::size_t length, int target, uint64_t to) const override;
    std::vector<LayerRun> map(uint64_t offset, uint64_t length) const override;
    std::vector<LayerUse> uses(const LayerPlace& place, uint64_t length) const override;

  protected:
    using Layer::Layer;
    // The first run of a range that lies within the layer and is not empty; as long as may be.
    virtual LayerRun firstRun(uint64_t offset, uint64_t length) const = 0;
    // The layers on which this one lies directly, each once.
    virtual std::vector<const Layer*> layersBelow() const = 0;
    // What a range of one of them is to this one.
    virtual std::vector<LayerUse> directUses(const LayerPlace& place, uint64_t length) const = 0;
};

// What [`start`, `start + size`) of a layer below and a range of it have in common, `logical`
// counted from `start`; a length of 0 when they have nothing.
LayerUse commonUse(uint64_t start, uint64_t size, const LayerPlace& place, uint64_t length,
                   UseKind kind);
// Appends a use, as part of the last one where it goes on from there.
void appendUse(std::vector<LayerUse>& uses, const LayerUse& use);
// Appends a run, as part of the last one where it goes on from there.
void appendRun(std::vector<LayerRun>& runs, LayerRun run);
// Fills `run.length` bytes from the places of a run. Throws SourceError.
void readRun(const LayerRun& run, char* buffer);

#endif
