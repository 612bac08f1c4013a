#include "orvo/inspection/facts.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <type_traits>
#include <utility>

#include "orvo/timing/error.h"

namespace orvo::inspection {
namespace {

using verification::ChannelResult;
using verification::EvaluationSettings;
using verification::kChannels;
using verification::RunResult;

/// Less of the capture decoded than this is worth a word,
constexpr double kGoodCoverage = 0.9;
/// but for this many periods at its ends.
constexpr double kEdgePeriods = 3;

/// What reports have of a result by its name there, in their digits, but for the stream file.
using Values = std::vector<std::pair<std::string, std::string>>;

auto into(Values& values) {
  return [&values](const char* name, const auto& value, int digits = 0) {
    using Value = std::remove_cvref_t<decltype(value)>;
    if constexpr (std::is_same_v<Value, double>) {
      values.emplace_back(name, fmt::format("{:.{}f}", value, digits));
    } else if constexpr (!std::is_same_v<Value, std::filesystem::path>) {
      values.emplace_back(name, fmt::to_string(value));
    }
  };
}

Values values_of(const RunResult& run) {
  Values values;
  visit_run(run, into(values));
  return values;
}

Values values_of(const ChannelResult& channel) {
  Values values;
  visit_channel(channel, into(values));
  return values;
}

/// Verdicts differ only where they were made the same way.
void compare(std::optional<std::size_t> channel, const Values& reported, const Values& judged,
             bool with_verdicts, std::vector<Difference>& differences) {
  for (std::size_t i = 0; i < judged.size(); ++i) {
    const auto& [name, value] = judged[i];
    if (value != reported[i].second && (with_verdicts || name != "pass")) {
      differences.push_back({channel, name, reported[i].second, value});
    }
  }
}

void compare(const Facts& facts, RecordingFacts& run) {
  compare(std::nullopt, values_of(*run.reported), values_of(*run.judged), facts.same_judgement(),
          run.differences);
  for (std::size_t c = 0; c < kChannels; ++c) {
    compare(c, values_of(run.reported->channels[c]), values_of(run.judged->channels[c]),
            facts.same_judgement(), run.differences);
  }
}

void look_at_coverage(const Facts& facts, RecordingFacts& run) {
  const double rate_hz = run.shown().expected_decoded_hz;
  run.expected_events = facts.dir.capture_s * verification::kDecodedTimestampSecondsPerSecond *
                        std::max(rate_hz, 0.0);
  double fewest = std::numeric_limits<double>::infinity();
  for (std::size_t c = 0; c < kChannels; ++c) {
    if (facts.counts(c)) {
      fewest = std::min(fewest, static_cast<double>(run.shown().channels[c].count));
    }
  }
  run.incomplete = fewest + kEdgePeriods < kGoodCoverage * run.expected_events;
  run.decoded_s = run.incomplete ? fewest / rate_hz : facts.dir.capture_s;
}

/// Reads the recording as deep as wanted, and judges it.
void read(const RunResult& named, RecordingOptions options, Facts& facts, RecordingFacts& run) {
  if (facts.ended()) {
    require_recording(facts.dir, named);
  }
  options.divider = named.divider;
  options.guesses_divider = !facts.ended();
  options.capture_s = facts.dir.capture_s;
  options.channel_mask =
      facts.ended() ? std::optional(facts.settings.channel_mask) : facts.given.channel_mask;
  run.recording = read_recording(named.stream_file, options);
  const Recording& recording = *run.recording;
  run.error = recording.problem;
  if (!facts.ended()) {
    facts.settings = facts.given.over(verification::settings_of(recording.header));
  }
  if (!run.error.empty() || options.depth == Depth::header) {
    return;
  }
  run.divider_inferred = named.divider == 0 && recording.divider != 0;
  run.judged = verification::judge(recording.tags,
                                   verification::derive_rates(recording.divider, facts.settings),
                                   facts.settings);
  run.judged->requested_hz = named.requested_hz;
  run.judged->payload_bytes = recording.read_bytes;
}

}  // namespace

std::string Difference::text() const {
  return fmt::format("{}{}={} (report: {})", channel ? fmt::format("ch{} ", *channel) : "", name,
                     judged, reported);
}

Difference verdict_difference(bool reported) {
  return {std::nullopt, "pass of the whole run", fmt::to_string(reported),
          fmt::to_string(!reported)};
}

std::string options_behind(const std::vector<Difference>& differences) {
  const auto is_verdict = [](const Difference& one) { return one.name.starts_with("pass"); };
  const auto verdicts = std::count_if(differences.begin(), differences.end(), is_verdict);
  return verdicts == 0                         ? "--chunk-bytes"
         : verdicts == std::ssize(differences) ? "--min-tags-per-channel or --tolerance-ppm"
                                               : "--chunk-bytes, --min-tags-per-channel or "
                                                 "--tolerance-ppm";
}

EvaluationSettings GivenSettings::over(EvaluationSettings settings) const {
  settings.tolerance_ppm = tolerance_ppm.value_or(settings.tolerance_ppm);
  settings.min_tags_per_channel = min_tags_per_channel.value_or(settings.min_tags_per_channel);
  settings.channel_mask = channel_mask.value_or(settings.channel_mask);
  return settings;
}

const RunResult& RecordingFacts::shown() const {
  static const RunResult kNone;
  return reported ? *reported : judged ? *judged : kNone;
}

const RunResult* RecordingFacts::verdict() const {
  const bool named = judged && judged->divider != 0 && !divider_inferred;
  return reported ? &*reported : named ? &*judged : nullptr;
}

Facts facts_about(RunDirectory dir, const GivenSettings& given) {
  const EvaluationSettings settings = given.over(dir.settings);
  return {std::move(dir), given, settings, {}, {}};
}

RecordingFacts& look_into(const RunResult& named, RecordingOptions options, Facts& facts) {
  RecordingFacts& run = facts.recordings.emplace_back();
  run.stream_file = named.stream_file;
  if (facts.ended()) {
    run.reported = named;
  }
  try {
    read(named, std::move(options), facts, run);
  } catch (const timing::Error& error) {
    run.error = error.what();
  }
  if (run.reported && run.judged) {
    compare(facts, run);
  }
  if (run.reported) {
    look_at_coverage(facts, run);
  }
  run.findings = findings_of(facts, run);
  return run;
}

}  // namespace orvo::inspection
