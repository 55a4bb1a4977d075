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

TEST(LvmDeepTree, ParsedSectionsAreLimited) {
    const struct {
        int depth, error;
        bool isClosed;
    } cases[] = {{1000, 0, true}, {1001, 1, true}, {200000, 1, true}, {200000, 1, false}};
    for (const auto& one : cases) {
        LvmConfig config;
        config.parse(repeated("a{", one.depth) + repeated("}", one.isClosed ? one.depth : 0));
        EXPECT_EQ(config.getErrorCode(), one.error) << one.depth;
        EXPECT_EQ(depthOf(config.root), 1000) << one.depth;
    }
}

TEST(LvmDeepTree, CopiedAssignedDumpedAndFreed) {
    Node tree = chain("", Node::SET);
    Node copy(tree);
    EXPECT_EQ(dumpText(copy), std::string(HAND_MADE_DEPTH, '\n'));
    copy = copy.children.front();
    EXPECT_EQ(depthOf(copy), HAND_MADE_DEPTH - 1);
    copy = "short";
    EXPECT_EQ(depthOf(copy), 1);
    tree.children.front().children.clear();
    EXPECT_EQ(depthOf(tree), 1);

    const Node values = chain("k", Node::SCALAR);
    EXPECT_EQ(values.strValue(), "");
    EXPECT_EQ(dumpText(values), "k = k");
}

// Fails after a megabyte, as a full disk does.
struct FullSink : std::streambuf {
    std::streamsize xsputn(const char* /*text*/, std::streamsize size) override {
        const std::streamsize taken = std::min(size, room);
        room -= taken;
        return taken;
    }
    std::streamsize room = 1 << 20;
};

// Written out, the blanks of this tree would take two terabytes.
TEST(LvmDeepTree, DumpEndsWhenTheStreamFails) {
    FullSink sink;
    std::ostream out(&sink);
    EXPECT_FALSE(chain("s", Node::SET).dump(out, 0));
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
