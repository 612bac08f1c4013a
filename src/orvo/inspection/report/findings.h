// What a report says in sentences. Plain text: whoever shows it escapes it.
// No state; any thread may call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "orvo/inspection/recording.h"
#include "orvo/inspection/run_directory.h"

namespace orvo::inspection {

/// From here on a page has less of each run, so that it is read and small enough to be mailed:
/// fewer columns in a chart, and one row in the table for a run that passed.
inline constexpr std::size_t kManyRuns = 12;

/// A run as reported, and what its recording shows.
struct RunFindings {
  verification::RunResult shown;  ///< as reported; without a report, as decoded
  std::optional<Recording> recording;
  std::string problem;  ///< why there is no recording; empty: there is one

  // These go on after the run's name.
  std::vector<std::string> failures;      ///< why it failed
  std::vector<std::string> observations;  ///< what its verdict does not say
  std::vector<std::string> advice;        ///< worth giving once a page

  double expected_events = 0;  ///< of a channel in the capture; 0: unknown
  double decoded_ps = 0;       ///< of the capture, by the judged channel with the fewest events
  bool incomplete = false;     ///< that falls short of the capture
  bool differs = false;        ///< the recording does not decode to what was reported
  bool passed_whole = false;   ///< it passed, and neither of the two
};

/// What can be said of the whole.
struct Verdict {
  const char* look;      ///< pass, doubt, fail or none
  std::string headline;  ///< "PASS, but only 51.2 ms of 350 ms decoded"
  std::string sentence;
};

struct Findings {
  RunDirectory dir;
  std::vector<RunFindings> runs;
  Verdict verdict;
};

/// Reads every recording.
[[nodiscard]] Findings look_into(const RunDirectory& dir, std::uint64_t chunk_bytes);

/// "Run 2 at 10 kHz"; `index` counts from 0.
[[nodiscard]] std::string name_of_run(std::size_t index, const RunFindings& run);

/// A line for each lock taken, refused or lost, as far as a LockHistory keeps them.
[[nodiscard]] std::vector<std::string> lock_history_of(const Recording& recording);

}  // namespace orvo::inspection
