#include "LvmConfig.h"

#include "Error.h"
#include "TreeText.h"
#include "kmhost.h"

#include <gmock/gmock.h>
#include <locale>
#include <stdexcept>
#include <utility>

using Node = LvmConfig::Node;
using testing::HasSubstr;

namespace {

// Whether anything is logged is decided at the first question in a process.
[[maybe_unused]] const int s_debugLevel = km_debug_level = 1;

template <typename Exception, typename Operation>
std::string textThrown(Operation operation) {
    try {
        operation();
    } catch (const Exception& thrown) {
        return thrown.what();
    }
    return "nothing";
}

Node sectionOfThree() {
    Node node("abcd", Node::SET);
    for (unsigned long i = 0; i < 3; ++i) {
        node.add(i, Node::NUMBER);
    }
    return node;
}

TEST(LvmNode, LookupByNameCreatesSectionsAndFindsTheFirst) {
    Node node;
    EXPECT_FALSE(node.has("x"));
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
}

TEST(LvmNode, LookupByNameInWhatIsNoSection) {
    for (const auto type : {Node::STRING, Node::NUMBER, Node::ARRAY, Node::SCALAR}) {
        Node node("n", type);
        node.add("x", Node::SET);
        EXPECT_EQ(textThrown<std::out_of_range>([&] { node["x"]; }),
                  "Not a SET, can't access node [x]");
        EXPECT_EQ(textThrown<std::out_of_range>([&] { std::as_const(node)["x"]; }),
                  "Not found, can't access node [x] ");
        EXPECT_FALSE(node.has("x"));
        EXPECT_FALSE(node.remove("x"));
        EXPECT_EQ(node.children.size(), 1U);
    }
    EXPECT_EQ(textThrown<std::out_of_range>([] { std::as_const(*std::make_unique<Node>())["x"]; }),
              "Not found, can't access node [x] ");
}

TEST(LvmNode, IndexOutOfRange) {
    Node node = sectionOfThree();
    const Node& fixed = node;
    EXPECT_EQ(node[2].name, "2");
    EXPECT_EQ(&fixed[0], &node.children.front());
    EXPECT_EQ(textThrown<std::out_of_range>([&] { fixed[5]; }),
              "Out of range, can't access node [5] > 3");
    EXPECT_EQ(textThrown<std::out_of_range>([&] { node[5]; }),
              "Out of range, can't access node [5] > 4");
}

template <typename AnyNode>
void expectCheckFailure(AnyNode& node, int line) {
    std::string logged;
    kmhost_log_to(
        [](void* context, const char* text, int /*indent*/, kmp_eseverity severity) {
            *static_cast<std::string*>(context) += std::to_string(severity) + text;
        },
        &logged);
    try {
        node[node.children.size()];
        ADD_FAILURE() << "no error";
    } catch (const OrmaError& error) {
        EXPECT_EQ(error.m_code, 1);
        EXPECT_EQ(error.m_line, line);
        EXPECT_STREQ(error.m_function, "operator[]");
        EXPECT_STREQ(error.m_file, "plugin/common/map_v2/rvp/LvmConfig");
    }
    kmhost_log_to(nullptr, nullptr);
    EXPECT_EQ(logged.substr(0, 1), std::to_string(KMP_SEVERITY_ERROR));
    EXPECT_THAT(logged, HasSubstr("operator[]:LvmConfig:" + std::to_string(line) +
                                  " <ERROR> : Exception: VERIFY_ORMA_BOOL\n"));
}

TEST(LvmNode, IndexOneBehindTheLastFailsACheckOnAFixedLine) {
    Node node = sectionOfThree();
    expectCheckFailure(std::as_const(node), 220);
    expectCheckFailure(node, 239);
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
    EXPECT_EQ(Node("k", Node::SCALAR).strValue(), "");
    Node array("k", Node::ARRAY);
    EXPECT_EQ(array.strValue(), "[]");
    array.add("\"a\"", Node::STRING);
    array.add(1, Node::NUMBER);
    EXPECT_EQ(array.strValue(), "[ \"a\", 1 ]");
    Node section;
    section["s"]["k"] = 4096;
    EXPECT_EQ(section["s"].strValue(), "s {\n  k = 4096\n}");
    EXPECT_EQ(section["s"]["k"].numValue(), 4096U);

    const auto number = [](const char* text) { return Node(text, Node::NUMBER).numValue(); };
    EXPECT_EQ(number(" \t12x"), 12U);
    EXPECT_EQ(number("0x10"), 0U);
    EXPECT_EQ(number("x"), 0U);
    EXPECT_EQ(number(""), 0U);
    EXPECT_EQ(number("18446744073709551615"), 18446744073709551615UL);
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
    std::ostringstream out;
    EXPECT_EQ(&root.dump(out, 0), &out);
}

TEST(LvmNode, CopiesAreDeepAndMayComeFromTheTreeItself) {
    Node root;
    root["a"]["b"]["c"] = "x";
    root["a"]["d"], 1;
    Node copy = root;
    root["a"]["b"]["c"] = "changed";
    EXPECT_EQ(treeText(copy), "{a{b{c=s\"x\"} d{}}}");
    copy["a"]["d"] = copy["a"];
    EXPECT_EQ(treeText(copy), "{a{b{c=s\"x\"} a{b{c=s\"x\"} d{}}}}");
    copy = copy["a"]["b"];
    EXPECT_EQ(treeText(copy), "b{c=s\"x\"}");
    copy = std::move(copy["c"]);
    EXPECT_EQ(treeText(copy), "c=s\"x\"");
    copy.children.push_back(copy);
    EXPECT_EQ(treeText(copy), "c=s\"x\" c=s\"x\"");
}

} // namespace
