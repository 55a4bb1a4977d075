// Memory runs short at every allocation that a session reaches, once or from there on: the call
// answers what was promised or lets the standard exception through, works when it is repeated,
// and every block is given back but those that are kept on purpose.
#include "FaultyHeap.h"
#include "Session.h"
#include "kmhost.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <iostream>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

constexpr int ALL_TRACES = 0x70000001;

#if defined(__SANITIZE_ADDRESS__)
bool hasLeaks() {
    return __lsan_do_recoverable_leak_check() != 0;
}
#else
bool hasLeaks() {
    return false;
}
#endif

void dropLine(void*, const char*, int, kmp_eseverity) {}

void setUpHost(bool logging) {
    km_root = ROOT;
    km_debug_level = logging ? ALL_TRACES : 0;
    kmhost_log_to(dropLine, nullptr);
}

// Sessions with a fault, one after the other, beside what a session without one answered.
class FaultySessions {
  public:
    FaultySessions(const std::string& options, bool logging) : m_volume(makeVolume(options)) {
        setUpHost(logging);
    }

    void runUsual() {
        Faults none;
        Session session(m_volume, none);
        session.run();
        m_usual = session.transcript;
    }

    // Whether a fault of this number struck.
    bool run(long number, bool onwards) const {
        uint64_t allowedGrowth = 0;
        bool struck = false;
        const long before = FaultyHeap::liveBlocks();
        {
            MemoryFaults faults(number, onwards);
            Session session(m_volume, faults, &m_usual);
            session.run();
            struck = faults.strikes() != 0;
            allowedGrowth = session.allowedGrowth;
            for (const std::string& problem : session.problems) {
                ADD_FAILURE() << "allocation " << number << ": " << problem;
            }
        }
        const long growth = FaultyHeap::liveBlocks() - before;
        EXPECT_TRUE(growth >= 0 && growth < 64 && ((allowedGrowth >> growth) & 1) != 0)
            << "allocation " << number << ": " << growth << " blocks are left";
        return struck;
    }

  private:
    std::string m_volume;
    Transcript m_usual;
};

using Parameters = std::tuple<std::size_t, bool, bool>; // volume, onwards, logging

std::string nameOf(const testing::TestParamInfo<Parameters>& test) {
    const auto [volume, onwards, logging] = test.param;
    return std::string(volume == 0 ? "Ext4" : "Ext2") + (onwards ? "Onwards" : "Once") +
           (logging ? "Logged" : "Silent");
}

class AllocationFailure : public testing::TestWithParam<Parameters> {};

TEST_P(AllocationFailure, OfASession) {
    const auto [volume, onwards, logging] = GetParam();
    FaultySessions sessions(VOLUME_OPTIONS[volume], logging);
    // The library stays loaded, so that what the loader keeps for it is not counted as lost.
    ASSERT_NE(dlopen((std::string(ROOT) + "/lib/map/rvp/libfso.so").c_str(), RTLD_NOW), nullptr);
    sessions.runUsual();
    sessions.runUsual();
    long number = 1;
    while (sessions.run(number, onwards)) {
        ++number;
    }
    EXPECT_GT(number, 100);
    RecordProperty("allocations", static_cast<int>(number - 1));
}

INSTANTIATE_TEST_SUITE_P(, AllocationFailure,
                         testing::Combine(testing::Values(0, 1), testing::Bool(), testing::Bool()),
                         nameOf);

// What is done once in a process: the library is loaded and initialised, logging decided. Each
// number needs a process of its own; its exit status tells what came of it.
enum Outcome { STRUCK = 0, NOT_STRUCK = 1, PROBLEM = 2, LEAK = 3 };

int firstClaim(const std::string& volume, long number, bool onwards) {
    const Transcript usual = {{"init", "0", "2"},
                              {"sector size", "0", ""},
                              {"read callback", "0", ""},
                              {"keep-alive callback", "0", ""},
                              {"claim volume", "2", ""}};
    MemoryFaults faults(number, onwards);
    {
        Session session(volume, faults, &usual);
        session.start();
        session.claim();
        for (const std::string& problem : session.problems) {
            std::cerr << "allocation " << number << ": " << problem << "\n";
        }
        if (!session.problems.empty()) {
            return PROBLEM;
        }
    }
    Faults none;
    Session once(volume, none);
    once.run();
    Session again(volume, none, &once.transcript);
    again.run();
    if (!again.problems.empty() || once.transcript[4] != usual[4]) {
        return PROBLEM;
    }
    // The search for leaks takes long; a leak shows at several numbers.
    const bool leaks = number % 5 == 0 && hasLeaks();
    return leaks ? LEAK : faults.strikes() != 0 ? STRUCK : NOT_STRUCK;
}

class FirstAllocationFailure : public testing::TestWithParam<std::tuple<bool, bool>> {};

TEST_P(FirstAllocationFailure, OfAProcess) {
    const auto [onwards, logging] = GetParam();
    const std::string volume = makeVolume(VOLUME_OPTIONS[0]);
    setUpHost(logging);
    int outcome = STRUCK;
    long number = 0;
    while (outcome == STRUCK) {
        ++number;
        const pid_t child = fork();
        if (child == 0) {
            _exit(firstClaim(volume, number, onwards));
        }
        int status = 0;
        waitpid(child, &status, 0);
        outcome = WIFEXITED(status) ? WEXITSTATUS(status) : int{PROBLEM};
        EXPECT_LE(outcome, NOT_STRUCK) << "allocation " << number << ": status " << status;
    }
    EXPECT_GT(number, 20);
    RecordProperty("allocations", static_cast<int>(number - 1));
}

INSTANTIATE_TEST_SUITE_P(, FirstAllocationFailure,
                         testing::Combine(testing::Bool(), testing::Bool()), [](const auto& test) {
                             return std::string(std::get<0>(test.param) ? "Onwards" : "Once") +
                                    (std::get<1>(test.param) ? "Logged" : "Silent");
                         });

} // namespace
