#include "LvmConfig.h"

#include "TreeText.h"
#include "support/LogCapture.h"
#include "support/Raised.h"

#include <gmock/gmock.h>
#include <locale>
#include <stdexcept>
#include <utility>

using Node = LvmConfig::Node;

namespace {

template <typename Operation>
void expectOutOfRange(const char* text, Operation operation) {
    try {
        operation();
        ADD_FAILURE() << "did not throw: " << text;
    } catch (const std::out_of_range& thrown) {
        EXPECT_STREQ(thrown.what(), text);
    }
}

TEST(LvmNode, LookupByNameCreatesSectionsAndFindsTheFirst) {
    Node node;
    Node& x = node["x"];
    EXPECT_EQ(treeText(node), "{x{}}");
    node.add("x", Node::ARRAY);
    EXPECT_EQ(&node["x"], &x);
    EXPECT_EQ(&std::as_const(node)["x"], &x);
    EXPECT_TRUE(node.has("x"));
    EXPECT_FALSE(node.has("X"));
    EXPECT_TRUE(node.remove("x"));
    EXPECT_EQ(treeText(node), "{x[]}");
    EXPECT_FALSE(node.remove("y"));
    expectOutOfRange("Not found, can't access node [y] ", [&] { std::as_const(node)["y"]; });

    for (const auto type : {Node::STRING, Node::NUMBER, Node::ARRAY, Node::SCALAR}) {
        Node other("n", type);
        other.add("x", Node::SET);
        expectOutOfRange("Not a SET, can't access node [x]", [&] { other["x"]; });
        expectOutOfRange("Not found, can't access node [x] ", [&] { std::as_const(other)["x"]; });
        EXPECT_FALSE(other.has("x"));
        EXPECT_FALSE(other.remove("x"));
        EXPECT_EQ(other.children.size(), 1U);
    }
}

// The index one behind the last fails a check on a fixed line, those behind it are out of range.
TEST(LvmNode, LookupByIndex) {
    Node node("abcd", Node::SET);
    const Node& fixed = node;
    for (unsigned long i = 0; i < 3; ++i) {
        const Node& added = node.add(i, Node::NUMBER);
        EXPECT_EQ(&node[i], &added);
        EXPECT_EQ(&fixed[i], &added);
    }
    expectOutOfRange("Out of range, can't access node [5] > 3", [&] { fixed[5]; });
    expectOutOfRange("Out of range, can't access node [5] > 4", [&] { node[5]; });

    const auto expectFailedCheck = [](auto& each, int line) {
        LogCapture log;
        EXPECT_EQ(raisedBy<OrmaError>([&] { each[3]; }),
                  "1 plugin/common/map_v2/rvp/LvmConfig operator[]");
        ASSERT_EQ(log.caught.size(), 1U);
        EXPECT_THAT(log.caught[0].raw,
                    testing::HasSubstr("operator[]:LvmConfig:" + std::to_string(line) +
                                       " <ERROR> : Exception: VERIFY_ORMA_BOOL\n"));
    };
    expectFailedCheck(fixed, 220);
    expectFailedCheck(node, 239);
}

TEST(LvmNode, AssigningAndAppending) {
    Node root;
    Node& key = root["k"];
    key, "ignored", 7;
    EXPECT_EQ(dumpText(root), "k {\n}\n");
    key = "a";
    EXPECT_EQ(dumpText(key), "k = \"a\"");
    key, "b";
    EXPECT_EQ(dumpText(key), "k = [ \"a\", \"b\" ]");
    key = "c";
    EXPECT_EQ(treeText(key), "k[s\"c\"]");
    key = 7;
    key, 4096;
    EXPECT_EQ(treeText(key), "k[n7 s4096]");
    EXPECT_EQ(dumpText(key), "k = [ 7, 4096 ]");
    EXPECT_EQ(key[1].strValue(), "09");

    Node& value = root.add("\"v\"", Node::STRING);
    value, "ignored", 1;
    EXPECT_EQ(treeText(value), "s\"v\"");
    value = 18446744073709551615UL;
    EXPECT_EQ(treeText(value), "\"v\"=n18446744073709551615");
}

TEST(LvmNode, ValuesOfEachType) {
    EXPECT_EQ(Node("\"abc\"", Node::STRING).strValue(), "abc");
    EXPECT_EQ(Node("\"", Node::STRING).strValue(), "\"");
    EXPECT_EQ(Node("12", Node::NUMBER).strValue(), "12");
    EXPECT_EQ(Node("k", Node::ARRAY).strValue(), "[]");
    Node section;
    section["s"]["k"] = 4096;
    EXPECT_EQ(section["s"].strValue(), "s {\n  k = 4096\n}");
    EXPECT_EQ(section["s"]["k"].numValue(), 4096U);

    const std::pair<const char*, unsigned long> numbers[] = {
        {" \t12x", 12}, {"0x10", 0}, {"x", 0}, {"", 0}, {"18446744073709551615", ~0UL}};
    for (const auto& [text, number] : numbers) {
        EXPECT_EQ(Node(text, Node::NUMBER).numValue(), number) << text;
    }
    EXPECT_EQ(Node("-7", Node::NUMBER).intValue(), -7);
}

// A host may set a global locale that groups digits.
TEST(LvmNode, NumbersKeepTheirDigitsInAnyLocale) {
    struct Grouping : std::numpunct<char> {
        std::string do_grouping() const override { return "\3"; }
        char do_thousands_sep() const override { return '.'; }
    };
    const std::locale former = std::locale::global(std::locale(std::locale(), new Grouping));
    Node node("k", Node::SCALAR);
    node = 1234567;
    EXPECT_EQ(dumpText(node), "k = 1234567");
    EXPECT_EQ(node.numValue(), 1234567U);
    EXPECT_EQ(Node("1.234", Node::NUMBER).numValue(), 1U);
    std::locale::global(former);
}

TEST(LvmNode, DumpIndentsSectionsAndLeavesOutFurtherValues) {
    Node root;
    Node& inner = root["outer"]["inner"];
    inner["k"] = 1;
    inner["k"].add(2, Node::NUMBER);
    inner.add("bare", Node::SCALAR);
    inner.add("\"v\"", Node::STRING);
    root["outer"].add("list", Node::ARRAY);
    // The first line gets the unnamed root's own blank as well.
    EXPECT_EQ(dumpText(root, 1), "  outer {\n"
                                 "   inner {\n"
                                 "     k = 1\n"
                                 "     bare\n"
                                 "\"v\"\n"
                                 "   }\n"
                                 "   list = []\n"
                                 " }\n");
}

TEST(LvmNode, CopiesAreDeepAndMayComeFromTheTreeItself) {
    Node root;
    root["a"]["b"]["c"] = "x";
    Node copy = root;
    root["a"]["b"]["c"] = "changed";
    EXPECT_EQ(treeText(copy), "{a{b{c=s\"x\"}}}");
    copy["a"]["d"] = copy["a"];
    EXPECT_EQ(treeText(copy), "{a{b{c=s\"x\"} a{b{c=s\"x\"} d{}}}}");
    copy = copy["a"]["b"];
    EXPECT_EQ(treeText(copy), "b{c=s\"x\"}");
    copy = std::move(copy["c"]);
    EXPECT_EQ(treeText(copy), "c=s\"x\"");
    EXPECT_EQ(treeText(Node(copy.children.front())), "s\"x\"");
    copy.children.push_back(copy);
    EXPECT_EQ(treeText(copy), "c=s\"x\" c=s\"x\"");
}

} // namespace
