// Ctrl-C, SIGTERM and SIGHUP at every driver call of a run and some time after it; in a long
// capture or reading back, while the driver is slow to answer, while reports are written.
//
//     campaign_interruption [RUNS | all]
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
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
constexpr std::chrono::seconds kAtOnce{8};   // on a machine that does much else

ToolCall small_call(const char* capture_s) {
  return {.arguments = {"--output-root=out", capture_s, "--chunk-bytes=4096"},
          .sim = "pace=bytes:9000"};
}

std::string wrong_end(const ToolResult& tool, int signal) {
  if (tool.hung) return "hung";
  if (tool.status == 128 + signal && tool.err == "") return "";
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

/// As judged from what the driver has seen, and from what it had seen when the signal came.
std::string late_calls(const std::string& before, const std::string& all) {
  // At most what was begun is ended; nothing new begins.
  const auto begun =
      std::count(all.begin(), all.end(), 'S') - std::count(before.begin(), before.end(), 'S');
  const bool stopped_again = before.ends_with('R') && all.ends_with("ZC") && begun > 0;
  return begun > 1 || stopped_again ? "calls " + before + " and then up to " + all : "";
}

/// A signal some time after the given line of the ledger.
std::string at_call(std::ptrdiff_t line, microseconds delay, int signal) {
  const ScratchDirectory directory;
  const ToolCall call = small_call("--capture-s=0.06");
  ToolProcess tool(directory.path(), call);
  tool.run_until([&] { return std::count(tool.ledger.begin(), tool.ledger.end(), '\n') >= line; });
  tool.run_for(delay);
  const std::string before = calls_in(tool.ledger);
  tool.signal(signal);
  tool.finish();
  std::string wrong;
  if (tool.status == 0) {  // it came too late
    wrong = std::count(before.begin(), before.end(), 'T') == 3 ? "" : "not ended by the signal";
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

/// What would take many minutes is abandoned at once.
std::string in_long_phase(const Texts& arguments, const std::string& sim, const char* reached,
                          const std::string& protocol, int signal) {
  const ScratchDirectory directory;
  ToolCall call{.arguments = arguments, .sim = sim};
  call.arguments.push_back("--output-root=out");
  ToolProcess tool(directory.path(), call);
  tool.run_until([&] { return tool.ledger.find(reached) != std::string::npos; });
  tool.run_for(milliseconds(30));
  tool.signal(signal);
  const bool late = tool.run_for(kAtOnce);
  tool.finish();
  return report((late ? "ends late" : "") + wrong_end(tool, signal) +
                    wrong_calls(tool.ledger, protocol) +
                    wrong_recordings(run_dir_in(directory.file("out")), tool.ledger),
                call);
}

/// While the discovery lasts: the first signal waits for it, a second does not.
std::string while_driver_is_slow(int first, int second) {
  const ScratchDirectory directory;
  ToolCall call = small_call("--capture-s=0.06");
  call.driver_held = true;
  ToolProcess tool(directory.path(), call);
  tool.run_until([&] { return fs::exists(directory.file("out")); });
  tool.run_for(milliseconds(100));
  tool.signal(first);
  if (!tool.run_for(milliseconds(50))) return "ended within a driver call";
  if (second != 0) {
    tool.signal(second);
    const bool late = tool.run_for(kAtOnce);
    tool.finish();
    return late ? "a second signal is not enough" : wrong_end(tool, second);
  }
  tool.release_driver();
  tool.finish();
  return wrong_end(tool, first) + wrong_calls(tool.ledger, "DLOIC");
}

/// A summary that is slow to take its text: what is begun is written, then the process ends.
std::string while_reports_are_written(int signal, bool twice) {
  const ScratchDirectory directory;
  fs::create_directory(directory.file("out"));
  const std::string slow = directory.file("out/latest_summary.txt");
  if (mkfifo(slow.c_str(), 0600) != 0) return "no pipe can be made";
  ToolProcess tool(directory.path(), small_call("--capture-s=0.01"));
  tool.run_until([&] { return fs::exists(directory.file("out/latest.json")); });
  tool.run_for(milliseconds(50));
  tool.signal(signal);
  if (!tool.run_for(milliseconds(50))) return "ended while it published";
  if (twice) {
    tool.signal(signal);
  } else {
    const int reader = open(slow.c_str(), O_RDONLY | O_CLOEXEC);
    tool.finish();
    close(reader);
  }
  tool.finish();
  return wrong_end(tool, signal) + wrong_calls(tool.ledger, twice ? ".*T" : ".*TC");
}

/// A signal that whoever started the tool has ignored stays ignored.
std::string while_ignored(int signal) {
  const ScratchDirectory directory;
  ToolCall call = small_call("--capture-s=0.06");
  call.ignored_signal = signal;
  ToolProcess tool(directory.path(), call);
  tool.run_until([&] { return tool.ledger.find("ot_read") != std::string::npos; });
  tool.signal(signal);
  tool.finish();
  return tool.status == 0 ? "" : "an ignored signal ends the tool";
}

using Cases = std::vector<std::function<std::string()>>;

Cases phases() {
  Cases cases;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    cases.push_back([=] {
      return in_long_phase({"--capture-s=1000", "--chunk-bytes=4096"}, "",
                           "ot_read_stream_bytes k=5", "DLOIFMPXFSRZC", signal);
    });
    cases.push_back([=] {
      return in_long_phase({"--capture-s=1000"}, "pace=bytes:1", "status=-3", "DLOIFMPXFSRZC",
                           signal);
    });
    cases.push_back([=] {  // a search for a lock in vain behind each byte that is read back
      return in_long_phase({"--capture-s=0.3", "--chunk-bytes=1", "--frequencies-hz=100000"},
                           "silent=1", "ot_stop", "DLOIFMPXFSRTC", signal);
    });
    for (const int second : {0, SIGINT, SIGTERM, SIGHUP}) {
      cases.push_back([=] { return while_driver_is_slow(signal, second); });
    }
    for (const bool twice : {false, true}) {
      cases.push_back([=] { return while_reports_are_written(signal, twice); });
    }
    cases.push_back([=] { return while_ignored(signal); });
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
