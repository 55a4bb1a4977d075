#include "TreeText.h"
#include "support/Files.h"

#include <gtest/gtest.h>
#include <regex>
#include <stdexcept>
#include <utility>

namespace {

// What each kind of text leaves, cut off or whole.
TEST(LvmParser, TextsOfEachKind) {
    const std::pair<const char*, const char*> cases[] = {
        {R"(vg{id="abc"seqno=3 status=["A","B"]})",
         R"({vg{id="abc"s seqno=3n status["A"s "B"s]}})"},
        {"12=3 4a-.+_{}", "{12=3n 4a-.+_{}}"},
        {"k=\"\\\\\\n\\\"{#\n\"", "{k=\"\\n\"{#\n\"s}"},
        {R"(k="abc\")", "error {}"},
        {R"(k=["abc\)", R"(error {k["abc\s]})"},
        {"k=1.5", "error {k=}"},
        {"k=-1", "error {}"},
        {"k=1\r\nj=2", "{k=1n}"},
        {"k=[]", "{k[]}"},
        {R"(k=[1,"b",]j=2)", R"({k[1n "b"s] j=2n})"},
        {"k=[,1]", "error {k[]}"},
        {"k=[1 2]", "error {k[1n]}"},
        {"k=[1", "error {k[1n]}"},
        {"a=1 } b=2", "{a=1n}"},
        {"a{b=1", "error {a{b=1n}}"},
        {"a{", "error {a{}}"},
        {"a", "error {}"},
        {"\"a\"=1", "error {}"},
        {"a{b=}c=1}", "error {a{b=}}"},
        {"a{b}c=1", "{a{} c=1n}"},
        {"# c\nk # d\n = 1 # e\n j=2# f", "{k=1n j=2n}"},
        {"# c\n# d\nk=1", "{}"},
        {"a { k=1 # c\n # d\n }", "error {a{k=1n}}"},
    };
    for (const auto& [text, tree] : cases) {
        LvmConfig config;
        EXPECT_EQ(readText(config, text), tree) << text;
    }
}

TEST(LvmParser, MetadataThatToolsWroteDumpsAsItWas) {
    const std::regex fluff("#[^\n]*|[ \t\n]");
    for (const char* name : {"linear.vgcfg", "linear.mda.txt", "thin.vgcfg", "thin.mda.txt"}) {
        const std::string text = readFile(LVM_DATA_FOLDER "/" + std::string(name));
        LvmConfig config;
        config.parse(text);
        EXPECT_EQ(std::regex_replace(dumpText(config.root), fluff, ""),
                  std::regex_replace(text.substr(0, text.find('\0')), fluff, ""));
    }
}

TEST(LvmParser, ObjectIsReusable) {
    LvmConfig config;
    for (const char* text : {"a=1", "", " \n\t", "# c\n# d\nb=1", "@"}) {
        EXPECT_EQ(readText(config, text), "{a=1n}") << text;
    }
    EXPECT_EQ(readText(config, "\"x"), "error {a=1n}");
    EXPECT_EQ(readText(config, "b="), "error {}");
    EXPECT_EQ(readText(config, "b=2"), "{b=2n}");
}

TEST(LvmParser, StepsByThemselves) {
    LvmConfig config;
    config.text = R"(a-1 12 ="\x" %)";
    std::string tokens;
    while (config.nextToken()) {
        tokens += std::to_string(config.tokenType) + config.token + ' ';
    }
    EXPECT_EQ(tokens, R"(4a-1 212 3= 1"x" )");
    EXPECT_EQ(config.pos, config.text.size() - 1);
    config.text.back() = ' ';
    EXPECT_FALSE(config.nextToken() || config.nextToken());
    EXPECT_EQ(config.pos, ~0UL);

    config.text = "{a=1}b";
    config.pos = 1;
    LvmConfig::Node section;
    config.parseSet(section);
    EXPECT_EQ(treeText(section), "{a=1n}");
    EXPECT_EQ(config.token, "b");
}

TEST(LvmParser, VolumeGroupIsTheFirstSection) {
    LvmConfig config;
    config.parse("version=1 vg0{seqno=1} vg1{}");
    EXPECT_EQ(config.vg().name, "vg0");
    EXPECT_EQ(&std::as_const(config).vg(), &config.vg());

    config.parse("version=1");
    EXPECT_THROW(std::as_const(config).vg(), std::out_of_range);
    EXPECT_EQ(config.vg().name, "VolGroup0");
    testing::internal::CaptureStdout();
    config.dump();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "version = 1\nVolGroup0 {\n}\n");
}

} // namespace
