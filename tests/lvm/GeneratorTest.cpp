#include "TreeText.h"

#include <ctime>
#include <gmock/gmock.h>
#include <stdexcept>

namespace {

TEST(LvmGenerator, NewGroup) {
    LvmConfig config;
    config.parse("broken");
    config.initNew("vg0");
    EXPECT_EQ(config.getErrorCode(), 0);
    const unsigned long created = config.root["creation_time"].numValue();
    EXPECT_NEAR(static_cast<double>(created), static_cast<double>(std::time(nullptr)), 2);
    const std::string id = config.vg()["id"].strValue();
    EXPECT_THAT(id, testing::MatchesRegex("[0-9A-Za-z]{6}(-[0-9A-Za-z]{4}){5}-[0-9A-Za-z]{6}"));
    EXPECT_EQ(treeText(config.root),
              R"({vg0{id=")" + id +
                  R"("s seqno=1n status["RESIZEABLE"s "READ"s "WRITE"s] extent_size=8192n )"
                  R"(max_lv=256n max_pv=256n} contents="Text Format Volume Group"s version=1n )"
                  R"(description=""s creation_host="localhost"s creation_time=)" +
                  std::to_string(created) + "n}");
    config.initNew("vg0");
    EXPECT_NE(config.vg()["id"].strValue(), id);
}

TEST(LvmGenerator, PhysicalVolumesAreNumberedAndMeasured) {
    LvmConfig config;
    config.parse("vg{extent_size=8192}");
    config.addPv("id-0", "", 1 << 30);
    LvmConfig::Node& list = config.vg()["physical_volumes"];
    EXPECT_EQ(treeText(list), R"(physical_volumes{pv0{id="id-0"s status["ALLOCATABLE"s] )"
                              "dev_size=1073741824n pe_start=384n pe_count=255n}}");

    // The number is that of the entries, so that the third one meets the second.
    config.addPv("id-1", "/dev/sda", 1 << 30);
    list.remove("pv0");
    config.addPv("id-2", "/dev/sdb", 0);
    EXPECT_EQ(treeText(list),
              R"(physical_volumes{pv1{id="id-2"s device="/dev/sdb"s status["ALLOCATABLE"s] )"
              R"(dev_size=0n pe_start=384n pe_count=2251799813685247n status["ALLOCATABLE"s]}})");

    config.parse("vg{}");
    EXPECT_THROW(config.addPv("i", "", 1 << 30), std::out_of_range) << "without an extent size";
    EXPECT_EQ(treeText(config.vg()), R"(vg{physical_volumes{pv0{id="i"s status["ALLOCATABLE"s] )"
                                     "dev_size=1073741824n}} extent_size{}}");
}

TEST(LvmGenerator, PhysicalVolumeByUuid) {
    LvmConfig config;
    config.parse(R"(vg{physical_volumes{pv0{id="first"}}})");
    LvmConfig::Node& list = config.vg()["physical_volumes"];
    EXPECT_EQ(config.pvByUuId("first"), &list["pv0"]);
    const LvmConfig::Node* added = config.pvByUuId("fir");
    EXPECT_EQ(config.pvByUuId("fir"), added);
    list.add("nameless", LvmConfig::Node::SET);
    EXPECT_EQ(config.pvByUuId("third")->name, "pv3");
    EXPECT_EQ(treeText(list), R"(physical_volumes{pv0{id="first"s} pv1{id="fir"s} )"
                              R"(nameless{id{}} pv3{id="third"s}})");
}

TEST(LvmUuid, DisplayFormIsReadBackWithLoss) {
    LvmUuid uuid("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdef");
    EXPECT_EQ(uuid.fmtId(), "ABCDEF-GHIJ-KLMN-OPQR-STUV-WXYZ-abcdef");
    EXPECT_EQ(LvmUuid(uuid.fmtId()).uuid, "ABCDEFGHI-KLN-OQR-TUVWXYZ-abcdef");
    for (const std::string& kept : {std::string(38, 'a'), std::string(37, '-'), std::string()}) {
        EXPECT_EQ(LvmUuid(kept).uuid, kept);
    }
    EXPECT_THROW(LvmUuid(std::string(25, 'a')).fmtId(), std::out_of_range);
}

} // namespace
