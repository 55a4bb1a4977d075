// Metadata that LVM2's tools wrote, read beside libdevmapper's own reader.
#include "LvmConfig.h"

#include "TreeText.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <libdevmapper.h>
#include <memory>

using Node = LvmConfig::Node;

namespace {

struct DestroyTree {
    void operator()(dm_config_tree* tree) const { dm_config_destroy(tree); }
};

void expectSameValues(const Node& key, const dm_config_value* value) {
    if (value->type == DM_CFG_EMPTY_ARRAY) {
        EXPECT_EQ(treeText(key), key.name + "[]");
        return;
    }
    for (const Node& ours : key.children) {
        ASSERT_NE(value, nullptr) << key.name;
        if (value->type == DM_CFG_INT) {
            EXPECT_EQ(ours.type, Node::NUMBER) << key.name;
            EXPECT_EQ(ours.numValue(), static_cast<unsigned long>(value->v.i)) << key.name;
        } else {
            ASSERT_EQ(value->type, DM_CFG_STRING) << key.name;
            EXPECT_EQ(ours.type, Node::STRING) << key.name;
            EXPECT_EQ(ours.strValue(), value->v.str) << key.name;
        }
        value = value->next;
    }
    EXPECT_EQ(value, nullptr) << key.name;
}

void expectSameEntries(const Node& section, const dm_config_node* entry, int& compared) {
    for (const Node& ours : section.children) {
        ASSERT_NE(entry, nullptr) << ours.name;
        ASSERT_EQ(ours.name, entry->key);
        if (ours.type == Node::SET) {
            ASSERT_EQ(entry->v, nullptr) << ours.name;
            expectSameEntries(ours, entry->child, compared);
        } else {
            ASSERT_NE(entry->v, nullptr) << ours.name;
            expectSameValues(ours, entry->v);
            ++compared;
        }
        entry = entry->sib;
    }
    EXPECT_EQ(entry, nullptr) << section.name;
}

class LvmRealData : public testing::TestWithParam<const char*> {};

TEST_P(LvmRealData, ReadsLikeTheToolsAndSurvivesADump) {
    const std::string text = fileText(std::string(LVM_DATA_FOLDER "/") + GetParam());
    ASSERT_FALSE(text.empty());
    LvmConfig config;
    const Reading reading = readText(config, text);
    EXPECT_EQ(reading.error, 0);

    const std::unique_ptr<dm_config_tree, DestroyTree> tree(dm_config_from_string(text.c_str()));
    ASSERT_NE(tree, nullptr);
    int compared = 0;
    expectSameEntries(config.root, tree->root, compared);
    EXPECT_GT(compared, 30);
    EXPECT_GT(config.vg()["physical_volumes"]["pv0"]["pe_count"].numValue(), 0U);

    EXPECT_EQ(readText(dumpText(config.root)), reading);
}

INSTANTIATE_TEST_SUITE_P(Files, LvmRealData,
                         testing::Values("linear.vgcfg", "linear.mda.txt", "thin.vgcfg",
                                         "thin.mda.txt"),
                         [](const auto& each) {
                             std::string name = each.param;
                             std::ranges::replace(name, '.', '_');
                             return name;
                         });

} // namespace
