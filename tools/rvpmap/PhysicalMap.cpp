#include "PhysicalMap.h"

#include "Session.h"

namespace {

// A plain image or device is its own and only disk.
class IdentityMap : public PhysicalMap {
  public:
    explicit IdentityMap(const Volume& volume) : m_disks{{volume.name(), volume.source().size()}} {}

    const std::vector<PhysicalDisk>& disks() const override { return m_disks; }
    void append(uint64_t offset, uint64_t length, std::vector<PhysicalRun>& runs) const override {
        runs.push_back({offset, length, 0, offset, false});
    }
    bool isIdentity() const override { return true; }

  private:
    std::vector<PhysicalDisk> m_disks;
};

} // namespace

std::unique_ptr<PhysicalMap> makePhysicalMap(const Session& session) {
    return std::make_unique<IdentityMap>(session.volume);
}
