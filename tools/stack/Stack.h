// What a set of disks holds: disks, partitions, arrays, volume groups and logical volumes, found by
// a table of probers and kept as a tree, in which an array hangs below each of its members.
//
//     Stack stack({"a.img", "b.img"});
//     stack.discover();
//     if (const StackNode* node = stack.find("md0")) { ... node->layer ... }
#ifndef STACK_STACK_H
#define STACK_STACK_H

#include "DiskImage.h"
#include "Layer.h"

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

class Prober;

enum class NodeState {
    OK,
    DEGRADED,   // readable, with a member missing
    PARTIAL,    // a volume group: some of its logical volumes cannot be read
    INCOMPLETE, // too much is missing
    UNSUPPORTED,
    DAMAGED // contradicts itself or what it lies on
};
const char* stateName(NodeState state);

// One line of the tree.
struct StackNode {
    std::string name;
    std::string type;  // "disk", "part", "raid5", "vg", "lv"
    uint64_t size = 0; // bytes
    NodeState state = NodeState::OK;
    std::string content;            // "gpt", "md member"; empty when no prober knows it
    std::vector<std::string> notes; // what users have to know, in words that follow the name
    const Layer* layer = nullptr;   // null when it cannot be read; the notes then say why
    std::vector<StackNode*> parents = {};
    std::vector<StackNode*> children = {};
    std::string rest = {}; // what those of its bytes are that nothing found on it holds
};

class Stack {
  public:
    // Opens the disks. A file or device given twice is taken once, with a note. Throws SourceError
    // that names the disk.
    explicit Stack(const std::vector<std::string>& paths);
    ~Stack();
    Stack(const Stack&) = delete;
    Stack& operator=(const Stack&) = delete;

    // Looks into every layer, until nothing new is found.
    void discover();

    const std::vector<StackNode*>& disks() const { return m_disks; }
    // All nodes in the order in which they were found, disks first.
    const std::deque<StackNode>& nodes() const { return m_nodes; }
    // By its name or, for a disk, by the path it was given as; null when there is none.
    const StackNode* find(const std::string& name) const;

    // For probers. A layer that is kept lives as long as the stack.
    const Layer& keep(std::unique_ptr<Layer> layer);
    // `wanted`, or with a number behind it where that name is taken already.
    std::string freeName(const std::string& wanted) const;
    StackNode& addNode(StackNode node, const std::vector<StackNode*>& parents);

  private:
    void addDisk(const std::string& path, const std::string& name);
    bool lookAtNew();
    void lookAt(StackNode& node);
    bool assembleSome();

    std::vector<std::unique_ptr<Layer>> m_layers;
    std::deque<StackNode> m_nodes; // addresses stay
    std::map<std::string, const StackNode*> m_byName;
    std::vector<StackNode*> m_disks;
    std::vector<const DiskImage*> m_images;
    std::map<std::string, const StackNode*> m_byPath; // disks
    std::vector<std::unique_ptr<Prober>> m_probers;
    std::size_t m_lookedAt = 0;
};

#endif
