// Arrays that a Linux kernel made, filled and read back: each is assembled from its members' images
// and read whole through the mapping.
#include "RaidTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <lzma.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

const fs::path DATA = MD_DATA_DIR;

std::string unpack(const fs::path& file, std::size_t size) {
    std::ifstream in(file, std::ios::binary);
    const std::string packed{std::istreambuf_iterator<char>(in), {}};
    std::string bytes(size, '\0');
    std::uint64_t memory = UINT64_MAX;
    std::size_t read = 0;
    std::size_t written = 0;
    const lzma_ret result = lzma_stream_buffer_decode(
        &memory, 0, nullptr, reinterpret_cast<const std::uint8_t*>(packed.data()), &read,
        packed.size(), reinterpret_cast<std::uint8_t*>(bytes.data()), &written, bytes.size());
    if (result != LZMA_OK || written != size) {
        throw std::runtime_error("cannot unpack " + file.string());
    }
    return bytes;
}

std::string sha256(const std::string& bytes, const std::string& name) {
    const fs::path file = fs::path(testing::TempDir()) / ("raid_test." + name);
    std::ofstream(file, std::ios::binary) << bytes;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> sum(
        popen(("sha256sum '" + file.string() + "'").c_str(), "r"), pclose);
    char digits[65] = {};
    EXPECT_EQ(std::fread(digits, 1, 64, sum.get()), 64U);
    fs::remove(file);
    return digits;
}

class RealArray : public testing::TestWithParam<std::string> {
  protected:
    void SetUp() override {
        std::ifstream(DATA / GetParam() / "case.json") >> m_case;
        for (const json& member : m_case["members"]) {
            RvpDisk& disk =
                m_disks.emplace_back(makeDisk(member["file"], member["start"], member["length"]));
            m_images[disk.name] = unpack(DATA / GetParam() / disk.name,
                                         member["image_sectors"].get<std::size_t>() * 512);
        }
    }

    static bool read(void* context, RvpDisk& disk, unsigned long sector, unsigned long count,
                     char* buffer) {
        const auto& images = static_cast<RealArray*>(context)->m_images;
        const std::string& image = images.at(disk.name);
        if (sector + count > image.size() / 512) {
            return false;
        }
        image.copy(buffer, count * 512, sector * 512);
        return true;
    }

    // What lies where the mapping says; ends early where it says nothing.
    std::string readArray(RvpRaid& raid, RvpVolume volume) {
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
        return array;
    }

    json m_case;
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

    for (const RvpDisk& disk : m_disks) {
        RvpVolume volume{disk.name, disk.partitions.front().startSector};
        const RaidVolume& array = *raid.getRaidVolume(&volume);
        EXPECT_EQ(array.level, m_case["level"].get<std::uint32_t>());
        EXPECT_EQ(array.raidDisks, m_case["raid_disks"].get<std::uint32_t>());
        if (array.level != 1) {
            EXPECT_EQ(array.chunkSize, m_case["chunk_bytes"].get<std::uint32_t>());
        }
        if (array.level == 5 || array.level == 6) {
            EXPECT_EQ(array.layout, m_case["layout"].get<std::uint32_t>());
        }
        if (m_case["set_name"].is_null()) {
            EXPECT_EQ(array.arrayNumber, m_case["md_minor"].get<std::uint32_t>());
        } else {
            EXPECT_EQ(array.setName, m_case["set_name"].get<std::string>());
        }

        EXPECT_EQ(sha256(readArray(raid, volume), GetParam()),
                  m_case["array_sha256"].get<std::string>());
    }
}

std::vector<std::string> caseNames() {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(DATA)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

INSTANTIATE_TEST_SUITE_P(Kernel, RealArray, testing::ValuesIn(caseNames()), [](const auto& test) {
    std::string name = test.param;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

} // namespace
