// What the bitmap's tests share.
#ifndef TESTS_BITMAP_BITMAPTESTING_H
#define TESTS_BITMAP_BITMAPTESTING_H

#include "RvpBitmapX64.h"
#include "support/LogCapture.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <unistd.h>

constexpr int KINDS[] = {RvpBitmap::HEAP, RvpBitmap::FILE_MAPPING};

// A folder of its own, removed with what tests leave in it.
class TestFolder {
  public:
    TestFolder() {
        char pattern[] = "/tmp/dorado_bitmap_XXXXXX";
        m_path = mkdtemp(pattern);
    }
    ~TestFolder() { std::system(("rm -rf " + m_path).c_str()); }
    TestFolder(const TestFolder&) = delete;
    TestFolder& operator=(const TestFolder&) = delete;

    std::string at(const std::string& name) const { return m_path + "/" + name; }

  private:
    std::string m_path;
};

inline std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// The path behind "Temp file name for bitmapfile: ", or nothing.
inline std::string tempFileIn(const LogCapture& log) {
    const std::string lead = "Temp file name for bitmapfile: ";
    for (const std::string& line : log.lines()) {
        if (const auto at = line.find(lead); at != std::string::npos) {
            return line.substr(at + lead.size());
        }
    }
    return {};
}

// Expects the refusal of a call, with the place that it names.
template <typename Call>
void expectRefused(const Call& call, const char* file, const char* function) {
    try {
        call();
        ADD_FAILURE() << "not refused";
    } catch (const OrmaError& error) {
        EXPECT_EQ(error.m_code, KMP_EINVAL);
        EXPECT_STREQ(error.m_file, file);
        EXPECT_STREQ(error.m_function, function);
    }
}

constexpr const char* BITMAP_SOURCE = "plugin/common/map_v2/rvp/RvpBitmapX64";
constexpr const char* BITMAP_HEADER = "plugin/common/map_v2/rvp/RvpBitmapX64.h";

#endif
