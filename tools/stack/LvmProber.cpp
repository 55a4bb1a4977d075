// Finds LVM2 physical volumes and puts the volume groups together.
#include "LvmLabel.h"
#include "LvmText.h"
#include "LvmVolumes.h"
#include "Prober.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>

namespace {

struct PhysicalVolume {
    StackNode* node;
    std::vector<std::string> texts;
    bool ambiguous = false; // found again with other metadata
};

// What the metadata of all physical volumes say of one group.
struct Group {
    LvmGroupText text; // of the highest sequence number
    std::string raw;
    std::string name;           // once it is put together
    bool contradictory = false; // two texts of one sequence number
};

NodeState stateOf(LvmVolumes::Problem problem) {
    switch (problem) {
    case LvmVolumes::Problem::UNSUPPORTED:
        return NodeState::UNSUPPORTED;
    case LvmVolumes::Problem::LACKS_DEVICE:
        return NodeState::INCOMPLETE;
    case LvmVolumes::Problem::DAMAGED:
        break;
    }
    return NodeState::DAMAGED;
}

class LvmProber : public Prober {
  public:
    bool look(Stack& /*stack*/, StackNode& node) override {
        auto label = readLvmLabel(*node.layer, node.notes);
        if (!label) {
            return false;
        }
        node.content = "LVM2 physical volume";
        node.rest = "group metadata";
        std::move(label->notes.begin(), label->notes.end(), std::back_inserter(node.notes));
        const auto [found, isNew] =
            m_devices.try_emplace(label->uuid, PhysicalVolume{&node, label->texts});
        if (!isNew) {
            noteDouble(node, found->second, *label);
            return true;
        }
        for (const std::string& text : label->texts) {
            take(node, text);
        }
        noteLate(node, label->uuid);
        return true;
    }

    bool assemble(Stack& stack, Demand demand) override {
        for (auto& [uuid, group] : m_groups) {
            if (group.name.empty() && (demand != Demand::COMPLETE || isComplete(group))) {
                add(stack, group);
                return true;
            }
        }
        return false;
    }

  private:
    static void noteDouble(StackNode& node, PhysicalVolume& first, const LvmLabel& label) {
        if (first.texts == label.texts) {
            node.notes.push_back(fmt::format("is a copy of {}, which is used", first.node->name));
            return;
        }
        first.ambiguous = true;
        node.notes.push_back(fmt::format("has the UUID of {} and other metadata; neither is used",
                                         first.node->name));
    }

    void take(StackNode& node, const std::string& raw) {
        try {
            LvmGroupText text = readLvmText(raw);
            const auto found = m_groups.find(text.uuid);
            if (found == m_groups.end()) {
                const std::string uuid = text.uuid;
                m_groups.emplace(uuid, Group{std::move(text), raw, ""});
                return;
            }
            Group& group = found->second;
            if (text.sequence > group.text.sequence && group.name.empty()) {
                group = {std::move(text), raw, ""};
            } else if (text.sequence == group.text.sequence && raw != group.raw) {
                group.contradictory = true;
            }
        } catch (const LvmTextError& error) {
            node.notes.push_back(fmt::format("its metadata cannot be used: {}", error.what()));
        }
    }

    // A volume of the group that holds the physical volume comes when the group is put together.
    void noteLate(StackNode& node, const std::string& deviceUuid) const {
        for (const auto& [uuid, group] : m_groups) {
            const bool lists =
                std::any_of(group.text.devices.begin(), group.text.devices.end(),
                            [&](const LvmDevice& device) { return device.uuid == deviceUuid; });
            if (lists && !group.name.empty()) {
                node.notes.push_back(fmt::format(
                    "comes too late for {}, which was put together without it", group.name));
            }
        }
    }

    bool isComplete(const Group& group) const {
        return std::all_of(group.text.devices.begin(), group.text.devices.end(),
                           [&](const LvmDevice& device) {
                               return !device.missing && m_devices.count(device.uuid) != 0;
                           });
    }

    LvmDeviceLayer layerOf(const LvmDevice& device, std::vector<StackNode*>& nodes) {
        const auto found = m_devices.find(device.uuid);
        if (found == m_devices.end()) {
            return {nullptr, "is missing"};
        }
        nodes.push_back(found->second.node);
        if (device.missing) {
            return {nullptr, "is marked as missing"};
        }
        if (found->second.ambiguous) {
            return {nullptr, "is there twice, with different metadata"};
        }
        return {found->second.node->layer, ""};
    }

    void add(Stack& stack, Group& group) {
        group.name = stack.freeName(group.text.name);
        StackNode node{group.name, "vg", 0, NodeState::OK, "", {}};
        std::map<std::string, LvmDeviceLayer> devices;
        std::vector<StackNode*> nodes;
        for (const LvmDevice& device : group.text.devices) {
            node.size += device.count * group.text.extentSectors * SECTOR_BYTES;
            const LvmDeviceLayer& layer =
                devices.insert_or_assign(device.name, layerOf(device, nodes)).first->second;
            if (layer.layer == nullptr) {
                node.state = NodeState::PARTIAL;
                node.notes.push_back(fmt::format("physical volume {} ({}) {}", device.name,
                                                 device.uuid, layer.problem));
            }
        }
        if (group.contradictory) {
            node.state = NodeState::DAMAGED;
            node.notes.push_back("its physical volumes hold different metadata of one age");
        }
        StackNode& added = stack.addNode(std::move(node), nodes);
        if (!group.contradictory) {
            addVolumes(stack, added, group, devices);
        }
    }

    static void addVolumes(Stack& stack, StackNode& parent, const Group& group,
                           const std::map<std::string, LvmDeviceLayer>& devices) {
        const std::string prefix = group.name + "/";
        LvmVolumes volumes(group.text, devices, prefix,
                           [&](std::unique_ptr<Layer> layer) -> const Layer& {
                               return stack.keep(std::move(layer));
                           });
        for (const LvmVolume& volume : group.text.volumes) {
            if (!volume.visible) {
                continue;
            }
            const LvmVolumes::Made made = volumes.make(volume);
            StackNode node{stack.freeName(prefix + volume.name),
                           "lv",
                           made.size,
                           NodeState::OK,
                           "",
                           {},
                           made.layer};
            if (made.layer == nullptr) {
                node.state = stateOf(made.problem);
                node.notes.push_back(made.reason);
            }
            stack.addNode(std::move(node), {&parent});
        }
    }

    std::map<std::string, PhysicalVolume> m_devices; // by UUID
    std::map<std::string, Group> m_groups;           // by UUID
};

} // namespace

std::unique_ptr<Prober> makeLvmProber() {
    return std::make_unique<LvmProber>();
}
