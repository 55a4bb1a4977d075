#include "LvmConfig.h"

#include "TreeText.h"
#include "support/Files.h"

#include <gtest/gtest.h>
#include <regex>
#include <stdexcept>
#include <utility>

namespace {

// What each kind of text leaves, cut off or whole; random texts meet a second reader elsewhere.
TEST(LvmParser, TextsOfEachKind) {
    const struct {
        const char* text;
        int error;
        const char* tree;
    } cases[] = {
        // Entries need no separators.
        {"vg{id=\"abc\"seqno=3 status=[\"A\",\"B\"]}", 0,
         "{vg{id=s\"abc\" seqno=n3 status[s\"A\" s\"B\"]}}"},
        {"a{}a{b=1}a=2", 0, "{a{} a{b=n1} a=n2}"},
        {"12=3 4a-.+_{}", 0, "{12=n3 4a-.+_{}}"},
        // Strings.
        {"k=\"\\\\\\n\\\"{#\n\"", 0, "{k=s\"\\n\"{#\n\"}"},
        {"k=\"abc", 1, "{}"},
        {"k=\"abc\\\"", 1, "{}"},
        {"k=\"abc\\", 1, "{}"},
        {"k=[\"abc\\", 1, "{k[s\"abc\\]}"},
        {"k=1 \"", 1, "{k=n1}"},
        // Words and numbers.
        {"k=1.5", 1, "{k=}"},
        {"k=20abc", 1, "{k=}"},
        {"k=word", 1, "{k=}"},
        {"k=-1", 1, "{}"},
        {"k=1 -x=2", 0, "{k=n1}"},
        {"k=1\r\nj=2", 0, "{k=n1}"},
        {"k=1 \xC3\xA4=2", 0, "{k=n1}"},
        {"k\v=1", 1, "{}"},
        // Arrays.
        {"k=[]", 0, "{k[]}"},
        {"k=[1,\"b\",]j=2", 0, "{k[n1 s\"b\"] j=n2}"},
        {"k=[,1]", 1, "{k[]}"},
        {"k=[1 2]", 1, "{k[n1]}"},
        {"k=[[1]]", 1, "{k[]}"},
        {"k=[1", 1, "{k[n1]}"},
        // Sections.
        {"a=1 } b=2", 0, "{a=n1}"},
        {"a{b=1", 1, "{a{b=n1}}"},
        {"a{", 1, "{a{}}"},
        {"a}", 0, "{}"},
        {"a", 1, "{}"},
        {"a,", 1, "{}"},
        {"\"a\"=1", 1, "{}"},
        {"a{b=}c=1}", 1, "{a{b=}}"},
        {"a{b}c=1", 0, "{a{} c=n1}"},
        // One comment between two tokens.
        {"# c\nk # d\n = 1 # e\n j=2# f", 0, "{k=n1 j=n2}"},
        {"# c\n# d\nk=1", 0, "{}"},
        {"a { k=1 # c\n # d\n }", 1, "{a{k=n1}}"},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(readText(one.text), (Reading{one.error, one.tree})) << one.text;
    }
}

// Text without its comments, its blanks and the zero behind it.
std::string squeezed(std::string text) {
    static const std::regex comment("#[^\n]*");
    text = std::regex_replace(text, comment, "");
    std::erase_if(text, [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\0'; });
    return text;
}

TEST(LvmParser, MetadataThatToolsWroteDumpsAsItWas) {
    for (const char* name : {"linear.vgcfg", "linear.mda.txt", "thin.vgcfg", "thin.mda.txt"}) {
        const std::string text = readFile(LVM_DATA_FOLDER "/" + std::string(name));
        LvmConfig config;
        const Reading reading = readText(config, text);
        EXPECT_EQ(reading.error, 0) << name;
        EXPECT_EQ(squeezed(dumpText(config.root)), squeezed(text)) << name;
        EXPECT_EQ(readText(dumpText(config.root)), reading) << name;
        EXPECT_GT(config.vg()["physical_volumes"]["pv0"]["pe_count"].numValue(), 0U) << name;
    }
}

TEST(LvmParser, ObjectIsReusable) {
    LvmConfig config;
    EXPECT_EQ(readText(config, "a=1"), (Reading{0, "{a=n1}"}));
    for (const char* tokenless : {"", " \n\t", "# c", "# c\n# d\nb=1", "@"}) {
        EXPECT_EQ(readText(config, tokenless), (Reading{0, "{a=n1}"})) << tokenless;
    }
    EXPECT_EQ(readText(config, "\"x"), (Reading{1, "{a=n1}"}));
    EXPECT_EQ(readText(config, "b="), (Reading{1, "{}"}));
    EXPECT_EQ(readText(config, "b=2"), (Reading{0, "{b=n2}"}));
}

TEST(LvmParser, TokensOneByOne) {
    LvmConfig config;
    config.text = "a-1 12 =\"\\x\" %";
    const std::pair<LvmConfig::TokenType, const char*> expected[] = {
        {LvmConfig::TOKEN_IDENTIFIER, "a-1"},
        {LvmConfig::TOKEN_NUMBER, "12"},
        {LvmConfig::TOKEN_DELIMITER, "="},
        {LvmConfig::TOKEN_STRING, "\"x\""},
    };
    for (const auto& [type, token] : expected) {
        EXPECT_TRUE(config.nextToken());
        EXPECT_EQ(config.tokenType, type);
        EXPECT_EQ(config.token, token);
    }
    EXPECT_FALSE(config.nextToken());
    EXPECT_EQ(config.tokenType, LvmConfig::TOKEN_NONE);
    EXPECT_EQ(config.pos, config.text.size() - 1);
    config.text.back() = ' ';
    EXPECT_FALSE(config.nextToken());
    EXPECT_EQ(config.pos, ~0UL);
    EXPECT_FALSE(config.nextToken());
}

TEST(LvmParser, ASectionByItself) {
    LvmConfig config;
    config.text = "{a=1}b";
    config.nextToken();
    LvmConfig::Node section;
    config.parseSet(section);
    EXPECT_EQ(treeText(section), "{a=n1}");
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
