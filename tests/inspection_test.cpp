// Parts of ortime whose limits its commands do not reach in short recordings.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <optional>
#include <vector>

#include "orvo/inspection/lock_history.h"
#include "orvo/inspection/stream_input.h"
#include "orvo/inspection/text.h"

namespace orvo::inspection {
namespace {

using timing::LockEvent;

TEST(LockHistory, DatesEventsAndKeepsTheFirstAndTheLast) {
  LockHistory dated;
  dated.add({LockEvent::Kind::locked, 0, 1});
  dated.pass(std::vector<timing::TimeTag>{{0, 7}, {1, 8}});
  EXPECT_EQ(dated.entries()[0].time_ps, 7);
  EXPECT_EQ(dated.entries()[0].next_ps, 8);
  LockHistory endless;
  for (int i = 0; i < 500; ++i) {
    endless.add({LockEvent::Kind::imbalanced});
    endless.add({LockEvent::Kind::locked});
  }
  EXPECT_EQ(endless.entries().size(), 100U);
  EXPECT_EQ(endless.left_out(), 900U);
  EXPECT_EQ(endless.dropped(), 500U);
  LockHistory skipping;
  for (const auto kind : {LockEvent::Kind::no_alignment, LockEvent::Kind::rejected_alignment,
                          LockEvent::Kind::locked}) {
    skipping.add({.kind = kind, .drop_bytes = 10});
  }
  EXPECT_EQ(skipping.skipped_bytes(), 20U);  // the refused one is searched again
}

TEST(Progress, TellsPartRateAndTimeLeft) {
  EXPECT_EQ(progress_line(500'000'000, 2'000'000'000, 5),
            "[######                  ] 25 %  500 of 2000 MB, 100 MB/s, 0:15 left");
  EXPECT_EQ(progress_line(500'000'000, 7'000'000'000, 5),
            "[#                       ] 7 %  500 of 7000 MB, 100 MB/s, 1:05 left");
  EXPECT_EQ(progress_line(3, 2, 0), "[########################] 100 %  0 of 0 MB, 0 MB/s");
  EXPECT_EQ(progress_line(500'000'000, std::nullopt, 5), "500 MB, 100 MB/s");
}

TEST(Texts, Numbers) {
  EXPECT_EQ(grouped(std::int64_t{-1'234'567}), "−1\u202F234\u202F567");
  EXPECT_EQ(signed_text(-0.0000001, 6), "0.000000");
  EXPECT_EQ(signed_text(12.25, 1), "+12.2");
  EXPECT_EQ(fixed_text(std::nan(""), 2), "–");
  EXPECT_EQ(signed_time_text(10'006'015), "+10.01\u00A0µs");
  EXPECT_EQ(time_text(999'960), "1\u00A0µs");
  EXPECT_EQ(time_text(999'700'000'000, 3), "1\u00A0s");
  EXPECT_EQ(short_text(1e9), "1\u00A0G");
}

}  // namespace
}  // namespace orvo::inspection
