// The owners of bytes of one volume, or of anything that volumes lie on, seen up through all of it.
#include "DdrescueMap.h"
#include "FileVisit.h"
#include "OwnerPrinter.h"
#include "Session.h"
#include "Stack.h"
#include "StackVolume.h"

#include <algorithm>
#include <map>

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

// Whether something that was found on a node cannot be read.
bool hidesBytes(const StackNode& node) {
    return std::any_of(node.children.begin(), node.children.end(), [](const StackNode* child) {
        const bool bad = child->state != NodeState::OK && child->state != NodeState::PARTIAL;
        return child->layer == nullptr && (bad || hidesBytes(*child));
    });
}

// Looks up from one node through all that lies on it.
class NodeOwners {
  public:
    NodeOwners(const Options& options, const Stack& stack, const StackNode& ground,
               const std::vector<ByteRange>& ranges)
        : m_stack(stack), m_ground(ground), m_provider(options.root), m_finder(ranges) {}

    OwnerFinder& find() {
        const std::map<const StackNode*, std::size_t> heights = heightsAbove();
        std::size_t top = 0;
        for (const auto& [node, height] : heights) {
            top = std::max(top, height);
        }
        for (const StackNode& node : m_stack.nodes()) {
            const auto found = heights.find(&node);
            if (found != heights.end()) {
                lookAt(node, FIRST_REST_RANK + top - found->second);
            }
        }
        m_finder.finish();
        return m_finder;
    }
    bool failed() const { return m_failed; }

  private:
    // What lies higher tells more.
    static constexpr std::size_t BEHIND_VOLUMES = 1;
    static constexpr std::size_t FIRST_REST_RANK = 2;

    // Nodes come behind those on which they lie.
    std::map<const StackNode*, std::size_t> heightsAbove() const {
        std::map<const StackNode*, std::size_t> heights = {{&m_ground, 0}};
        for (const StackNode& node : m_stack.nodes()) {
            for (const StackNode* parent : node.parents) {
                const auto below = heights.find(parent);
                if (below != heights.end()) {
                    heights[&node] = std::max(heights[&node], below->second + 1);
                }
            }
        }
        return heights;
    }

    void lookAt(const StackNode& node, std::size_t rank) {
        if (&node != &m_ground) {
            printNotes(node);
        }
        if (node.layer == nullptr) {
            return;
        }
        const std::vector<LayerUse> uses = usesOfRanges(*node.layer);
        m_finder.addAreas(BEHIND_VOLUMES, AreaKind::PARITY, {node.name, ""},
                          chosen(uses, [](UseKind kind) { return kind == UseKind::PARITY; }));
        if (node.children.empty()) {
            lookInto(node, uses);
        } else {
            m_finder.addAreas(rank, hidesBytes(node) ? AreaKind::HIDDEN : AreaKind::REST,
                              {node.name, node.rest}, held(uses));
        }
    }

    std::vector<LayerUse> usesOfRanges(const Layer& layer) const {
        std::vector<LayerUse> uses;
        for (const ByteRange& range : m_finder.ranges()) {
            for (const LayerUse& use :
                 layer.uses({m_ground.layer, range.begin}, range.end - range.begin)) {
                uses.push_back(use);
            }
        }
        return uses;
    }

    template <typename Wanted>
    static std::vector<LayerUse> chosen(const std::vector<LayerUse>& uses, Wanted wanted) {
        std::vector<LayerUse> result;
        std::copy_if(uses.begin(), uses.end(), std::back_inserter(result),
                     [&](const LayerUse& use) { return wanted(use.kind); });
        return result;
    }

    static std::vector<LayerUse> held(const std::vector<LayerUse>& uses) {
        return chosen(uses, [](UseKind kind) { return kind <= UseKind::COPY; });
    }

    void lookInto(const StackNode& node, const std::vector<LayerUse>& uses) {
        if (uses.empty()) {
            return;
        }
        try {
            addVolume(node, uses);
        } catch (const ToolError& error) {
            fail(node, uses, error);
        } catch (const SourceError& error) {
            fail(node, uses, readError(error));
        }
    }

    void fail(const StackNode& volume, const std::vector<LayerUse>& uses, const ToolError& error) {
        printMessage(volume.name, error.what());
        m_failed = true;
        m_finder.addAreas(BEHIND_VOLUMES, AreaKind::HIDDEN, {volume.name, ""}, held(uses));
    }

    void addVolume(const StackNode& node, const std::vector<LayerUse>& uses) {
        Volume volume(m_provider, *node.layer, node.name);
        if (!volume.claim()) {
            m_finder.beginVolume(node.name, uses, 0);
            return;
        }
        volume.open();
        printState(volume);
        findFile(volume, "/"); // nothing of a volume without a root is known to be free
        m_finder.beginVolume(node.name, uses, volume.fileSystemBytes());
        Failures failures(node.name, Failures::When::AT_ONCE);
        visitEveryFile(volume, "owner", failures,
                       [&](const std::string& path, File& file) { m_finder.add(path, file); });
        m_failed = m_failed || failures.count() != 0;
    }

    const Stack& m_stack;
    const StackNode& m_ground;
    Provider m_provider;
    OwnerFinder m_finder;
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
    printOwners(session.output, session.table, session.options.json, finder, ranges);
    return failures.count() == 0 ? ExitStatus::DONE : ExitStatus::FAILED;
}

ExitStatus runNodeOwner(const Options& options, const Stack& stack, const StackNode& ground,
                        const Table& table) {
    const std::vector<ByteRange> ranges = askedRanges(options);
    NodeOwners owners(options, stack, ground, ranges);
    const OwnerFinder& finder = owners.find();
    Output output;
    printOwners(output, table, options.json, finder, ranges);
    output.flush();
    return owners.failed() ? ExitStatus::FAILED : ExitStatus::DONE;
}
