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

// SIGHUP is ignored first where a case says so, as by nohup(1).
TEST(InterruptionDeathTest, OnlyASecondInterruptEndsTheProcessAtOnce) {
  const struct {
    bool nohup;
    std::vector<int> signals;
    int ends_by;
    const char* says;
  } cases[] = {
      {false, {SIGINT, kPause, SIGTERM, SIGHUP}, SIGINT, "to the end"},
      {false, {SIGTERM, SIGTERM, kPause, SIGHUP, SIGHUP, SIGINT}, SIGTERM, "to the end"},
      {false, {SIGINT, SIGINT}, SIGINT, "to the end"},  // one press, as timeout(1) sends it
      {false, {SIGTERM, SIGINT, kPause, SIGINT}, SIGINT, "^$"},
      {true, {SIGHUP}, SIGTERM, "to the end, as before"},
  };
  const auto take = [](bool nohup, const std::vector<int>& signals) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) std::signal(signal, SIG_DFL);
    if (nohup) std::signal(SIGHUP, SIG_IGN);
    {
      const verification::InterruptionWatch watch;
      for (const int signal : signals) {
        if (signal == kPause) std::this_thread::sleep_for(std::chrono::milliseconds(60));
        if (signal != kPause) std::raise(signal);
      }
      std::cerr << "to the end";
    }
    verification::end_if_interrupted();
    if (std::signal(SIGHUP, SIG_DFL) == SIG_IGN) std::cerr << ", as before";
    std::raise(SIGTERM);  // by default once more
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.signals));
    EXPECT_EXIT(take(c.nohup, c.signals), testing::KilledBySignal(c.ends_by), c.says);
  }
}

}  // namespace
}  // namespace orvo::tests
