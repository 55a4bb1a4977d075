#include "FileTime.h"

namespace {

constexpr uint64_t SECONDS_1900_TO_1970 = 2208988800;
constexpr int64_t NANOSECONDS = 1'000'000'000;
constexpr uint32_t NANOSECOND_MASK = (1U << 30) - 1;
constexpr std::size_t POINT_AND_DECIMALS = 10;

// The leading one keeps the zeros behind it and then makes room for the point.
void appendDecimals(TextBuffer& out, uint32_t nanoseconds) {
    const fmt::format_int digits(1'000'000'000U + nanoseconds);
    char* place = grow(out, POINT_AND_DECIMALS);
    std::memcpy(place, digits.data(), POINT_AND_DECIMALS);
    *place = '.';
}

} // namespace

timespec toTimespec(const km_time& time) {
    const auto low = static_cast<int64_t>(time.seconds - SECONDS_1900_TO_1970);
    const int64_t epochs = time.fraction >> 30;
    // Thirty bits hold a little more than a second.
    const int64_t nanoseconds = time.fraction & NANOSECOND_MASK;
    timespec result = {};
    result.tv_sec = low + (epochs << 32) + nanoseconds / NANOSECONDS;
    result.tv_nsec = nanoseconds % NANOSECONDS;
    return result;
}

bool isKept(const km_time& creationTime) {
    return creationTime.seconds != SECONDS_1900_TO_1970 || creationTime.fraction != 0;
}

void appendSeconds(TextBuffer& out, const km_time& time) {
    const timespec value = toTimespec(time);
    int64_t seconds = value.tv_sec;
    int64_t nanoseconds = value.tv_nsec;
    if (seconds < 0) {
        out.push_back('-');
        seconds = -seconds;
        if (nanoseconds != 0) {
            --seconds;
            nanoseconds = NANOSECONDS - nanoseconds;
        }
    }
    appendNumber(out, static_cast<uint64_t>(seconds));
    appendDecimals(out, static_cast<uint32_t>(nanoseconds));
}

std::string localTime(const km_time& time) {
    const timespec value = toTimespec(time);
    std::tm parts = {};
    if (::localtime_r(&value.tv_sec, &parts) == nullptr) {
        return fmt::format("@{}", value.tv_sec);
    }
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", parts.tm_year + 1900,
                       parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
}
