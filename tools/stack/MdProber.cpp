// Finds members of md arrays and puts the arrays together.
#include "MdArray.h"
#include "MdAssembly.h"
#include "Prober.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>

namespace {

struct Group {
    std::vector<MdMember> members;
    std::vector<StackNode*> nodes; // of the members, in the same order
    std::string name;              // once it is put together
};

NodeState stateOf(MdState state) {
    switch (state) {
    case MdState::COMPLETE:
        return NodeState::OK;
    case MdState::DEGRADED:
        return NodeState::DEGRADED;
    case MdState::INCOMPLETE:
        return NodeState::INCOMPLETE;
    case MdState::UNSUPPORTED:
        break;
    }
    return NodeState::UNSUPPORTED;
}

bool meets(MdState state, Demand demand) {
    return demand == Demand::WHATEVER || state == MdState::COMPLETE ||
           (demand == Demand::USABLE && state == MdState::DEGRADED);
}

class MdProber : public Prober {
  public:
    bool look(Stack& /*stack*/, StackNode& node) override {
        auto superblock = readMdSuperblock(*node.layer, node.notes);
        if (!superblock) {
            return false;
        }
        node.content = fmt::format("md member, {}", superblock->version);
        node.rest = "array metadata";
        Group& group = m_groups[superblock->uuid];
        if (!group.name.empty()) {
            node.notes.push_back(fmt::format(
                "comes too late for {}, which was put together without it", group.name));
            return true;
        }
        group.members.push_back({node.layer, std::move(*superblock)});
        group.nodes.push_back(&node);
        return true;
    }

    bool assemble(Stack& stack, Demand demand) override {
        for (auto& [uuid, group] : m_groups) {
            if (group.name.empty()) {
                const MdAssembly assembly = assembleMd(group.members);
                if (meets(assembly.state, demand)) {
                    add(stack, group, assembly);
                    return true;
                }
            }
        }
        return false;
    }

  private:
    static void add(Stack& stack, Group& group, const MdAssembly& assembly) {
        const MdSuperblock& array = assembly.newest->superblock;
        StackNode node{stack.freeName(array.arrayName),
                       array.level >= 0 ? fmt::format("raid{}", array.level) : "md",
                       assembly.size,
                       stateOf(assembly.state),
                       "",
                       {}};
        group.name = node.name;
        describeMembers(group, assembly, array.raidDisks);
        if (!assembly.reason.empty()) {
            node.notes.push_back(assembly.reason);
        }
        if (assembly.state == MdState::COMPLETE || assembly.state == MdState::DEGRADED) {
            node.layer = &stack.keep(std::make_unique<MdArray>(node.name, assembly));
        }
        stack.addNode(std::move(node), group.nodes);
    }

    static void describeMembers(Group& group, const MdAssembly& assembly, uint32_t raidDisks) {
        for (std::size_t i = 0; i < group.members.size(); ++i) {
            const MdSuperblock& own = group.members[i].superblock;
            StackNode& node = *group.nodes[i];
            if (own.kind == MemberKind::ACTIVE) {
                node.content += fmt::format(", role {} of {}", own.role, raidDisks);
            }
            const uint64_t end = (own.dataStart + own.dataSectors) * SECTOR_BYTES;
            if (end > node.size) {
                node.notes.push_back(fmt::format("is cut short: its data reach to byte {}", end));
            }
            for (const auto& [member, why] : assembly.unused) {
                if (member == &group.members[i]) {
                    node.notes.push_back(fmt::format("is not used in {}: it {}", group.name, why));
                }
            }
        }
    }

    std::map<std::array<uint8_t, 16>, Group> m_groups;
};

} // namespace

std::unique_ptr<Prober> makeMdProber() {
    return std::make_unique<MdProber>();
}
