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
    std::vector<const Layer*> layersBelow() const override;
    std::vector<LayerUse> directUses(const LayerPlace& place, uint64_t length) const override;

  private:
    struct Member {
        const Layer* layer; // null for a missing one
        uint64_t start;     // of its data, bytes
        uint64_t length;    // of what the array uses
    };
    // Where the library says that bytes of the array lie, or would lie.
    struct Location {
        uint32_t role;
        uint64_t offset; // in the member's data
        uint64_t length;
    };
    // The array's chunks that lie at one height on all members.
    struct Row {
        uint64_t firstChunk;
        uint64_t chunks;
    };

    void addToLibrary(const MdAssembly& assembly);
    Location locate(uint64_t offset, uint64_t length) const;
    Row rowAt(uint64_t height) const;
    bool keepsParity() const { return m_level >= 4 && m_level <= 6; }
    bool areMirrors(uint32_t a, uint32_t b) const;
    UseKind mirrorKind(uint32_t role, uint32_t holder) const;
    void appendRowUses(uint32_t role, uint64_t offset, uint64_t length,
                       std::vector<LayerUse>& uses) const;
    LayerPlace placeOn(uint32_t role, uint64_t offset) const;
    LayerRun mirrorRun(const Location& at) const;
    LayerRun rebuiltRun(const Location& at) const;

    int32_t m_level;
    uint64_t m_chunkBytes; // a mirror is one chunk
    uint32_t m_dataDisks;
    std::vector<Member> m_members; // by role
    // An object of its own for each array, because the library tells arrays apart by less than
    // their whole UUID. Its operations are not const, though mapping changes nothing.
    mutable RvpRaid m_raid;
    mutable RvpVolume m_volume;
};

#endif
