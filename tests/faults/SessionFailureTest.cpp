// Memory runs short at every allocation that a session reaches, or the volume cannot be read at
// every read, once or from there on: the call answers what was promised or lets the standard
// exception through, works when it is repeated, and every block is given back but those that are
// kept on purpose, see tests/lsan.supp.
#include "Session.h"
#include "kmhost.h"

#include <cstdlib>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

namespace {

constexpr int ALL_TRACES = 0x70000001;
constexpr long TEXT_BLOCKS = 2; // of the two codes that a session asks for

void setUp(bool logging) {
    FaultyHeap::fault = {};
    km_root = ROOT;
    km_debug_level = logging ? ALL_TRACES : 0;
    kmhost_log_to([](void*, const char*, int, kmp_eseverity) {}, nullptr);
}

const auto joined = [](const auto& test) {
    return std::apply([](const auto&... words) { return (words + ...); }, test.param);
};

using SessionParameters = std::tuple<std::string, std::string, std::string, std::string>;
class SessionFailure : public testing::TestWithParam<SessionParameters> {};

TEST_P(SessionFailure, Everywhere) {
    const auto& [type, what, times, logging] = GetParam();
    setUp(logging == "Logged");
    const std::string volume = makeVolume(type);
    // The library stays loaded, so that what the loader keeps for it is not counted as lost.
    ASSERT_NE(dlopen((std::string(ROOT) + "/lib/map/rvp/libfso.so").c_str(), RTLD_NOW), nullptr);
    Session usual(volume);
    usual.run();
    long number = 0;
    bool struck = true;
    while (struck) {
        ++number;
        long mayKeep = 0;
        const long before = FaultyHeap::liveBlocks;
        {
            Session session(volume);
            Fault& fault = what == "Reads" ? session.readFault : FaultyHeap::fault;
            fault = {number, times == "Onwards"};
            session.run();
            struck = fault.strikes != 0;
            mayKeep = session.mayKeep;
            EXPECT_THAT(session.transcript, testing::ElementsAreArray(usual.transcript)) << number;
        }
        const long growth = FaultyHeap::liveBlocks - before;
        EXPECT_THAT(growth, testing::AnyOf(TEXT_BLOCKS, TEXT_BLOCKS + mayKeep)) << number;
    }
    EXPECT_GT(number, what == "Reads" ? 5 : 100);
    RecordProperty("struck", static_cast<int>(number - 1));
}

INSTANTIATE_TEST_SUITE_P(, SessionFailure,
                         testing::Combine(testing::Values("ext4", "ext2"),
                                          testing::Values("Allocations", "Reads"),
                                          testing::Values("Once", "Onwards"),
                                          testing::Values("Silent", "Logged")),
                         joined);

// What is done once in a process: the library is loaded and initialised, logging decided. Each
// number needs a process of its own; its exit status tells what came of it.
enum Outcome { STRUCK = 10, NOT_STRUCK, PROBLEM };

[[noreturn]] void claimFirst(const std::string& volume, long number, bool onwards) {
    FaultyHeap::fault = {number, onwards};
    Session first(volume);
    first.start();
    first.claim();
    FaultyHeap::fault.number = 0; // the loader cannot unload a library without memory
    first.walkAndFinish();
    Session next(volume);
    next.run();
    EXPECT_THAT(first.transcript, testing::ElementsAreArray(next.transcript));
    EXPECT_THAT(first.transcript, testing::Contains(testing::StartsWith("claim volume: 2")));
    const bool struck = FaultyHeap::fault.strikes != 0;
    const int outcome = testing::Test::HasFailure() ? PROBLEM : struck ? STRUCK : NOT_STRUCK;
    // A sanitizer's search for leaks takes long; a leak shows at several numbers.
    number % 5 == 0 ? std::exit(outcome) : _exit(outcome);
}

using FirstParameters = std::tuple<std::string, std::string>;
class FirstAllocationFailure : public testing::TestWithParam<FirstParameters> {};

TEST_P(FirstAllocationFailure, OfAProcess) {
    const auto& [times, logging] = GetParam();
    setUp(logging == "Logged");
    const std::string volume = makeVolume("ext4");
    int outcome = STRUCK;
    const auto isGood = [&outcome](int status) {
        outcome = WEXITSTATUS(status);
        return outcome == STRUCK || outcome == NOT_STRUCK;
    };
    long number = 0;
    while (outcome == STRUCK) {
        ++number;
        EXPECT_EXIT(claimFirst(volume, number, times == "Onwards"), isGood, "") << number;
    }
    EXPECT_GT(number, 20);
    RecordProperty("struck", static_cast<int>(number - 1));
}

INSTANTIATE_TEST_SUITE_P(, FirstAllocationFailure,
                         testing::Combine(testing::Values("Once", "Onwards"),
                                          testing::Values("Silent", "Logged")),
                         joined);

} // namespace
