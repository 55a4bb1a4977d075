// Where the bytes of a volume lie on the disks below it.
#ifndef RVPMAP_PHYSICALMAP_H
#define RVPMAP_PHYSICALMAP_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct Session;

// Bytes that lie together on one disk.
struct PhysicalRun {
    uint64_t logical; // where they begin on the volume
    uint64_t length;
    std::size_t disk; // index into `disks`
    uint64_t offset;  // on the disk
    // The volume's bytes are the exclusive or of several such runs: one member is missing.
    bool rebuilt;
};

struct PhysicalDisk {
    std::string name;
    uint64_t size; // bytes
};

class PhysicalMap {
  public:
    virtual ~PhysicalMap() = default;
    virtual const std::vector<PhysicalDisk>& disks() const = 0;
    // Appends the runs of a range of the volume, in the volume's order. What lies on no disk has
    // no run. Throws ToolError for a range that cannot be mapped.
    virtual void append(uint64_t offset, uint64_t length, std::vector<PhysicalRun>& runs) const = 0;
    // Whether volume and disk are the same thing.
    virtual bool isIdentity() const = 0;
};

// For the session's volume, which must outlive the map.
std::unique_ptr<PhysicalMap> makePhysicalMap(const Session& session);

#endif
