#include "Progress.h"

#include "Text.h"

#include <algorithm>
#include <cstdio>
#include <fmt/format.h>
#include <unistd.h>

namespace {

constexpr auto INTERVAL = std::chrono::milliseconds(100);
constexpr unsigned CALLS_A_CLOCK_READING = 32;
constexpr uint64_t BAR_CELLS = 24;

// "45 s", "3:07 min", "2:05 h"
std::string durationText(double seconds) {
    constexpr double LONGEST = 999.0 * 3600;
    const auto whole = static_cast<unsigned>(std::min(seconds, LONGEST) + 0.5);
    if (whole < 60) {
        return fmt::format("{} s", whole);
    }
    return whole < 3600 ? fmt::format("{}:{:02} min", whole / 60, whole % 60)
                        : fmt::format("{}:{:02} h", whole / 3600, whole / 60 % 60);
}

} // namespace

bool Progress::s_enabled = false;
bool Progress::s_shown = false;

Progress::Progress(const std::string& title, Unit unit, uint64_t total)
    : m_title(title), m_unit(unit), m_total(total) {}

void Progress::enable(bool wanted) {
    s_enabled = wanted && ::isatty(STDERR_FILENO) == 1;
}

void Progress::hide() {
    if (s_shown) {
        std::fputs("\r\033[K", stderr);
        s_shown = false;
    }
}

void Progress::show() {
    if (m_unit == Unit::FILES && ++m_calls % CALLS_A_CLOCK_READING != 0) {
        return;
    }
    const Clock::time_point now = Clock::now();
    if (now - m_shownAt < INTERVAL) {
        return;
    }
    m_shownAt = now;
    s_shown = true;
    const double seconds = std::chrono::duration<double>(now - m_start).count();
    fmt::print(stderr, "\r\033[K{}", line(seconds));
    std::fflush(stderr);
}

std::string Progress::line(double seconds) const {
    const double rate = static_cast<double>(m_done) / seconds;
    std::string text = m_title;
    if (m_total != 0) {
        const uint64_t done = std::min(m_done, m_total);
        const double share = static_cast<double>(done) / static_cast<double>(m_total);
        const auto cells = static_cast<std::size_t>(share * BAR_CELLS);
        text += fmt::format(" [{:<{}}] {:3.0f} %", std::string(cells, '#'), BAR_CELLS, share * 100);
        // A total that is only about right may be passed.
        if (done > 0 && done < m_total) {
            text +=
                fmt::format(", {} left", durationText(static_cast<double>(m_total - done) / rate));
        }
    }
    if (m_unit == Unit::BYTES) {
        return fmt::format("{}, {}B, {}B/s", text, humanSize(m_done),
                           humanSize(static_cast<uint64_t>(rate)));
    }
    return fmt::format("{}, {} {}, {:.0f}/s", text, m_done,
                       m_unit == Unit::FILES ? "files" : "parts", rate);
}
