// Arrays that a Linux kernel made, filled and read back: each is assembled from its members' images
// and read whole through the mapping.
#include "RaidTesting.h"
#include "support/Files.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <map>

namespace {

const std::string DATA = MD_DATA_DIR "/";

class RealArray : public testing::TestWithParam<std::string> {
  protected:
    void SetUp() override {
        const std::string folder = DATA + GetParam() + "/";
        m_case = nlohmann::json::parse(readFile(folder + "case.json"));
        for (const auto& member : m_case["members"]) {
            RvpDisk& disk =
                m_disks.emplace_back(makeDisk(member["file"], member["start"], member["length"]));
            m_images[disk.name] = outputOf("xz -dc '" + folder + disk.name + "'");
        }
    }

    static bool read(void* context, RvpDisk& disk, unsigned long sector, unsigned long count,
                     char* buffer) {
        const std::string& image = static_cast<RealArray*>(context)->m_images.at(disk.name);
        return image.copy(buffer, count * 512, sector * 512) == count * 512;
    }

    // The sum of what lies where the mapping says; ends early where it says nothing.
    std::string readArray(RvpRaid& raid, const RvpVolume& volume) {
        const std::size_t size = m_case["array_sectors"].get<std::size_t>() * 512;
        std::string array;
        while (array.size() < size) {
            const auto mapped = mapAddress(raid, volume, array.size(), size - array.size());
            if (!mapped || mapped->run == 0) {
                break;
            }
            array.append(m_images.at(mapped->disk),
                         mapped->partitionStart * 512 + mapped->memberOffset, mapped->run);
        }
        const TemporaryFolder folder;
        writeFile(folder / "array", array);
        return outputOf("sha256sum <" + (folder / "array")).substr(0, 64);
    }

    nlohmann::json m_case;
    std::vector<RvpDisk> m_disks;
    std::map<std::string, std::string> m_images;
};

TEST_P(RealArray, ReadsAsTheKernelWroteIt) {
    RvpRaid raid;
    std::vector<RvpDisk> arrivals(m_disks.rbegin(), m_disks.rend());
    std::rotate(arrivals.begin(), arrivals.begin() + 1, arrivals.end());
    for (RvpDisk& disk : arrivals) {
        raid.addMbrPartition(disk, &RealArray::read, this);
    }
    RvpVolume volume{m_disks[0].name, m_disks[0].partitions.front().startSector};
    EXPECT_EQ(readArray(raid, volume), m_case["array_sha256"].get<std::string>());

    const RaidVolume& array = *raid.getRaidVolume(&volume);
    EXPECT_EQ(array.members.size(), m_disks.size());
    if (m_case["set_name"].is_null()) {
        EXPECT_EQ(array.arrayNumber, m_case["md_minor"].get<std::uint32_t>());
    } else {
        EXPECT_EQ(array.setName, m_case["set_name"].get<std::string>());
    }
}

std::vector<std::string> caseNames() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(DATA)) {
        names.push_back(entry.path().filename());
    }
    return names;
}

INSTANTIATE_TEST_SUITE_P(Kernel, RealArray, testing::ValuesIn(caseNames()), [](const auto& test) {
    std::string name = test.param;
    std::ranges::replace(name, '-', '_');
    return name;
});

} // namespace
