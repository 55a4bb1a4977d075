// Trees as short texts to compare: vg{id="abc"s seqno=3n status["READ"s 1n]}.
#ifndef TESTS_LVM_TREETEXT_H
#define TESTS_LVM_TREETEXT_H

#include "LvmConfig.h"

#include <sstream>
#include <string>

inline std::string treeText(const LvmConfig::Node& node) {
    // By type, behind the name and behind the children: section, string, number, array, scalar.
    constexpr const char* OPENING[] = {"{", "s", "n", "[", "="};
    constexpr const char* CLOSING[] = {"}", "", "", "]", ""};
    std::string children;
    for (const LvmConfig::Node& child : node.children) {
        children += (children.empty() ? "" : " ") + treeText(child);
    }
    return node.name + OPENING[node.type] + children + CLOSING[node.type];
}

// The tree that a reading leaves.
inline std::string readText(LvmConfig& config, const std::string& text) {
    config.parse(text);
    return (config.getErrorCode() == 0 ? "" : "error ") + treeText(config.root);
}

inline std::string dumpText(const LvmConfig::Node& node, int indent = 0) {
    std::ostringstream out;
    node.dump(out, indent);
    return out.str();
}

#endif
