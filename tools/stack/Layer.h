// One level of a storage stack: a disk, a partition, an array, a logical volume.
//
// A layer is bytes that can be read, and a map of them onto the layers below. Layers are made by
// probers and owned by the stack that found them; a layer refers to those below it and must not
// outlive them. No layer knows another by name.
#ifndef STACK_LAYER_H
#define STACK_LAYER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

constexpr uint64_t SECTOR_BYTES = 512;

class Layer;

// A place on a layer, bytes.
struct LayerPlace {
    const Layer* layer;
    uint64_t offset;
};

enum class RunKind {
    DATA, // the bytes at one place
    XOR,  // the exclusive or of the bytes at all places: rebuilt for a missing member
    ZERO  // no place: reads as zeros
};

// So many bytes that go on together on the layers below.
struct LayerRun {
    uint64_t length;
    RunKind kind;
    std::vector<LayerPlace> places;
    std::vector<LayerPlace> copies = {}; // where the bytes lie once more, though not read there
};

// What bytes of a layer below are to a layer. In the order of their distance from its bytes.
enum class UseKind {
    DATA,     // its bytes, as they are read
    COPY,     // the same bytes once more
    REBUILDS, // its bytes are made from these and others
    PARITY    // they guard others
};

struct LayerUse {
    uint64_t offset; // on the layer below, bytes
    uint64_t length;
    UseKind kind;
    uint64_t logical; // on the layer; means nothing for parity
};

class Layer {
  public:
    virtual ~Layer() = default;
    Layer(const Layer&) = delete;
    Layer& operator=(const Layer&) = delete;

    // What users call it: "a.img", "a.img#2", "md0", "vg0/root".
    const std::string& name() const { return m_name; }
    // Bytes.
    uint64_t size() const { return m_size; }
    // Fills exactly `length` bytes from byte `offset` on, or throws SourceError naming the disk.
    virtual void read(uint64_t offset, std::size_t length, char* buffer) const = 0;
    // Has the kernel copy bytes from `offset` on to byte `to` of the open file `target`, past this
    // process's memory. Returns how many of `length` it copied; 0 where it cannot, which `read` and
    // a write can explain.
    virtual std::size_t send(uint64_t offset, std::size_t length, int target,
                             uint64_t to) const = 0;
    // The range as runs on the layers below, in order, together as long as the range. A disk, which
    // has none below, answers with no run. Throws SourceError for a range that cannot be told.
    virtual std::vector<LayerRun> map(uint64_t offset, uint64_t length) const = 0;
    // The other way round: what a range of any layer is to this one, which may lie on it through
    // others. In no order; of one place there may be several uses, or none. Parity is a use of the
    // layer that keeps it only, not of those above.
    virtual std::vector<LayerUse> uses(const LayerPlace& place, uint64_t length) const = 0;

  protected:
    Layer(std::string name, uint64_t size) : m_name(std::move(name)), m_size(size) {}
    // Throws SourceError for a range that does not lie within the layer.
    void checkRange(uint64_t offset, uint64_t length) const;
    // The uses of its own bytes.
    static std::vector<LayerUse> ownUses(const LayerPlace& place, uint64_t length);

  private:
    std::string m_name;
    uint64_t m_size;
};

#endif
