// What campaigns on the real tool have in common: their processes, and the ledger and recordings
// that a run of the tool leaves behind.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/tool_runner.h"

namespace orvo::tests {

/// The arguments of a campaign's main, how many cases it takes without any (0 for all), and how
/// many of the first ones are in every sample.
struct Budget {
  int argc;
  char** argv;
  std::size_t by_default;
  std::size_t always = 0;
};

/// `attempt(i)` for a sample of the numbers below `cases` on several processes; it returns what was
/// wrong, or "". Prints that and a summary; returns main's status.
[[nodiscard]] int run_campaign(const char* name, std::size_t cases, const Budget& budget,
                               const std::function<std::string(std::size_t)>& attempt);

/// "" where nothing is `wrong`; otherwise that and what a person types to see `call` again.
[[nodiscard]] std::string report(const std::string& wrong, const ToolCall& call);

/// The driver calls of a ledger, one letter each: Discover, List freed, Open, Identify, Frequency,
/// Mask, Packed-delta, interface X, Start, Read (a row of them: one), sTop, stop with flag Zero,
/// Close; small for one that failed, "!" for a misuse, "." for the orderly end.
[[nodiscard]] std::string calls_in(const std::string& ledger);

/// Regular expression of calls_in() for one capture from its frequency to its stop.
inline const std::string kCapture = "(FMPXFSR?T)";

/// "", or the calls where they do not match `protocol`.
[[nodiscard]] std::string wrong_calls(const std::string& ledger, const std::string& protocol);

/// Bytes that each stream has delivered, and the streams that failed to start with 0.
[[nodiscard]] std::vector<std::uint64_t> streamed_bytes(const std::string& ledger);

/// The recording number `run` (from 1) of a run's directory.
[[nodiscard]] std::string recording(const std::filesystem::path& run_dir, std::size_t run);

/// What is wrong with the recordings when each is to hold what its stream delivered; "" if nothing.
[[nodiscard]] std::string wrong_recordings(const std::filesystem::path& run_dir,
                                           const std::string& ledger);

/// `text` with each `from` replaced by `to`.
[[nodiscard]] std::string with(std::string text, const std::string& from, const std::string& to);

}  // namespace orvo::tests
