#include "StackVolume.h"

#include "ExitStatus.h"
#include "Messages.h"
#include "Text.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <set>

namespace {

constexpr std::string_view GROUP_TYPE = "vg";

std::string shownNames(const std::vector<const StackNode*>& nodes) {
    std::vector<std::string> names;
    for (const StackNode* node : nodes) {
        names.push_back(shownName(node->name));
    }
    return fmt::format("{}", fmt::join(names, ", "));
}

const StackNode* findShown(const Stack& stack, const std::string& name) {
    const auto found =
        std::find_if(stack.nodes().begin(), stack.nodes().end(),
                     [&](const StackNode& node) { return printable(node.name) == name; });
    return found == stack.nodes().end() ? nullptr : &*found;
}

[[noreturn]] void failUnknown(const Stack& stack) {
    std::vector<const StackNode*> readable;
    for (const StackNode& node : stack.nodes()) {
        if (node.layer != nullptr) {
            readable.push_back(&node);
        }
    }
    throw ToolError(ExitStatus::NOT_FOUND,
                    fmt::format("is not on the disks, which hold {}", shownNames(readable)));
}

[[noreturn]] void failUnreadable(const StackNode& node) {
    if (node.type == GROUP_TYPE) {
        throw ToolError(ExitStatus::NOT_FOUND,
                        fmt::format("is a volume group, with the logical volumes {}",
                                    shownNames({node.children.begin(), node.children.end()})));
    }
    throw ToolError(ExitStatus::FAILED,
                    fmt::format("{}: {}", stateName(node.state),
                                printable(fmt::format("{}", fmt::join(node.notes, "; ")))));
}

// Each node once, however many ways lead to it.
void printAllNotes(const StackNode& node, std::set<const StackNode*>& seen) {
    if (!seen.insert(&node).second) {
        return;
    }
    for (const StackNode* parent : node.parents) {
        printAllNotes(*parent, seen);
    }
    printNotes(node);
}

} // namespace

void printNotes(const StackNode& node) {
    for (const std::string& note : node.notes) {
        printMessage(node.name, printable(note));
    }
}

std::string shownName(const std::string& name) {
    const std::string shown = printable(name);
    const bool plain = std::all_of(shown.begin(), shown.end(), [](char c) {
        return static_cast<unsigned char>(c) > ' ' &&
               std::string_view("'\"\\$`&|;<>()*?[]!{}~").find(c) == std::string_view::npos;
    });
    return plain ? shown : fmt::format("'{}'", shown);
}

const StackNode& findVolume(const Stack& stack, const std::string& name) {
    const StackNode* node = stack.find(name);
    if (node == nullptr) {
        node = findShown(stack, name);
    }
    if (node == nullptr) {
        failUnknown(stack);
    }
    if (node->layer == nullptr) {
        failUnreadable(*node);
    }
    std::set<const StackNode*> seen;
    printAllNotes(*node, seen);
    return *node;
}
