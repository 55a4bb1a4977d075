// Trees as short texts to compare: vg{id=s"abc" seqno=n3 status[s"READ" n1]}.
#ifndef TESTS_LVM_TREETEXT_H
#define TESTS_LVM_TREETEXT_H

#include "LvmConfig.h"

#include <ostream>
#include <sstream>
#include <string>

inline std::string treeText(const LvmConfig::Node& node) {
    if (node.type == LvmConfig::Node::STRING || node.type == LvmConfig::Node::NUMBER) {
        return (node.type == LvmConfig::Node::STRING ? "s" : "n") + node.name;
    }
    std::string children;
    for (const LvmConfig::Node& child : node.children) {
        children += (children.empty() ? "" : " ") + treeText(child);
    }
    switch (node.type) {
    case LvmConfig::Node::SCALAR:
        return node.name + '=' + children;
    case LvmConfig::Node::ARRAY:
        return node.name + '[' + children + ']';
    default:
        return node.name + '{' + children + '}';
    }
}

// What a reading left.
struct Reading {
    int error;
    std::string tree;

    bool operator==(const Reading&) const = default;
    friend std::ostream& operator<<(std::ostream& out, const Reading& reading) {
        return out << "error " << reading.error << ", tree " << reading.tree;
    }
};

inline Reading readText(LvmConfig& config, const std::string& text) {
    config.parse(text);
    return {config.getErrorCode(), treeText(config.root)};
}

inline Reading readText(const std::string& text) {
    LvmConfig config;
    return readText(config, text);
}

inline std::string dumpText(const LvmConfig::Node& node, int indent = 0) {
    std::ostringstream out;
    node.dump(out, indent);
    return out.str();
}

#endif
