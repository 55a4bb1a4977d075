// The layer of an md array: addresses are mapped by the geometry library, run by run.
#ifndef STACK_MDARRAY_H
#define STACK_MDARRAY_H

#include "MappedLayer.h"
#include "MdAssembly.h"

#include "RvpRaid.h"

class MdArray : public MappedLayer {
  public:
    // `assembly` is complete or degraded.
    MdArray(std::string name, const MdAssembly& assembly);

  protected:
    LayerRun firstRun(uint64_t offset, uint64_t length) const override;

  private:
    struct Member {
        const Layer* layer; // null for a missing one
        uint64_t start;     // of its data, bytes
    };

    void addToLibrary(const MdAssembly& assembly);
    LayerPlace placeOn(uint32_t role, uint64_t offset) const;
    LayerRun rebuiltRun(uint32_t role, uint64_t offset, uint64_t length) const;

    int32_t m_level;
    std::vector<Member> m_members; // by role
    // An object of its own for each array, because the library tells arrays apart by less than
    // their whole UUID. Its operations are not const, though mapping changes nothing.
    mutable RvpRaid m_raid;
    mutable RvpVolume m_volume;
};

#endif
