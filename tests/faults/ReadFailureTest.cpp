// The host's read callback fails, at every place where a session reads: what is answered is what
// was promised, the same call works as soon as the volume can be read again, and nothing is lost.
#include "FaultyHeap.h"
#include "Session.h"

#include <gtest/gtest.h>

namespace {

class ReadFailure : public testing::TestWithParam<bool> {};

TEST_P(ReadFailure, AtEveryRead) {
    km_root = ROOT;
    const bool onwards = GetParam();
    for (const std::string& options : VOLUME_OPTIONS) {
        const std::string volume = makeVolume(options);
        Faults none;
        Session usual(volume, none);
        usual.run();
        bool struck = true;
        for (long number = 1; struck; ++number) {
            ReadFaults faults(number, onwards);
            Session session(volume, faults, &usual.transcript);
            session.run();
            struck = faults.strikes() != 0;
            EXPECT_EQ(session.problems, std::vector<std::string>()) << options << ": " << number;
            if (!struck) {
                RecordProperty("reads " + options.substr(3, 4), static_cast<int>(number - 1));
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(, ReadFailure, testing::Bool(),
                         [](const auto& test) { return test.param ? "Onwards" : "Once"; });

} // namespace
