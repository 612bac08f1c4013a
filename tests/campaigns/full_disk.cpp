// A limit of file sizes, which is a disk that is full, at any byte: of a small recording and of the
// reports after it, at every size, and of a large recording.
//
//     campaign_full_disk [RUNS | all]
#include <algorithm>

#include "campaigns/campaign.h"
#include "support/scratch.h"

namespace orvo::tests {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kSweptBytes = 2300;  // the JSON report is the largest file
constexpr std::uint64_t kLargePayload = 3'500'000;
constexpr const char* kFirst = "overflow_frequency_01.ortime";

struct Files {
  std::string recording;
  std::string csv;  ///< reports with RUN_DIR for the directory
  std::string json;
};

ToolCall small_call() {
  return {.arguments = {"--output-root=out", "--capture-s=0.1", "--frequencies-hz=1000,1e5"},
          .sim = "pace=bytes:150"};
}

ToolCall large_call() {
  return {.arguments = {"--output-root=out", "--capture-s=0.2", "--frequencies-hz=100000",
                        "--chunk-bytes=65536", "--queue-chunks=100"},
          .sim = "pace=bytes:" + std::to_string(kLargePayload)};
}

Files run_untouched() {
  const ScratchDirectory directory;
  static_cast<void>(run_tool(directory.path(), small_call()));
  const fs::path run_dir = run_dir_in(directory.file("out"));
  const auto text_of = [&](const char* name) {
    return with(read_file(run_dir / name), run_dir.string(), "RUN_DIR");
  };
  return {read_file(run_dir / kFirst), text_of("overflow_frequency.csv"),
          text_of("overflow_frequency.json")};
}

/// The reading back meets a recording of `size` bytes; "" where it can begin to decode.
std::string expected_message(std::uint64_t size, const Files& untouched) {
  const std::size_t header_end = untouched.recording.size() - 150;
  if (size < 8) return "StreamFileReader: truncated magic\n";
  if (size < 12) return "stream file: truncated header length\n";
  if (size < header_end) return "StreamFileReader: truncated JSON header\n";
  return "";
}

std::string wrong_reports(const fs::path& root, const ToolResult& tool, std::uint64_t size,
                          const Files& untouched) {
  const fs::path run_dir = run_dir_in(root);
  const fs::path stem = run_dir / "overflow_frequency";
  const std::string csv = read_file(stem.string() + ".csv");
  const std::string json = read_file(stem.string() + ".json");
  const std::string summary = read_file(stem.string() + ".summary.txt");
  const std::size_t begin = tool.out.find("Orvo timing packed-delta");
  const std::size_t end = tool.out.find("latest_summary=");
  if (begin == std::string::npos || end == std::string::npos) return "no summary";
  if (summary != tool.out.substr(begin, end - begin).substr(0, size)) return "another summary";
  if (read_file(root / "latest.csv") != csv || read_file(root / "latest.json") != json ||
      read_file(root / "latest_summary.txt") != summary) {
    return "published otherwise";
  }
  if (size < untouched.recording.size()) return "";  // other counts than in the untouched run
  const auto expected = [&](const std::string& text) {
    return with(text, "RUN_DIR", run_dir.string()).substr(0, size);
  };
  return csv != expected(untouched.csv) || json != expected(untouched.json) ? "another report" : "";
}

std::string attempt_small(std::uint64_t size, const Files& untouched) {
  const ScratchDirectory directory;
  ToolCall call = small_call();
  call.max_file_bytes = size;
  const ToolResult tool = run_tool(directory.path(), call);
  const fs::path root = directory.file("out");
  const std::string recording = read_file(run_dir_in(root) / kFirst);
  if (recording.size() != std::min<std::uint64_t>(size, untouched.recording.size())) {
    return report(std::to_string(recording.size()) + " bytes recorded", call);
  }
  const std::string message = expected_message(size, untouched);
  std::string wrong =
      wrong_calls(tool.ledger, "DLOI" + kCapture + (message.empty() ? "{2}" : "") + "C\\.");
  if (tool.err != message) wrong = "the wrong message: " + tool.err;
  if (tool.status != (message.empty() ? 2 : 1)) wrong = "the wrong exit status";
  if (wrong.empty() && message.empty()) wrong = wrong_reports(root, tool, size, untouched);
  return report(wrong, call);
}

/// A chunk is written at once, so that none fails in silence.
std::string attempt_large(std::uint64_t size, const Files& untouched) {
  const ScratchDirectory directory;
  ToolCall call = large_call();
  call.max_file_bytes = size;
  const ToolResult tool = run_tool(directory.path(), call);
  const fs::path run_dir = run_dir_in(directory.file("out"));
  const std::uint64_t whole = kLargePayload + untouched.recording.size() - 150;
  const bool full = size < whole;
  std::string wrong =
      wrong_calls(tool.ledger, std::string("DLOIFMPXFSR") + (full ? "[TZ]" : "T") + "C\\.");
  if (fs::file_size(run_dir / kFirst) != std::min(size, whole)) wrong = "other bytes recorded";
  if (tool.err != (full ? "StreamFileWriter: payload write failed\n" : "")) wrong = tool.err;
  if (tool.status != (full ? 1 : 0)) wrong = "the wrong exit status";
  if (full && names_in(run_dir) != std::string(kFirst) + ' ') wrong = "reports written";
  return report(wrong, call);
}

std::vector<std::uint64_t> large_sizes() {
  std::vector<std::uint64_t> sizes;
  for (std::uint64_t size = 4000; size < kLargePayload; size += 49'999) sizes.push_back(size);
  for (std::uint64_t bytes = 0; bytes < 400; bytes += 50) sizes.push_back(kLargePayload + bytes);
  return sizes;
}

}  // namespace
}  // namespace orvo::tests

int main(int argc, char** argv) {
  using namespace orvo::tests;
  const Files untouched = undisturbed(run_untouched);
  const std::vector<std::uint64_t> large = large_sizes();
  return run_campaign("full_disk", kSweptBytes + large.size(), {argc, argv, 150},
                      [&](std::size_t i) {
                        return i < kSweptBytes ? attempt_small(i, untouched)
                                               : attempt_large(large[i - kSweptBytes], untouched);
                      });
}
