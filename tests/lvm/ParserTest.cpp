#include "LvmConfig.h"

#include "TreeText.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <utility>

namespace {

struct Case {
    const char* text;
    int error;
    const char* tree;
};

void expectReadings(std::initializer_list<Case> cases) {
    for (const Case& each : cases) {
        EXPECT_EQ(readText(each.text), (Reading{each.error, each.tree})) << each.text;
    }
}

TEST(LvmParser, EntriesNeedNoSeparators) {
    expectReadings({
        {"vg{id=\"abc\"seqno=3 status=[\"RESIZEABLE\",\"READ\"]}", 0,
         "{vg{id=s\"abc\" seqno=n3 status[s\"RESIZEABLE\" s\"READ\"]}}"},
        {"a{}a{b=1}a=2", 0, "{a{} a{b=n1} a=n2}"},
        {"12=3 4a-.+_{}", 0, "{12=n3 4a-.+_{}}"},
    });
}

TEST(LvmParser, Strings) {
    expectReadings({
        {"k=\"a\\\"b\"", 0, "{k=s\"a\"b\"}"},
        {"k=\"\\\\\\n{#\n\"", 0, "{k=s\"\\n{#\n\"}"},
        {"k=\"\"", 0, "{k=s\"\"}"},
        {"k=\"abc", 1, "{}"},
        {"k=\"abc\\\"", 1, "{}"},
        {"k=\"abc\\", 1, "{}"},
        {"k=[\"abc\\", 1, "{k[s\"abc\\]}"},
        {"k=1 \"", 1, "{k=n1}"},
    });
}

TEST(LvmParser, WordsAndNumbers) {
    expectReadings({
        {"k=1.5", 1, "{k=}"},
        {"k=20abc", 1, "{k=}"},
        {"k=2+3", 1, "{k=}"},
        {"k=word", 1, "{k=}"},
        {"k=-1", 1, "{}"},
        {"k=4096", 0, "{k=n4096}"},
        {"k=1 -x=2", 0, "{k=n1}"},
        {"k=1 \xC3\xA4=2", 0, "{k=n1}"},
        {"k=1\r\nj=2", 0, "{k=n1}"},
        {"k\v=1", 1, "{}"},
        {"_=1 .a=2", 0, "{_=n1}"},
    });
}

TEST(LvmParser, Arrays) {
    expectReadings({
        {"k=[]", 0, "{k[]}"},
        {"k=[1,]", 0, "{k[n1]}"},
        {"k=[1,\"b\"]j=2", 0, "{k[n1 s\"b\"] j=n2}"},
        {"k=[,1]", 1, "{k[]}"},
        {"k=[1 2]", 1, "{k[n1]}"},
        {"k=[1,word]", 1, "{k[n1]}"},
        {"k=[[1]]", 1, "{k[]}"},
        {"k=[1", 1, "{k[n1]}"},
    });
}

TEST(LvmParser, Sections) {
    expectReadings({
        {"a=1 } b=2", 0, "{a=n1}"},
        {"a{b=1", 1, "{a{b=n1}}"},
        {"a{", 1, "{a{}}"},
        {"a}", 0, "{}"},
        {"a", 1, "{}"},
        {"a b", 1, "{}"},
        {"a,", 1, "{}"},
        {"\"a\"=1", 1, "{}"},
        {"a{b=1.5} c=2", 1, "{a{b=}}"},
        {"a{b=}c=1}", 1, "{a{b=}}"},
        {"a{b}c=1", 0, "{a{} c=n1}"},
    });
}

TEST(LvmParser, OneCommentBetweenTwoTokens) {
    expectReadings({
        {"# c\nk=1 # d\n j=2# e", 0, "{k=n1 j=n2}"},
        {"k # c\n = # d\n 1", 0, "{k=n1}"},
        {"# c\n# d\nk=1", 0, "{}"},
        {"k=1 # c\n\t# d\nj=2", 0, "{k=n1}"},
        {"a { k=1 # c\n # d\n }", 1, "{a{k=n1}}"},
        {"k=1 # c\n", 0, "{k=n1}"},
    });
}

TEST(LvmParser, ObjectIsReusable) {
    LvmConfig config;
    EXPECT_EQ(config.getErrorCode(), 0);
    EXPECT_EQ(config.root.type, LvmConfig::Node::SET);
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

TEST(LvmParser, VolumeGroupIsTheFirstSection) {
    LvmConfig config;
    config.parse("version=1 vg0{seqno=1} vg1{}");
    EXPECT_EQ(config.vg().name, "vg0");
    EXPECT_EQ(&std::as_const(config).vg(), &config.vg());

    config.parse("version=1");
    try {
        std::as_const(config).vg();
        ADD_FAILURE() << "no error";
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ(error.what(), "can't find a VG node");
    }
    EXPECT_EQ(dumpText(config.vg()), "VolGroup0 {\n}");
    EXPECT_EQ(treeText(config.root), "{version=n1 VolGroup0{}}");

    testing::internal::CaptureStdout();
    config.dump();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "version = 1\nVolGroup0 {\n}\n");
    EXPECT_STREQ(LvmConfig::classText, "LvmConfig");
}

} // namespace
