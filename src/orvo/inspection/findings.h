// What facts mean, in sentences. Plain text: whoever shows it escapes it.
// No state; any thread may call.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "orvo/inspection/facts.h"

namespace orvo::inspection {

/// Of one run, the worst first.
[[nodiscard]] std::vector<Finding> findings_of(const Facts& facts, const RecordingFacts& run);

/// One about equal findings in several runs and channels.
struct Sentence {
  std::vector<std::size_t> runs;  ///< from 0
  std::string subject;            ///< "Runs 2 and 5 to 9, channel 1"
  std::string words;              ///< ": lost 1 event each."
  std::string cause;              ///< a sentence, or empty
};

/// What can be said of the whole.
struct Summary {
  const char* look = "none";  ///< pass, doubt, fail or none
  std::string headline;       ///< "PASS, but only 51.2 ms of 350 ms decoded"
  std::string lead;           ///< one sentence on
  std::vector<Sentence> sentences;
  std::vector<std::string> advice;
  std::size_t unjudged = 0;       ///< recordings
  std::size_t disagreements = 0;  ///< of values that were reported and judged
  bool verdicts_differ = false;   ///< one of these: on the whole
  bool pass = false;              ///< all judged, passed, as reported
};

[[nodiscard]] Summary summary_of(const Facts& facts);

/// "Run 2 at 10 kHz"; `index` counts from 0.
[[nodiscard]] std::string name_of_run(const Facts& facts, std::size_t index);

/// A line for each lock taken, refused or lost, as far as a LockHistory keeps them.
[[nodiscard]] std::vector<std::string> lock_history_of(const Recording& recording);

}  // namespace orvo::inspection
