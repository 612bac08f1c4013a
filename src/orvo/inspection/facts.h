// The facts about runs: what was reported, what the recordings hold, how both were judged, and what
// that means in words. Made here once; every command shows parts of them, through document_of().
// No state; any thread may call. Errors: timing::Error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "orvo/inspection/recording.h"
#include "orvo/inspection/run_directory.h"
#include "orvo/verification/evaluation.h"

namespace orvo::inspection {

/// How recordings are judged; what is not given is that of the report, of the stream file's header,
/// or the tool's default.
struct GivenSettings {
  std::optional<double> tolerance_ppm = std::nullopt;
  std::optional<std::uint64_t> min_tags_per_channel = std::nullopt;
  std::optional<std::uint8_t> channel_mask = std::nullopt;

  [[nodiscard]] bool any() const { return tolerance_ppm || min_tags_per_channel || channel_mask; }
  /// `settings` but for what is given.
  [[nodiscard]] verification::EvaluationSettings over(
      verification::EvaluationSettings settings) const;
};

/// A value that reported and judged run do not share, in the digits of a report.
struct Difference {
  std::optional<std::size_t> channel;  ///< none: of the run
  std::string name;
  std::string reported;
  std::string judged;

  [[nodiscard]] std::string full_name() const;  ///< "ch0 count"
};

/// Options that, given as in the run, may explain differences: those of verdicts, of numbers.
[[nodiscard]] std::string options_behind(const std::vector<Difference>& differences);

/// Something worth saying of a run. Plain text: whoever shows it escapes it.
struct Finding {
  enum class Kind {  // the worst first
    unreadable,
    damage,
    no_lock,
    too_slow,
    differs,
    silent,
    few,
    rate,
    failed,
    coverage,
    span,
    lost,
    extra,
    backward,
    header
  };

  Kind kind = Kind::header;
  std::vector<std::size_t> channels;  ///< none: the run as a whole
  std::string words;                  ///< goes on after these: "lost {}"
  std::string detail;                 ///< and after that, for this run and channel alone
  double amount = 0;                  ///< what may differ from run to run: the {}
  std::string amount_text;
  std::string cause;  ///< a sentence, or empty, like the next
  std::string advice;

  /// Half a sentence, without channels.
  [[nodiscard]] std::string text() const;
};

struct RecordingFacts {
  std::filesystem::path stream_file;  ///< where it is now, or was recorded
  std::optional<verification::RunResult> reported;
  std::optional<Recording> recording;  ///< none: it cannot be read
  std::string error;                   ///< why it could not be judged; empty: it was
  /// Without a divider what needs one is 0.
  std::optional<verification::RunResult> judged;
  bool divider_inferred = false;  ///< from the recording's first intervals
  std::vector<Difference> differences;
  double expected_events = 0;  ///< of a channel in the capture; 0: unknown
  double decoded_s = 0;        ///< of the capture, by the judged channel with the fewest events
  bool incomplete = false;     ///< that falls short of the capture
  std::vector<Finding> findings;

  /// As reported, else as judged.
  [[nodiscard]] const verification::RunResult& shown() const;
  /// What has a verdict of the two: null where nobody knows the source.
  [[nodiscard]] const verification::RunResult* verdict() const;
  /// Passed as reported, and nothing says otherwise.
  [[nodiscard]] bool passed_whole() const {
    return reported && reported->pass && !incomplete && differences.empty() && error.empty();
  }
};

struct Facts {
  RunDirectory dir;  ///< of stream files alone, empty
  GivenSettings given;
  verification::EvaluationSettings settings;
  std::vector<RecordingFacts> recordings;

  [[nodiscard]] bool ended() const { return dir.ended(); }
  /// Whether recordings are judged as they were for the report.
  [[nodiscard]] bool same_judgement() const { return ended() && !given.any(); }
};

/// The facts about a run or, with an empty `dir`, about stream files, before any was looked into.
[[nodiscard]] Facts facts_about(RunDirectory dir, const GivenSettings& given);

/// Looks into the recording of a run, which is as `facts.dir` has it: as reported, or with no more
/// than the stream file and what is known of its source. Of the options, what a run or its report
/// says is set here. What cannot be read is a fact, too; timing::Interrupted is none.
RecordingFacts& look_into(const verification::RunResult& run, RecordingOptions options,
                          Facts& facts);

}  // namespace orvo::inspection
