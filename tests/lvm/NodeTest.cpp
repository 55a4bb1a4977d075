#include "TreeText.h"
#include "support/LogCapture.h"
#include "support/Raised.h"

#include <gmock/gmock.h>
#include <locale>
#include <stdexcept>
#include <utility>

using Node = LvmConfig::Node;

namespace {

auto throwsOutOfRange(const char* text) {
    return testing::ThrowsMessage<std::out_of_range>(testing::StrEq(text));
}

TEST(LvmNode, LookupByNameCreatesSectionsAndFindsTheFirst) {
    Node node;
    const Node& fixed = node;
    Node& x = node["x"];
    node.add("x", Node::ARRAY);
    EXPECT_TRUE(&node["x"] == &x && &fixed["x"] == &x);
    EXPECT_TRUE(node.has("x") && !node.has("X"));
    EXPECT_TRUE(node.remove("x") && !node.remove("y"));
    EXPECT_EQ(treeText(node), "{x[]}");
    EXPECT_THAT([&] { fixed["y"]; }, throwsOutOfRange("Not found, can't access node [y] "));

    for (const auto type : {Node::STRING, Node::NUMBER, Node::ARRAY, Node::SCALAR}) {
        node.type = type;
        EXPECT_THAT([&] { node["x"]; }, throwsOutOfRange("Not a SET, can't access node [x]"));
        EXPECT_THAT([&] { fixed["x"]; }, throwsOutOfRange("Not found, can't access node [x] "));
        EXPECT_FALSE(node.has("x") || node.remove("x"));
    }
}

// The index one behind the last fails a check on a fixed line, those behind it are out of range.
TEST(LvmNode, LookupByIndex) {
    Node node("abcd", Node::ARRAY);
    const Node& fixed = node;
    node = "x", "y", "z";
    EXPECT_EQ(node[2].strValue(), "z");
    EXPECT_EQ(&fixed[2], &node[2]);
    EXPECT_THAT([&] { fixed[5]; }, throwsOutOfRange("Out of range, can't access node [5] > 3"));
    EXPECT_THAT([&] { node[5]; }, throwsOutOfRange("Out of range, can't access node [5] > 4"));

    LogCapture log;
    const std::string raised = "1 plugin/common/map_v2/rvp/LvmConfig operator[]";
    EXPECT_EQ(raisedBy<OrmaError>([&] { fixed[3]; }), raised);
    EXPECT_EQ(raisedBy<OrmaError>([&] { node[3]; }), raised);
    const std::string check = " <ERROR> : Exception: VERIFY_ORMA_BOOL\n";
    EXPECT_THAT(log.caught.at(0).raw, testing::HasSubstr("operator[]:LvmConfig:220" + check));
    EXPECT_THAT(log.caught.at(1).raw, testing::HasSubstr("operator[]:LvmConfig:239" + check));
}

TEST(LvmNode, AssigningAndAppending) {
    Node node;
    node, "ignored", 7;
    EXPECT_EQ(treeText(node), "{}");
    node = "a", "b";
    EXPECT_EQ(treeText(node), R"(["a"s "b"s])");
    node = "c";
    EXPECT_EQ(treeText(node), R"(["c"s])");
    node = 7, 4096;
    EXPECT_EQ(treeText(node), "[7n 4096s]");
    EXPECT_EQ(node[1].strValue(), "09");
}

TEST(LvmNode, ValuesOfEachType) {
    EXPECT_EQ(Node("\"", Node::STRING).strValue(), "\"");
    EXPECT_EQ(Node("k", Node::ARRAY).strValue(), "[]");
    // A host may set a global locale that groups digits.
    struct Grouping : std::numpunct<char> {
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale former = std::locale::global(std::locale(std::locale(), new Grouping));
    const std::pair<const char*, unsigned long> numbers[] = {
        {" \t12x", 12}, {"0x10", 0}, {"1,234", 1}, {"", 0}, {"18446744073709551615", ~0UL}};
    for (const auto& [text, number] : numbers) {
        EXPECT_EQ(Node(text, Node::NUMBER).numValue(), number) << text;
    }
    EXPECT_EQ(Node("-7", Node::NUMBER).intValue(), -7);
    std::locale::global(former);
}

TEST(LvmNode, DumpIndentsSectionsAndLeavesOutFurtherValues) {
    LvmConfig config;
    config.parse("outer{inner{k=1}list=[]}");
    Node& inner = config.root["outer"]["inner"];
    inner["k"].add(2, Node::NUMBER);
    inner.add("bare", Node::SCALAR);
    inner.add("\"v\"", Node::STRING);
    EXPECT_EQ(inner.strValue(), "inner {\n  k = 1\n  bare\n\"v\"\n}");
    // The first line gets the unnamed root's own blank as well.
    EXPECT_EQ(dumpText(config.root, 1), "  outer {\n"
                                        "   inner {\n     k = 1\n     bare\n\"v\"\n   }\n"
                                        "   list = []\n }\n");
}

TEST(LvmNode, CopiesAreDeepAndMayComeFromTheTreeItself) {
    Node root;
    root["a"]["b"] = "x";
    Node copy = root;
    root["a"]["b"] = "changed";
    EXPECT_EQ(treeText(copy), R"({a{b="x"s}})");
    copy["a"]["d"] = copy["a"];
    EXPECT_EQ(treeText(copy), R"({a{b="x"s a{b="x"s d{}}}})");
    copy = copy["a"]["a"];
    copy = std::move(copy["b"]);
    EXPECT_EQ(treeText(copy), R"(b="x"s)");
}

} // namespace
