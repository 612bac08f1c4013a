// Ctrl-C, SIGTERM and SIGHUP at any moment of a run: no hardware is left streaming, what is begun
// is ended, and the process ends by the signal.
//
// ORVO_EVERY_SIGNAL sends each signal after each driver call; without it they take turns.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "orvo/verification/interruption.h"
#include "support/scratch.h"
#include "support/tool_runner.h"

namespace orvo::tests {
namespace {

namespace fs = std::filesystem;

constexpr int kPause = 0;  // among signals: long enough for a second press of Ctrl-C to count
constexpr std::chrono::milliseconds kBetweenPresses{60};

template <typename Send>
void send(const std::vector<int>& signals, const Send& send_one) {
  for (const int signal : signals) {
    if (signal == kPause) std::this_thread::sleep_for(kBetweenPresses);
    if (signal != kPause) send_one(signal);
  }
}

const std::string kSmallRuns = kTool +
                               "--output-root=out --capture-s=0.02 --chunk-bytes=4096 "
                               "--frequencies-hz=1e5,1e5 --min-tags-per-channel=0";
constexpr const char* kSmall = "pace=bytes:9000";

TEST(ToolInterruption, AfterAnyDriverCall) {
  constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
  constexpr std::ptrdiff_t kCallsOfARun = 36;  // about: the number of reads varies
  const std::ptrdiff_t step = std::getenv("ORVO_EVERY_SIGNAL") != nullptr ? 1 : 4;
  for (std::ptrdiff_t at = 3; at < 3 * kCallsOfARun; at += step) {
    const int signal = kSignals[at % 3];
    SCOPED_TRACE(testing::Message() << "signal " << signal << " after line " << at / 3);
    const ScratchDirectory directory;
    ToolProcess tool(directory.path(), kSmallRuns, kSmall);
    tool.run_until(
        [&] { return std::count(tool.ledger.begin(), tool.ledger.end(), '\n') >= at / 3; });
    tool.signal(signal);
    const std::string before = calls_in(tool.ledger);
    tool.finish();
    const std::string calls = calls_in(tool.ledger);
    EXPECT_EQ(recorded_bytes(run_dir_in(directory.file("out"))), delivered_bytes(tool.ledger));
    EXPECT_EQ(tool.err, "");
    if (tool.status == 0) {  // it came too late
      EXPECT_TRUE(std::regex_match(calls, std::regex("DLOI(FMPXFSR?T){2}C\\."))) << calls;
      continue;
    }
    EXPECT_EQ(tool.status, 128 + signal);
    const std::regex whole("DLOI(FMPXFSR?T){0,2}(FMPXFSR?Z)?C\\.?");
    EXPECT_TRUE(std::regex_match(calls, whole)) << calls;
    // What was begun when the signal was noted is ended, and nothing new begins.
    const std::regex end("D?L?O?I?(F?M?P?X?F?S[TZ]|R?[TZ])?C?\\.?");
    EXPECT_TRUE(std::regex_match(calls.substr(before.size()), end)) << before << ", " << calls;
  }
}

// What would take many minutes is abandoned, also where the signal comes twice, as from timeout(1),
// or from a shell and the kernel for a closed terminal.
TEST(ToolInterruption, EndsALongPhaseAtOnce) {
  const struct {
    const char *arguments, *sim, *reached, *calls;
    std::vector<int> signals;
  } cases[] = {
      {"--capture-s=1000", "", "read_stream_bytes k=5", "DLOIFMPXFSRZC", {SIGINT}},
      {"--capture-s=1000", "pace=bytes:1", "status=-3", "DLOIFMPXFSRZC", {SIGHUP, SIGHUP}},
      // A search for a lock, without success, after each byte that is read back.
      {"--capture-s=0.3 --chunk-bytes=1",
       "silent=1;pace=bytes:2000000",
       "ot_stop",
       "DLOIFMPXFSRTC",
       {SIGTERM, SIGTERM}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reached);
    const ScratchDirectory directory;
    ToolProcess tool(directory.path(), kTool + "--output-root=out " + c.arguments, c.sim);
    tool.run_until([&] { return tool.ledger.find(c.reached) != std::string::npos; });
    send(c.signals, [&](int signal) { tool.signal(signal); });
    tool.finish();
    EXPECT_EQ(tool.status, 128 + c.signals[0]);
    EXPECT_EQ(tool.err, "");
    EXPECT_EQ(calls_in(tool.ledger), c.calls);
    EXPECT_EQ(recorded_bytes(run_dir_in(directory.file("out"))), delivered_bytes(tool.ledger));
  }
}

// The driver's first call waits for a reader of its ledger. No capture is begun after it, and what
// was said until then is not lost.
TEST(ToolInterruption, WhileTheDriverIsSlow) {
  const ScratchDirectory directory;
  const std::string ledger = directory.file("ledger");
  ASSERT_EQ(mkfifo(ledger.c_str(), 0600), 0);
  ToolProcess tool(directory.path(), kTool + "--output-root=out", "ledger=" + ledger);
  tool.run_until([&] { return tool.in_signal_set(SIGHUP, "SigCgt"); });  // the last of the three
  send({SIGTERM, SIGINT}, [&](int signal) { tool.signal(signal); });
  const int reader = open(ledger.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  tool.finish();
  close(reader);
  EXPECT_EQ(tool.status, 128 + SIGTERM);
  EXPECT_TRUE(tool.out.ends_with(", SIM1001\n")) << tool.out;
}

// A summary that waits for a reader: what is begun is written, then the process ends.
TEST(ToolInterruption, WhileReportsAreWritten) {
  const ScratchDirectory directory;
  const std::string slow = directory.file("out/latest_summary.txt");
  fs::create_directory(directory.file("out"));
  ASSERT_EQ(mkfifo(slow.c_str(), 0600), 0);
  ToolProcess tool(directory.path(), kSmallRuns, kSmall);
  tool.run_until([&] { return fs::exists(directory.file("out/latest.json")); });
  send({SIGTERM, SIGHUP, SIGHUP, SIGINT}, [&](int signal) { tool.signal(signal); });
  const int reader = open(slow.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  tool.finish();
  close(reader);
  EXPECT_EQ(tool.status, 128 + SIGTERM);
  EXPECT_EQ(tool.err, "");
  EXPECT_NE(tool.out.find("latest_json="), std::string::npos) << tool.out;
  EXPECT_TRUE(calls_in(tool.ledger).ends_with("TC")) << tool.ledger;
}

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
    {
      const verification::InterruptionWatch watch;
      send(signals, [](int signal) { std::raise(signal); });
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
