// The owners of bytes of one volume, or of a disk, seen up through everything that lies on it.
#include "DdrescueMap.h"
#include "FileVisit.h"
#include "OwnerPrinter.h"
#include "Session.h"
#include "SourceError.h"
#include "Stack.h"

#include <algorithm>
#include <set>

namespace {

std::vector<ByteRange> askedRanges(const Options& options) {
    std::vector<ByteRange> ranges;
    for (const std::string& text : options.ranges) {
        ranges.push_back(parseRange(text));
    }
    if (!options.ddrescue.empty()) {
        const std::vector<ByteRange> bad = readBadAreas(options.ddrescue);
        ranges.insert(ranges.end(), bad.begin(), bad.end());
    }
    return ranges;
}

// The ends of the tree above a disk: nodes that can be read and on which nothing else was found.
void collectVolumes(const StackNode& node, std::set<const StackNode*>& seen,
                    std::vector<const StackNode*>& volumes) {
    if (!seen.insert(&node).second) {
        return;
    }
    if (node.children.empty() && node.layer != nullptr) {
        volumes.push_back(&node);
    }
    for (const StackNode* child : node.children) {
        collectVolumes(*child, seen, volumes);
    }
}

class DiskOwners {
  public:
    DiskOwners(const Options& options, const Stack& stack, const StackNode& disk,
               const std::vector<ByteRange>& ranges)
        : m_stack(stack), m_provider(options.root), m_finder(ranges),
          m_disk(static_cast<std::size_t>(
              std::find(stack.disks().begin(), stack.disks().end(), &disk) -
              stack.disks().begin())) {
        std::set<const StackNode*> seen;
        collectVolumes(disk, seen, m_volumes);
    }

    OwnerFinder& find() {
        for (const StackNode* volume : m_volumes) {
            try {
                addVolume(*volume);
            } catch (const ToolError& error) {
                fail(*volume, error.what());
            } catch (const SourceError& error) {
                fail(*volume, error.what());
            }
        }
        m_finder.finish();
        return m_finder;
    }
    bool failed() const { return m_failed; }

  private:
    void fail(const StackNode& volume, const char* reason) {
        printMessage(volume.name, reason);
        m_failed = true;
    }

    void addVolume(const StackNode& node) {
        const PhysicalMap map(*node.layer, &m_stack);
        Volume volume(m_provider, *node.layer, node.name);
        if (!volume.claim()) {
            m_finder.beginVolume(node.name, map, m_disk, node.layer->size(), AreaKind::UNREAD);
            return;
        }
        volume.open();
        m_finder.beginVolume(node.name, map, m_disk,
                             std::min(volume.fileSystemBytes(), node.layer->size()),
                             AreaKind::FILE_SYSTEM);
        Failures failures(node.name, Failures::When::AT_ONCE);
        visitEveryFile(volume, "owner", failures,
                       [&](const std::string& path, File& file) { m_finder.add(path, file); });
        m_failed = m_failed || failures.count() != 0;
    }

    const Stack& m_stack;
    Provider m_provider;
    OwnerFinder m_finder;
    std::size_t m_disk;
    std::vector<const StackNode*> m_volumes;
    bool m_failed = false;
};

} // namespace

ExitStatus runOwner(Session& session) {
    const std::vector<ByteRange> ranges = askedRanges(session.options);
    OwnerFinder finder(ranges);
    finder.beginVolume(session.volume.fileSystemBytes());
    Failures failures(session.options.volume, Failures::When::AT_ONCE);
    visitEveryFile(session.volume, "owner", failures,
                   [&](const std::string& path, File& file) { finder.add(path, file); });
    finder.finish();
    printOwners(session.output, session.table, session.options.json, finder, ranges,
                Ground::VOLUME);
    return failures.count() == 0 ? ExitStatus::DONE : ExitStatus::FAILED;
}

ExitStatus runDiskOwner(const Options& options, const Stack& stack, const StackNode& disk,
                        const Table& table) {
    const std::vector<ByteRange> ranges = askedRanges(options);
    DiskOwners owners(options, stack, disk, ranges);
    const OwnerFinder& finder = owners.find();
    Output output;
    printOwners(output, table, options.json, finder, ranges, Ground::DISK);
    output.flush();
    return owners.failed() ? ExitStatus::FAILED : ExitStatus::DONE;
}
