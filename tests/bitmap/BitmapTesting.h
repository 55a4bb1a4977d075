// What the bitmap's tests share.
#ifndef TESTS_BITMAP_BITMAPTESTING_H
#define TESTS_BITMAP_BITMAPTESTING_H

#include "RvpBitmapX64.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "support/Raised.h"

#include <gtest/gtest.h>
#include <string>

using std::filesystem::exists;

constexpr int KINDS[] = {RvpBitmap::HEAP, RvpBitmap::FILE_MAPPING};
constexpr const char* PREFIX = "dorado_bitmap_test";

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

// What an error of an operation in the source file, or of one in the header, tells.
inline std::string raisedIn(const std::string& function, int code = KMP_EINVAL) {
    return std::to_string(code) + " plugin/common/map_v2/rvp/RvpBitmapX64 " + function;
}
inline std::string refusedInHeader(const std::string& function) {
    return "3 plugin/common/map_v2/rvp/RvpBitmapX64.h " + function;
}

#endif
