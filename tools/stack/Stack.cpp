#include "Stack.h"

#include "Prober.h"

#include <fmt/format.h>
#include <set>

namespace {

// Metadata that was made up to go on and on ends here.
constexpr std::size_t MOST_NODES = 4096;

// Probers in the order in which they look: a member of an array shows, at the same places, what the
// array holds.
constexpr std::unique_ptr<Prober> (*PROBERS[])() = {makeMdProber, makeLvmProber,
                                                    makePartitionProber};

std::string baseName(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos || slash + 1 == path.size() ? path : path.substr(slash + 1);
}

std::vector<std::unique_ptr<Prober>> makeProbers() {
    std::vector<std::unique_ptr<Prober>> probers;
    for (const auto make : PROBERS) {
        probers.push_back(make());
    }
    return probers;
}

} // namespace

const char* stateName(NodeState state) {
    switch (state) {
    case NodeState::OK:
        return "ok";
    case NodeState::DEGRADED:
        return "degraded";
    case NodeState::PARTIAL:
        return "partial";
    case NodeState::INCOMPLETE:
        return "incomplete";
    case NodeState::UNSUPPORTED:
        return "unsupported";
    case NodeState::DAMAGED:
        return "damaged";
    }
    return "";
}

// Disks whose base names are alike go by their paths.
Stack::Stack(const std::vector<std::string>& paths) : m_probers(makeProbers()) {
    std::map<std::string, std::set<std::string>> alike;
    for (const std::string& path : paths) {
        alike[baseName(path)].insert(path);
    }
    for (const std::string& path : paths) {
        const std::string base = baseName(path);
        addDisk(path, alike[base].size() > 1 ? path : base);
    }
}

Stack::~Stack() = default;

void Stack::addDisk(const std::string& path, const std::string& name) {
    std::unique_ptr<DiskImage> image;
    try {
        image = std::make_unique<DiskImage>(path, freeName(name));
    } catch (const SourceError& error) {
        throw SourceError(fmt::format("{}: {}", path, error.what()), error.pastEnd());
    }
    for (std::size_t i = 0; i < m_images.size(); ++i) {
        if (image->isSameAs(*m_images[i])) {
            m_disks[i]->notes.push_back(
                fmt::format("was given twice, also as {}; it is taken once", path));
            m_byPath.emplace(path, m_disks[i]);
            return;
        }
    }
    m_images.push_back(image.get());
    StackNode node{image->name(), "disk", image->size(), NodeState::OK, "", {}, image.get()};
    keep(std::move(image));
    m_disks.push_back(&addNode(std::move(node), {}));
    m_byPath.emplace(path, m_disks.back());
}

const Layer& Stack::keep(std::unique_ptr<Layer> layer) {
    return *m_layers.emplace_back(std::move(layer));
}

std::string Stack::freeName(const std::string& wanted) const {
    std::string name = wanted;
    for (int number = 2; m_byName.count(name) != 0; ++number) {
        name = fmt::format("{}~{}", wanted, number);
    }
    return name;
}

StackNode& Stack::addNode(StackNode node, const std::vector<StackNode*>& parents) {
    if (m_nodes.size() >= MOST_NODES) {
        throw SourceError(fmt::format("the disks hold more than {} parts", MOST_NODES), false);
    }
    StackNode& added = m_nodes.emplace_back(std::move(node));
    m_byName.emplace(added.name, &added);
    added.parents = parents;
    for (StackNode* parent : parents) {
        parent->children.push_back(&added);
    }
    return added;
}

const StackNode* Stack::find(const std::string& name) const {
    const auto found = m_byName.find(name);
    if (found != m_byName.end()) {
        return found->second;
    }
    const auto disk = m_byPath.find(name);
    return disk == m_byPath.end() ? nullptr : disk->second;
}

void Stack::discover() {
    do {
        while (lookAtNew()) {
        }
    } while (assembleSome());
}

bool Stack::lookAtNew() {
    if (m_lookedAt == m_nodes.size()) {
        return false;
    }
    StackNode& node = m_nodes[m_lookedAt++];
    if (node.layer != nullptr) {
        lookAt(node);
    }
    return true;
}

// What one prober cannot read need not concern the next.
void Stack::lookAt(StackNode& node) {
    for (const auto& prober : m_probers) {
        try {
            if (prober->look(*this, node)) {
                return;
            }
        } catch (const SourceError& error) {
            if (m_nodes.size() >= MOST_NODES) {
                throw;
            }
            node.notes.push_back(fmt::format("cannot be looked into: {}", error.what()));
        }
    }
}

bool Stack::assembleSome() {
    for (const Demand demand : {Demand::COMPLETE, Demand::USABLE, Demand::WHATEVER}) {
        for (const auto& prober : m_probers) {
            if (prober->assemble(*this, demand)) {
                return true;
            }
        }
    }
    return false;
}
