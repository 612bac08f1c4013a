// Ctrl-C, SIGTERM and SIGHUP at every driver call of a run and some time after it; in a long
// capture or reading back, while the driver is slow to answer, while reports are written.
//
//     campaign_interruption [RUNS | all]
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <regex>
#include <utility>

#include "campaigns/campaign.h"
#include "orvo/timing/stream_files.h"
#include "support/scratch.h"

namespace orvo::tests {
namespace {

namespace fs = std::filesystem;
using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr std::ptrdiff_t kCallsOfARun = 44;  // about: the number of reads varies
constexpr milliseconds kBetweenPresses{60};  // of Ctrl-C; sooner, the second counts for nothing

ToolCall small_call() {
  return {.arguments = {"--output-root=out", "--capture-s=0.06", "--chunk-bytes=4096"},
          .sim = "pace=bytes:9000"};
}

std::string wrong_end(const ToolResult& tool, int signal, const char* err = "") {
  if (tool.hung) return "hung";
  if (tool.status == 128 + signal && tool.err == err) return "";
  return "status " + std::to_string(tool.status) + ": " + tool.err;
}

/// Empty when all recordings hold what was captured and a reader gets tags from them.
std::string wrong_files(const fs::path& root, const std::string& ledger) {
  const fs::path run_dir = run_dir_in(root);
  const std::vector<std::uint64_t> streams = streamed_bytes(ledger);
  for (std::size_t run = 1; run <= streams.size(); ++run) {
    timing::StreamFileReader reader;
    reader.open(recording(run_dir, run));
    if (reader.next_tags(1, 1U << 20).empty() && streams[run - 1] > 1000) return "no tags";
  }
  return wrong_recordings(run_dir, ledger);
}

/// What was begun when the signal was noted is ended, and nothing new begins.
std::string late_calls(const std::string& before, const std::string& all) {
  static const std::regex kEnd("D?L?O?I?(F?M?P?X?F?S[TZ]|R?[TZ])?C?\\.?");
  const bool in_order = std::regex_match(all.substr(before.size()), kEnd);
  return in_order ? "" : "calls " + before + " and then up to " + all;
}

/// A signal some time after the given line of the ledger.
std::string at_call(std::ptrdiff_t line, microseconds delay, int signal) {
  const ScratchDirectory directory;
  const ToolCall call = small_call();
  ToolProcess tool(directory.path(), call);
  tool.run_until([&] { return std::count(tool.ledger.begin(), tool.ledger.end(), '\n') >= line; });
  tool.run_for(delay);
  tool.signal(signal);
  const std::string before = calls_in(tool.ledger);
  tool.finish();
  std::string wrong;
  if (tool.status == 0) {  // it came too late
    wrong = wrong_calls(tool.ledger, "DLOI" + kCapture + "{3}C\\.");
  } else {
    wrong = wrong_end(tool, signal) +
            wrong_calls(tool.ledger, "DLOI" + kCapture + "{0,3}(FMPXFSR?Z)?C\\.?") +
            late_calls(before, calls_in(tool.ledger)) +
            wrong_files(directory.file("out"), tool.ledger);
  }
  if (wrong.empty()) return "";
  return report(wrong + ", signal " + std::to_string(signal) + ' ' + std::to_string(delay.count()) +
                    " us after line " + std::to_string(line) + " of the ledger",
                call);
}

/// What would take many minutes is abandoned at once and in good order, also where the signal is
/// repeated, as timeout(1) does, or the terminal is closed: the shell and the kernel report it.
std::string in_long_phase(ToolCall call, const char* reached, const std::string& protocol,
                          int signal) {
  const ScratchDirectory directory;
  call.arguments.push_back("--output-root=out");
  ToolProcess tool(directory.path(), call);
  tool.run_until([&] { return tool.ledger.find(reached) != std::string::npos; });
  if (call.in_terminal) {
    tool.close_terminal();
  } else {
    tool.signal(signal);
    if (signal != SIGINT) tool.signal(signal);
  }
  tool.finish();
  if (call.in_terminal) tool.err.clear();  // the shell's prompt
  return report(wrong_end(tool, signal) + wrong_calls(tool.ledger, protocol) +
                    wrong_recordings(run_dir_in(directory.file("out")), tool.ledger),
                call);
}

/// To a tool that waits for something.
void send(ToolProcess& tool, const std::vector<int>& signals) {
  for (const int signal : signals) {
    tool.signal(signal);
    tool.rests();
    tool.run_for(kBetweenPresses);
  }
}

/// While the discovery lasts: a second SIGINT ends the tool at once. Anything else does when the
/// driver has answered, after the message of a failure that is met on the way.
std::string while_driver_is_slow(const std::vector<int>& signals, bool fails) {
  const ScratchDirectory directory;
  ToolCall call{.arguments = {"--output-root=out"}, .driver_held = true};
  if (fails) call.sim = "fail=ot_identify:1:-2:detail=cable";
  ToolProcess tool(directory.path(), call);
  tool.run_until([&] { return fs::exists(directory.file("out")) && tool.catches(SIGTERM); });
  send(tool, signals);
  tool.release_driver();
  tool.finish();
  const bool at_once = std::count(signals.begin(), signals.end(), SIGINT) == 2;
  return wrong_end(tool, at_once ? SIGINT : signals[0],
                   fails ? "identify: input/output failure (cable)\n" : "") +
         wrong_calls(tool.ledger, at_once ? ""
                                  : fails ? "DLOiC"
                                          : "DLOIC");
}

/// A summary that is slow to take its text: what is begun is written, then the process ends.
std::string while_reports_are_written(const std::vector<int>& signals) {
  const ScratchDirectory directory;
  fs::create_directory(directory.file("out"));
  const std::string slow = directory.file("out/latest_summary.txt");
  if (mkfifo(slow.c_str(), 0600) != 0) return "no pipe can be made";
  ToolProcess tool(directory.path(), small_call());
  tool.run_until([&] { return fs::exists(directory.file("out/latest.json")); });
  send(tool, signals);
  const int reader = open(slow.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  tool.finish();
  close(reader);
  return wrong_end(tool, signals[0]) + wrong_calls(tool.ledger, ".*TC");
}

using Cases = std::vector<std::function<std::string()>>;

Cases phases() {
  Cases cases;
  const ToolCall capture{.arguments = {"--capture-s=1000", "--chunk-bytes=4096"}};
  const ToolCall silence{.arguments = {"--capture-s=1000"}, .sim = "pace=bytes:1"};
  // A search for a lock, without success, after each byte that is read back.
  const ToolCall search{.arguments = {"--capture-s=0.3", "--chunk-bytes=1"},
                        .sim = "silent=1;pace=bytes:2000000"};
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    cases.push_back(
        [=] { return in_long_phase(capture, "read_stream_bytes k=5", "DLOIFMPXFSRZC", signal); });
    cases.push_back([=] { return in_long_phase(silence, "status=-3", "DLOIFMPXFSRZC", signal); });
    cases.push_back([=] { return in_long_phase(search, "ot_stop", "DLOIFMPXFSRTC", signal); });
    cases.push_back([=] { return while_driver_is_slow({signal, SIGTERM}, true); });
    cases.push_back([=] { return while_reports_are_written({signal, SIGHUP, SIGHUP}); });
  }
  cases.push_back([=] { return while_driver_is_slow({SIGHUP, SIGHUP}, false); });
  cases.push_back([=] { return while_driver_is_slow({SIGINT, SIGTERM, SIGINT}, false); });
  ToolCall in_terminal = capture;
  in_terminal.environment = {"HISTFILE="};
  in_terminal.in_terminal = true;
  for (int times = 0; times < 8; ++times) {  // signals of a kind do not always come one by one
    cases.push_back([=] {
      return in_long_phase(in_terminal, "read_stream_bytes k=5", "DLOIFMPXFSRZC", SIGHUP);
    });
  }
  return cases;
}

Cases every_call() {
  Cases cases;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    for (std::ptrdiff_t line = 1; line <= kCallsOfARun; ++line) {
      for (const int delay_us : {0, 300, 1000, 5000, 15000, 40000}) {
        cases.push_back([=] { return at_call(line, microseconds(delay_us), signal); });
      }
    }
  }
  return cases;
}

}  // namespace
}  // namespace orvo::tests

int main(int argc, char** argv) {
  using namespace orvo::tests;
  Cases cases = phases();
  const std::size_t always = cases.size();
  for (auto& attempt : every_call()) cases.push_back(std::move(attempt));
  return run_campaign("interruption", cases.size(), {argc, argv, 150, always},
                      [&](std::size_t i) { return cases[i](); });
}
