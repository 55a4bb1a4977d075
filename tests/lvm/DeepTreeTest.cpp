// Depths at which recursion would exhaust the stack, and texts that would take quadratic time.
#include "LvmConfig.h"

#include "TreeText.h"

#include <gtest/gtest.h>
#include <streambuf>

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

int depthOf(const Node& node) {
    int depth = 0;
    for (const Node* at = &node; !at->children.empty(); at = &at->children.back()) {
        ++depth;
    }
    return depth;
}

Node chain(const std::string& name, Node::DataType type) {
    Node top(name, type);
    Node* last = &top;
    for (int i = 0; i < HAND_MADE_DEPTH; ++i) {
        last = &last->add(name, type);
    }
    return top;
}

// Fails after a megabyte, as a full disk does.
class FullSink : public std::streambuf {
  public:
    std::streamsize room = 1 << 20;

  protected:
    std::streamsize xsputn(const char* /*text*/, std::streamsize size) override {
        const std::streamsize taken = std::min(size, room);
        room -= taken;
        return taken;
    }
};

TEST(LvmDeepTree, ParsedSectionsAreLimited) {
    LvmConfig config;
    config.parse(repeated("a{", 1000) + repeated("}", 1000));
    EXPECT_EQ(config.getErrorCode(), 0);
    EXPECT_EQ(depthOf(config.root), 1000);
    for (const int depth : {1001, 200000}) {
        config.parse(repeated("a{", depth) + repeated("}", depth));
        EXPECT_EQ(config.getErrorCode(), 1);
        EXPECT_EQ(depthOf(config.root), 1000);
    }
    config.parse(repeated("a{", 200000));
    EXPECT_EQ(config.getErrorCode(), 1);
}

TEST(LvmDeepTree, CopiedAssignedDumpedAndFreed) {
    Node tree = chain("", Node::SET);
    Node copy(tree);
    EXPECT_EQ(depthOf(copy), HAND_MADE_DEPTH);
    EXPECT_EQ(dumpText(copy), std::string(HAND_MADE_DEPTH, '\n'));
    copy = copy.children.front();
    EXPECT_EQ(depthOf(copy), HAND_MADE_DEPTH - 1);
    copy = "short";
    EXPECT_EQ(depthOf(copy), 1);
    tree.children.front().children.clear();
    EXPECT_EQ(depthOf(tree), 1);
}

TEST(LvmDeepTree, ValueBelowManyScalars) {
    Node tree = chain("k", Node::SCALAR);
    EXPECT_EQ(tree.strValue(), "");
    EXPECT_EQ(dumpText(tree), "k = k");
}

// Written out, the blanks of this tree would take two terabytes.
TEST(LvmDeepTree, DumpEndsWhenTheStreamFails) {
    const Node tree = chain("s", Node::SET);
    FullSink sink;
    std::ostream out(&sink);
    EXPECT_FALSE(tree.dump(out, 0));
}

// Each would take minutes if a character were looked at again for each token or escape.
TEST(LvmDeepTree, LongTextsOfOneKind) {
    constexpr int COUNT = 300000;
    const std::pair<std::string, int> texts[] = {
        {"k=\"" + repeated("\\a\\\"", COUNT) + "\"", 0},
        {"k=\"" + repeated("\\\"", COUNT), 1},
        {"k=[" + repeated("1,", COUNT) + "]", 0},
        {repeated("k=1#\n", COUNT), 0},
        {repeated("k{}", COUNT), 0},
        {repeated("1", 2 * COUNT), 1},
        {repeated(" \n", COUNT), 0},
    };
    for (const auto& [text, error] : texts) {
        LvmConfig config;
        config.parse(text);
        EXPECT_EQ(config.getErrorCode(), error) << text.substr(0, 20);
    }
}

} // namespace
