// The facts about runs: what was reported, what the recordings hold, how both were judged, and what
// that means in words. Made here once; every command shows parts of them, through document_of().
// Plain text: whoever shows it escapes it.
// No state; any thread may call. Errors: timing::Error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
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

/// A value that was reported and judged differently, both in the digits of a report.
struct Difference {
  std::optional<std::size_t> channel;  ///< none: of the run
  std::string name;
  std::string reported;
  std::string judged;

  /// "ch0 count=99 (report: 100)".
  [[nodiscard]] std::string text() const;
};

/// Of the verdict on the whole run, which is the opposite of the one that was `reported`.
[[nodiscard]] Difference verdict_difference(bool reported);
/// Options that, given as in the run, may explain differences: those of verdicts, of numbers.
[[nodiscard]] std::string options_behind(const std::vector<Difference>& differences);

/// Whether the rate of a channel was compared with the one to expect, rather than its count alone.
[[nodiscard]] inline bool compares_rate(const verification::RunResult& run, std::size_t channel) {
  return run.divider != 0 && run.channels[channel].measured_hz > 0;
}

/// Something worth saying of a run.
struct Finding {
  enum class Kind {  // the worst first
    unreadable,
    damage,
    no_lock,
    too_slow,
    differs,
    silent,
    uncompared,
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

  /// What may differ from run to run.
  struct Amount {
    Amount() = default;
    Amount(double value, std::string words) : number(value), text(std::move(words)) {}

    double number = 0;
    std::string text;
  };

  Kind kind = Kind::header;
  std::vector<std::size_t> channels = {};  ///< none: the run as a whole
  /// Goes on after these: "lost {0}{1}" with the amount, and " each" where it is that of several.
  std::string words;
  Amount amount = {};
  std::string detail = {};  ///< goes on after the words, for this run and channel alone
  std::string cause = {};   ///< a sentence, or empty, like the next
  std::string advice = {};

  /// Half a sentence, without channels; the same after "channel 2: ", where it is about one.
  [[nodiscard]] std::string text() const;
  [[nodiscard]] std::string line() const;
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

/// About equal findings in several runs and channels.
struct Sentence {
  std::size_t run = 0;  ///< number of the first one, from 1 on
  std::string subject;  ///< "Runs 2 and 5 to 9, channel 1"
  std::string words;    ///< ": lost 1 event each."
  std::string cause;    ///< a sentence, or empty
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

struct Facts {
  RunDirectory dir;  ///< of stream files alone, empty
  GivenSettings given;
  verification::EvaluationSettings settings;
  std::vector<RecordingFacts> recordings;
  Summary summary = {};  ///< once all were looked into

  [[nodiscard]] bool ended() const { return dir.ended(); }
  [[nodiscard]] bool counts(std::size_t channel) const {
    return verification::channel_counts(settings.channel_mask, channel);
  }
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

/// Of one run, the worst first.
[[nodiscard]] std::vector<Finding> findings_of(const Facts& facts, const RecordingFacts& run);

[[nodiscard]] Summary summary_of(const Facts& facts);

/// "Run 2 at 10 kHz"; `index` counts from 0.
[[nodiscard]] std::string name_of_run(const Facts& facts, std::size_t index);

/// A line for each lock taken, refused or lost, as far as a LockHistory keeps them.
[[nodiscard]] std::vector<std::string> lock_history_of(const Recording& recording);

}  // namespace orvo::inspection
