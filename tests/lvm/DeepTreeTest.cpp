// Depths at which recursion would exhaust the stack, and texts that would take quadratic time.
#include "TreeText.h"

#include <gtest/gtest.h>

using Node = LvmConfig::Node;

namespace {

constexpr int HAND_MADE_DEPTH = 1000000;

std::string repeated(const std::string& piece, int count) {
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += piece;
    }
    return text;
}

Node chain(const std::string& name, Node::DataType type) {
    Node top(name, type);
    Node* last = &top;
    for (int i = 0; i < HAND_MADE_DEPTH; ++i) {
        last = &last->add(name, type);
    }
    return top;
}

TEST(LvmDeepTree, ParsedSectionsAreLimited) {
    for (const int depth : {1000, 1001, 200000}) {
        LvmConfig config;
        EXPECT_EQ(readText(config, repeated("a{", depth) + repeated("}", depth)),
                  (depth == 1000 ? "{" : "error {") + repeated("a{", 1000) + repeated("}", 1001));
    }
}

TEST(LvmDeepTree, CopiedAssignedDumpedAndFreed) {
    Node tree = chain("", Node::SET);
    Node copy(tree);
    copy = copy.children.front();
    EXPECT_EQ(dumpText(tree), std::string(HAND_MADE_DEPTH, '\n'));
    EXPECT_EQ(dumpText(copy), std::string(HAND_MADE_DEPTH - 1, '\n'));
    const Node values = chain("k", Node::SCALAR);
    EXPECT_EQ(values.strValue(), "");
    EXPECT_EQ(dumpText(values), "k = k");

    // Written out, the blanks of these sections would take two terabytes.
    std::ostream failed(nullptr);
    EXPECT_FALSE(chain("s", Node::SET).dump(failed, 0));
}

// Each would take minutes if a character were looked at again for each token or escape.
TEST(LvmDeepTree, LongTextsOfOneKind) {
    constexpr int COUNT = 300000;
    for (const std::string& text :
         {"k=\"" + repeated("\\a\\\"", COUNT), "k=[" + repeated("1,", COUNT),
          repeated("k=1#\n", COUNT), repeated("k{}", COUNT), repeated("1", COUNT)}) {
        LvmConfig config;
        config.parse(text);
        EXPECT_GE(config.pos, text.size()) << text.substr(0, 20);
    }
}

} // namespace
