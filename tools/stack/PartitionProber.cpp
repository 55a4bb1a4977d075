// Finds partitions, on everything but partitions.
#include "Partition.h"
#include "PartitionTable.h"
#include "Prober.h"

#include <fmt/format.h>

namespace {

constexpr const char* PARTITION = "part"; // a node's type

class PartitionProber : public Prober {
  public:
    bool look(Stack& stack, StackNode& node) override {
        if (node.type == PARTITION) {
            return false;
        }
        const auto table = readPartitionTable(*node.layer);
        if (!table) {
            return false;
        }
        node.content = table->type;
        node.rest = "partition table";
        for (const PartitionEntry& entry : table->partitions) {
            add(stack, node, entry);
        }
        return true;
    }

  private:
    void add(Stack& stack, StackNode& disk, const PartitionEntry& entry) {
        StackNode node{stack.freeName(fmt::format("{}#{}", disk.name, entry.number)),
                       PARTITION,
                       entry.size,
                       NodeState::OK,
                       "",
                       {}};
        if (entry.start >= disk.size) {
            node.state = NodeState::DAMAGED;
            node.notes.push_back(fmt::format("starts at byte {} of {}, which has {} bytes",
                                             entry.start, disk.name, disk.size));
        } else {
            if (entry.size > disk.size - entry.start) {
                node.state = NodeState::DAMAGED;
                node.notes.push_back(fmt::format("reaches past the end of {}, which has {} bytes",
                                                 disk.name, disk.size));
            }
            node.layer = &stack.keep(
                std::make_unique<Partition>(node.name, *disk.layer, entry.start, entry.size));
        }
        stack.addNode(std::move(node), {&disk});
    }
};

} // namespace

std::unique_ptr<Prober> makePartitionProber() {
    return std::make_unique<PartitionProber>();
}
