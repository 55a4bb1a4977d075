// The parser and tree of LVM2 metadata: any text parses to a tree or to the error flag, a tree
// without an error dumps as text that parses to the same tree, and the operations on it fail by
// their named exceptions only.
#include "LvmConfig.h"
#include "Require.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <string>

using Node = LvmConfig::Node;

namespace {

bool same(const Node& a, const Node& b) {
    return a.name == b.name && a.type == b.type &&
           std::equal(a.children.begin(), a.children.end(), b.children.begin(), b.children.end(),
                      same);
}

std::string dumped(const Node& node) {
    std::ostringstream out;
    node.dump(out, 0);
    return out.str();
}

// Strings lie in the tree without their escapes and are dumped as they lie; the text form needs
// them back.
void escapeStrings(Node& node) {
    for (Node& child : node.children) {
        if (child.type == Node::STRING) {
            std::string escaped = "\"";
            for (std::size_t i = 1; i + 1 < child.name.size(); ++i) {
                if (child.name[i] == '"' || child.name[i] == '\\') {
                    escaped += '\\';
                }
                escaped += child.name[i];
            }
            child.name = escaped + '"';
        }
        escapeStrings(child);
    }
}

// Every question that can be asked of a node has an answer.
void askAll(const Node& node) {
    if (node.type != Node::SET) {
        node.strValue();
        node.numValue();
        node.intValue();
    }
    std::size_t place = 0;
    for (const Node& child : node.children) {
        if (node.type == Node::SET) {
            require(node.has(child.name), "a section has each of its children");
            require(node[child.name].name == child.name, "a search finds a child by its name");
        }
        if (place < 8) {
            require(&node[place] == &child, "a child has its number");
            ++place;
        }
        askAll(child);
    }
}

// Volume groups of any shape take physical volumes, or refuse by the exception for it.
void edit(LvmConfig config, const std::string& text) {
    try {
        Node* found = config.pvByUuId(text.substr(0, 38));
        require(found == config.pvByUuId(text.substr(0, 38)), "a UUID is found again");
        config.addPv("id", "/dev/sda", text.size() << 20);
        config.root = config.vg();
    } catch (const std::out_of_range&) {
        return;
    }
    dumped(config.root);
}

void checkUuid(const std::string& text) {
    try {
        LvmUuid(LvmUuid(text.substr(0, 38)).fmtId()).fmtId();
    } catch (const std::out_of_range&) {
        require(text.size() < 38, "a whole UUID has a display form");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    LvmConfig config;
    config.parse(text);
    askAll(config.root);

    LvmConfig reused;
    reused.parse("former { tree = ");
    reused.root = Node();
    reused.parse(text);
    require(reused.getErrorCode() == config.getErrorCode() && same(reused.root, config.root),
            "a used parser reads like a new one");

    if (config.getErrorCode() == 0) {
        Node written = config.root;
        escapeStrings(written);
        LvmConfig again;
        again.parse(dumped(written));
        require(again.getErrorCode() == 0 && same(again.root, config.root),
                "a dumped tree parses to the same tree");
        require(dumped(again.root) == dumped(config.root), "the same tree dumps the same");
    }
    edit(config, text);
    checkUuid(text);
    return 0;
}
