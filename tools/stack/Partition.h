// The layer of a partition: a range of another layer.
#ifndef STACK_PARTITION_H
#define STACK_PARTITION_H

#include "MappedLayer.h"

class Partition : public MappedLayer {
  public:
    // `start` and `size` in bytes. The range may reach past the end of an image that was cut short:
    // reading there then fails with the disk's name.
    Partition(std::string name, const Layer& below, uint64_t start, uint64_t size)
        : MappedLayer(std::move(name), size), m_below(below), m_start(start) {}

  protected:
    LayerRun firstRun(uint64_t offset, uint64_t length) const override {
        return {length, RunKind::DATA, {{&m_below, m_start + offset}}};
    }
    std::vector<const Layer*> layersBelow() const override { return {&m_below}; }
    std::vector<LayerUse> directUses(const LayerPlace& place, uint64_t length) const override {
        std::vector<LayerUse> uses;
        appendUse(uses, commonUse(m_start, size(), place, length, UseKind::DATA));
        return uses;
    }

  private:
    const Layer& m_below;
    uint64_t m_start;
};

#endif
