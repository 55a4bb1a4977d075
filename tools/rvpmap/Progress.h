// A progress line on standard error for long work, shown on a terminal only.
#ifndef RVPMAP_PROGRESS_H
#define RVPMAP_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

class Progress {
  public:
    enum class Unit { FILES, PARTS, BYTES };
    // `total` 0: not known.
    Progress(const std::string& title, Unit unit, uint64_t total);
    ~Progress() { hide(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void advance(uint64_t amount) {
        m_done += amount;
        if (s_enabled) {
            show();
        }
    }

    // Decides once for the process whether anything is shown.
    static void enable(bool wanted);
    // Clears the line, so that a message can take its place.
    static void hide();

  private:
    using Clock = std::chrono::steady_clock;
    void show();
    std::string line(double seconds) const;

    static bool s_enabled;
    static bool s_shown;

    std::string m_title;
    Unit m_unit;
    uint64_t m_total;
    uint64_t m_done = 0;
    unsigned m_calls = 0;
    Clock::time_point m_start = Clock::now();
    Clock::time_point m_shownAt = m_start;
};

#endif
