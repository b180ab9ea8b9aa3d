// The arithmetic of the progress reports.
#include "upload/ProgressMeter.h"

#include <gtest/gtest.h>

namespace {

TEST(ProgressMeter, ReportsTwoFilesAtTheInitialRate) {
  DWORD dwAllSent = 0;
  ProgressMeter first(5600, 10'250, 56'000, 112'000, dwAllSent);
  EXPECT_EQ(first.First(), (ProgressReport{0, 56'000, 10, 0, 112'000, 20, 5600}));
  ProgressReport report = {};
  first.AddSent(28'000);
  EXPECT_FALSE(first.Periodic(10'499, report)) << "the tick has not changed";
  ASSERT_TRUE(first.Periodic(11'000, report)); // two ticks: 14,000 a tick
  EXPECT_EQ(report, (ProgressReport{28'000, 56'000, 2, 28'000, 112'000, 6, 14'000}));
  EXPECT_FALSE(first.Periodic(11'499, report)) << "only one report a tick";
  first.AddSent(28'000);
  ASSERT_TRUE(first.Periodic(15'000, report)); // ten ticks: 5,600 a tick
  EXPECT_EQ(report, (ProgressReport{56'000, 56'000, 0, 56'000, 112'000, 10, 5600}));
  EXPECT_EQ(first.Last(), report);

  ProgressMeter second(first.Rate(), 15'000, 56'000, 112'000, dwAllSent);
  EXPECT_EQ(second.First(), (ProgressReport{0, 56'000, 10, 56'000, 112'000, 20, 5600}))
      << "the first report counts from the whole total";
  second.AddSent(11'200);
  ASSERT_TRUE(second.Periodic(16'000, report));
  EXPECT_EQ(report, (ProgressReport{11'200, 56'000, 8, 67'200, 112'000, 8, 5600}));
}

TEST(ProgressMeter, MeetsShrunkFilesAZeroRateAndAClockThatWraps) {
  ProgressReport report = {};
  DWORD dwAllSent[3] = {};
  ProgressMeter shrunk(5600, 0, 11'200, 11'200, dwAllSent[0]);
  shrunk.First();
  shrunk.AddSent(5'000);
  EXPECT_EQ(shrunk.Last(), (ProgressReport{11'200, 11'200, 2, 5'000, 11'200, 2, 5600})) << "the latest times again";
  ProgressMeter slow(0, 0, 100, 100, dwAllSent[1]);
  EXPECT_EQ(slow.First(), (ProgressReport{0, 100, 100, 0, 100, 100, 0})) << "divides by 1";
  slow.AddSent(3);
  ASSERT_TRUE(slow.Periodic(5'000, report));
  EXPECT_EQ(report, (ProgressReport{3, 100, 97, 3, 100, 97, 0}));
  ProgressMeter wrapped(5600, 0xFFFFFFFF, 100, 100, dwAllSent[2]);
  EXPECT_TRUE(wrapped.Periodic(0, report) && wrapped.Periodic(0xFFFFFFFF, report)) << "back at the start tick";
}

} // namespace
