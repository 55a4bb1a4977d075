#include "LvmConfig.h"

#include "TreeText.h"

#include <ctime>
#include <gmock/gmock.h>
#include <stdexcept>

namespace {

constexpr unsigned long GIB = 1UL << 30;

LvmConfig newGroup() {
    LvmConfig config;
    config.initNew("vg0");
    return config;
}

TEST(LvmGenerator, NewGroupDumpsByteForByte) {
    LvmConfig config;
    config.parse("broken");
    config.initNew("vg0");
    EXPECT_EQ(config.getErrorCode(), 0);
    const unsigned long created = config.root["creation_time"].numValue();
    EXPECT_NEAR(static_cast<double>(created), static_cast<double>(std::time(nullptr)), 2);

    const std::string id = config.vg()["id"].strValue();
    EXPECT_THAT(id, testing::MatchesRegex("[0-9A-Za-z]{6}(-[0-9A-Za-z]{4}){5}-[0-9A-Za-z]{6}"));
    EXPECT_NE(id, newGroup().vg()["id"].strValue());
    const std::string dump = dumpText(config.root);
    EXPECT_EQ(dump, "vg0 {\n"
                    "  id = \"" +
                        id +
                        "\"\n"
                        "  seqno = 1\n"
                        "  status = [ \"RESIZEABLE\", \"READ\", \"WRITE\" ]\n"
                        "  extent_size = 8192\n"
                        "  max_lv = 256\n"
                        "  max_pv = 256\n"
                        "}\n"
                        "contents = \"Text Format Volume Group\"\n"
                        "version = 1\n"
                        "description = \"\"\n"
                        "creation_host = \"localhost\"\n"
                        "creation_time = " +
                        std::to_string(created) + "\n");
    EXPECT_EQ(readText(dump), (Reading{0, treeText(config.root)}));
}

TEST(LvmGenerator, PhysicalVolumesAreNumberedAndMeasured) {
    LvmConfig config = newGroup();
    config.addPv("id-0", "/dev/sda", GIB);
    config.addPv("id-1", "", 2 * GIB);
    LvmConfig::Node& list = config.vg()["physical_volumes"];
    EXPECT_EQ(treeText(list), "physical_volumes{"
                              "pv0{id=s\"id-0\" device=s\"/dev/sda\" status[s\"ALLOCATABLE\"] "
                              "dev_size=n1073741824 pe_start=n384 pe_count=n255} "
                              "pv1{id=s\"id-1\" status[s\"ALLOCATABLE\"] "
                              "dev_size=n2147483648 pe_start=n384 pe_count=n511}}");

    list.remove("pv0");
    config.addPv("id-2", "/dev/sdb", 0);
    EXPECT_EQ(treeText(list), "physical_volumes{"
                              "pv1{id=s\"id-2\" status[s\"ALLOCATABLE\"] dev_size=n0 pe_start=n384 "
                              "pe_count=n2251799813685247 device=s\"/dev/sdb\" "
                              "status[s\"ALLOCATABLE\"]}}");
}

TEST(LvmGenerator, PhysicalVolumeWithoutExtentSizeIsAddedInPart) {
    LvmConfig config;
    config.parse("vg{}");
    EXPECT_THROW(config.addPv("i", "", GIB), std::out_of_range);
    EXPECT_EQ(treeText(config.root),
              "{vg{physical_volumes{pv0{id=s\"i\" status[s\"ALLOCATABLE\"] dev_size=n1073741824}} "
              "extent_size{}}}");
}

TEST(LvmGenerator, PhysicalVolumeByUuid) {
    LvmConfig config = newGroup();
    config.addPv("first", "", GIB);
    LvmConfig::Node& list = config.vg()["physical_volumes"];
    EXPECT_EQ(config.pvByUuId("first"), &list["pv0"]);
    LvmConfig::Node* added = config.pvByUuId("second");
    EXPECT_EQ(treeText(*added), "pv1{id=s\"second\"}");
    EXPECT_EQ(config.pvByUuId("second"), added);

    list.add("nameless", LvmConfig::Node::SET);
    EXPECT_EQ(config.pvByUuId("third")->name, "pv3");
    EXPECT_EQ(treeText(list["nameless"]), "nameless{id{}}");
    list.add("key", LvmConfig::Node::SCALAR);
    EXPECT_THROW(config.pvByUuId("fourth"), std::out_of_range);
}

TEST(LvmUuid, DisplayFormIsReadBackWithLoss) {
    LvmUuid uuid("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdef");
    EXPECT_EQ(uuid.fmtId(), "ABCDEF-GHIJ-KLMN-OPQR-STUV-WXYZ-abcdef");
    EXPECT_EQ(LvmUuid(uuid.fmtId()).uuid, "ABCDEFGHI-KLN-OQR-TUVWXYZ-abcdef");
    for (const std::string& kept : {std::string(38, 'a'), std::string(37, '-'), std::string()}) {
        EXPECT_EQ(LvmUuid(kept).uuid, kept);
    }
    EXPECT_EQ(LvmUuid(std::string(26, 'a')).fmtId().back(), '-');
    EXPECT_THROW(LvmUuid(std::string(25, 'a')).fmtId(), std::out_of_range);
}

} // namespace
