#include "LineReports.h"

#include <gtest/gtest.h>

namespace Halvex::Fetch {
namespace {

TEST(SummaryText, TellsOfSuccess) {
    EXPECT_EQ(SummaryText({12, 0, 2.149, 1536, false}),
              "12 files available; 1.5 KiB downloaded in 2.1 s");
    EXPECT_EQ(SummaryText({1, 0, 0, 0, false}), "1 file available; 0 B downloaded in 0.0 s");
}

TEST(SummaryText, TellsOfFailures) {
    EXPECT_EQ(SummaryText({1, 2, 0, 0, false}),
              "1 file available, 2 failed; 0 B downloaded in 0.0 s");
}

TEST(SummaryText, TellsOfAnInterruption) {
    EXPECT_EQ(SummaryText({1, 2, 0, 0, true}),
              "Interrupted: 1 file available, 2 not; 0 B downloaded in 0.0 s");
}

} // namespace
} // namespace Halvex::Fetch
