// What becomes of signals in the process that watches for them.
#include "orvo/verification/interruption.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <iostream>
#include <thread>
#include <vector>

namespace orvo::tests {
namespace {

constexpr int kPause = 0;  // among signals: long enough for a second press of Ctrl-C to count

TEST(Interruption, LeavesAnIgnoredSignalIgnoredAndTheOthersAsTheyWere) {
  std::signal(SIGHUP, SIG_IGN);  // as nohup(1) does
  {
    const verification::InterruptionWatch watch;
    std::raise(SIGHUP);
  }
  EXPECT_FALSE(verification::interrupted());
  EXPECT_EQ(std::signal(SIGHUP, SIG_DFL), SIG_IGN);
  EXPECT_EQ(std::signal(SIGTERM, SIG_DFL), SIG_DFL);
}

TEST(InterruptionDeathTest, OnlyASecondInterruptEndsTheProcessAtOnce) {
  const struct {
    std::vector<int> signals;
    int ends_by;
    const char* says;
  } cases[] = {
      {{SIGINT, kPause, SIGTERM, SIGHUP}, SIGINT, "to the end"},
      {{SIGTERM, SIGTERM, kPause, SIGHUP, SIGHUP, SIGINT}, SIGTERM, "to the end"},
      {{SIGINT, SIGINT}, SIGINT, "to the end"},  // one press, as timeout(1) sends it
      {{SIGTERM, SIGINT, kPause, SIGINT}, SIGINT, "^$"},
  };
  const auto take = [](const std::vector<int>& signals) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) std::signal(signal, SIG_DFL);
    {
      const verification::InterruptionWatch watch;
      for (const int signal : signals) {
        if (signal == kPause) std::this_thread::sleep_for(std::chrono::milliseconds(60));
        if (signal != kPause) std::raise(signal);
      }
      std::cerr << "to the end";
    }
    verification::end_if_interrupted();
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.signals));
    EXPECT_EXIT(take(c.signals), testing::KilledBySignal(c.ends_by), c.says);
  }
}

}  // namespace
}  // namespace orvo::tests
