#include "orvo/inspection/report/findings.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "orvo/inspection/comparison.h"
#include "orvo/inspection/report/text.h"
#include "orvo/timing/error.h"

namespace orvo::inspection {
namespace {

using timing::kPicosecondsPerSecond;
using verification::ChannelResult;
using verification::EvaluationSettings;
using verification::kChannels;
using verification::RunResult;
using Words = std::vector<std::string>;

/// Less of the capture decoded than this is worth a word,
constexpr double kGoodCoverage = 0.9;
/// but for this many periods at its ends.
constexpr double kEdgePeriods = 3;
/// In internal mode the decoder refuses longer steps.
constexpr double kLongestStep_ps = kPicosecondsPerSecond;
constexpr std::size_t kMaxDifferences = 6;

std::string capture_text(const RunDirectory& dir, int digits = 4) {
  return time_text(dir.capture_s * kPicosecondsPerSecond, digits);
}

std::string since_first(std::int64_t time_ps, const Recording& recording) {
  return time_text(static_cast<double>(time_ps) - static_cast<double>(recording.first_ps));
}

std::string cause_of(const ChannelResult& channel, const EvaluationSettings& settings) {
  if (channel.count == 0) {
    return "no timestamps decoded";
  }
  Words causes;
  if (channel.count < settings.min_tags_per_channel) {
    causes.push_back("only " + counted(channel.count, "timestamp"));
  }
  if (const double ppm = std::abs(channel.ppm_error); ppm > settings.tolerance_ppm) {
    const int decimals = ppm < 1.01 * settings.tolerance_ppm ? 6 : ppm < 10 ? 3 : 1;
    causes.push_back(fmt::format("{} ppm {}, tolerance {:g} ppm", fixed_text(ppm, decimals),
                                 channel.ppm_error < 0 ? "slow" : "fast", settings.tolerance_ppm));
  }
  return causes.empty() ? "reported as failed" : fmt::format("{}", fmt::join(causes, "; "));
}

Words failures_of(const RunResult& run, const EvaluationSettings& settings) {
  if (run.pass) {
    return {};
  }
  const auto& channels = run.channels;
  if (std::all_of(channels.begin(), channels.end(),
                  [](const ChannelResult& channel) { return channel.count == 0; })) {
    return {": no timestamps decoded on any channel."};
  }
  Words words;
  for (std::size_t c = 0; c < kChannels; ++c) {
    if (verification::channel_counts(settings.channel_mask, c) && !channels[c].pass) {
      words.push_back(fmt::format(", channel {}: {}.", c, cause_of(channels[c], settings)));
    }
  }
  return words.empty() ? Words{": reported as failed."} : words;
}

void look_at_coverage(const RunDirectory& dir, RunFindings& run) {
  const double rate_hz = run.shown.expected_decoded_hz;
  run.expected_events =
      dir.capture_s * verification::kDecodedTimestampSecondsPerSecond * std::max(rate_hz, 0.0);
  double fewest = std::numeric_limits<double>::infinity();
  for (std::size_t c = 0; c < kChannels; ++c) {
    if (verification::channel_counts(dir.settings.channel_mask, c)) {
      fewest = std::min(fewest, static_cast<double>(run.shown.channels[c].count));
    }
  }
  run.incomplete = fewest + kEdgePeriods < kGoodCoverage * run.expected_events;
  if (run.incomplete) {
    run.decoded_ps = fewest / rate_hz * kPicosecondsPerSecond;
  }
  if (run.incomplete && run.shown.pass) {
    run.observations.push_back(
        fmt::format(": {} of a capture of {} decoded; the verdict knows nothing of the rest.",
                    time_text(run.decoded_ps), capture_text(dir)));
  }
}

void look_at_time(const RunDirectory& dir, const Recording& recording, Words& words) {
  const double span_ps =
      static_cast<double>(recording.last_ps) - static_cast<double>(recording.first_ps);
  if (recording.tags_outside != 0) {
    words.push_back(
        fmt::format(": {} outside of what a capture of {} can hold, decoded from damage.",
                    counted(recording.tags_outside, "timestamp") +
                        (recording.tags_outside == 1 ? " lies" : " lie"),
                    capture_text(dir)));
  } else if (span_ps > longest_capture_ps(dir.capture_s)) {
    words.push_back(fmt::format(": its timestamps span {}, more than a capture of {} can hold.",
                                time_text(span_ps), capture_text(dir)));
  }
}

void look_at_intervals(const Recording& recording, Words& words) {
  Words gaps;
  Words backward;
  for (std::size_t c = 0; c < kChannels; ++c) {
    const IntervalSummary& s = recording.channels[c].intervals;
    if (s.gaps != 0) {
      gaps.push_back(fmt::format("channel {} has {} missing in {} ending at {}", c,
                                 counted(s.missing_events, "event"),
                                 s.gaps == 1 ? "a gap" : counted(s.gaps, "gap") + ", the longest",
                                 since_first(s.longest.time_ps, recording)));
    }
    if (s.backward_steps != 0) {
      backward.push_back(fmt::format("channel {}'s time goes back {}, by {} at the most", c,
                                     counted(s.backward_steps, "time"),
                                     time_text(-static_cast<double>(s.shortest.interval_ps))));
    }
  }
  for (const Words& all : {gaps, backward}) {
    if (!all.empty()) {
      words.push_back(fmt::format(": {}.", fmt::join(all, "; ")));
    }
  }
}

void look_at_locks(RunFindings& run) {
  const Recording& recording = *run.recording;
  const LockHistory& locks = recording.locks;
  const double period_ps = kPicosecondsPerSecond / run.shown.expected_decoded_hz;
  if (recording.header.mode == timing::Mode::internal && period_ps > kLongestStep_ps) {
    run.observations.push_back(
        fmt::format(": its events lie {} apart, and the decoder refuses steps above one second.",
                    time_text(period_ps)));
  } else if (locks.count(timing::LockEvent::Kind::locked) == 0 && !locks.entries().empty()) {
    run.observations.emplace_back(
        ": no place was found in the stream where its records could begin.");
    run.advice.emplace_back(
        "One silent channel is enough to hide all others: leave it out of channel_mask to see "
        "them.");
  } else if (locks.dropped() != 0) {
    run.observations.push_back(
        fmt::format(": the decoder lost its place {}; {} passed over in search of it, {} left over "
                    "at the end.",
                    counted(locks.dropped(), "time"), counted(locks.skipped_bytes(), "byte"),
                    counted(recording.undecoded_bytes, "byte")));
  }
}

void compare(const RunDirectory& dir, const RunResult& reported, RunFindings& run) {
  const RunResult decoded =
      judge_again(reported, run.recording->tags, run.recording->payload_bytes, dir.settings);
  const std::vector<Difference> found = differences(reported, decoded, true);
  Words words;
  for (const Difference& difference : found) {
    words.push_back(fmt::format("{} {} reported, {} now", difference.name, difference.reported,
                                difference.decoded));
  }
  if (words.empty()) {
    return;
  }
  if (const std::size_t all = words.size(); all > kMaxDifferences) {
    words.resize(kMaxDifferences);
    words.push_back(fmt::format("and {} more", all - kMaxDifferences));
  }
  run.differs = true;
  run.observations.push_back(
      fmt::format(": the recording, which the charts show, does not decode to what the report "
                  "says: {}.",
                  fmt::join(words, "; ")));
  run.advice.push_back(fmt::format(
      "Where recording and report differ, one of the files has changed, or the run was made with "
      "another {}.",
      options_behind(found)));
}

RunFindings look_into_run(const RunDirectory& dir, const RunResult& reported,
                          std::uint64_t chunk_bytes) {
  RunFindings run;
  run.shown = reported;
  if (reported.divider != 0) {  // the report rounds
    const verification::Rates exact = verification::derive_rates(reported.divider, dir.settings);
    run.shown.effective_hz = exact.effective_hz;
    run.shown.expected_decoded_hz = exact.expected_decoded_hz;
  }
  try {
    require_recording(dir, reported);
    run.recording =
        read_recording(reported.stream_file, {.chunk_bytes = chunk_bytes,
                                              .divider = reported.divider,
                                              .capture_s = dir.capture_s,
                                              .columns = dir.runs.size() > kManyRuns ? 300U : 1000U,
                                              .channel_mask = dir.settings.channel_mask});
    if (!run.recording->decodable) {
      run.recording.reset();
      run.problem = "its header describes records that cannot be decoded";
    }
  } catch (const timing::Error& error) {
    run.problem = error.what();
  }
  if (!run.recording) {
    run.observations.push_back(": its recording is not shown: " + run.problem + '.');
  }
  if (dir.ended()) {
    run.failures = failures_of(reported, dir.settings);
    look_at_coverage(dir, run);
  }
  if (run.recording) {
    if (!run.recording->warning.empty()) {
      run.observations.push_back(": " + run.recording->warning + '.');
    }
    if (dir.ended()) {
      compare(dir, reported, run);
    } else {
      run.shown.divider = run.recording->divider;
      run.shown = judge_again(run.shown, run.recording->tags, run.recording->payload_bytes, {});
    }
    look_at_time(dir, *run.recording, run.observations);
    look_at_intervals(*run.recording, run.observations);
    look_at_locks(run);
  }
  run.passed_whole = dir.ended() && run.shown.pass && !run.incomplete && !run.differs;
  return run;
}

Verdict verdict_of(const RunDirectory& dir, const std::vector<RunFindings>& runs) {
  if (!dir.ended()) {
    return {
        "none",
        dir.running ? "No verdict: the run is still running" : "No verdict: the run did not end",
        fmt::format("The verification {}. This is what it has recorded.",
                    why_no_report(dir.running))};
  }
  const auto failed = std::count_if(runs.begin(), runs.end(),
                                    [](const RunFindings& run) { return !run.shown.pass; });
  if (!dir.pass || failed != 0) {
    return {"fail", "FAIL",
            failed == 0        ? "The report says so of the whole."
            : runs.size() == 1 ? "The run failed:"
                               : fmt::format("{} of {} runs failed:", failed, runs.size())};
  }
  Verdict verdict = {"pass", "PASS", ""};
  const auto unread = std::count_if(runs.begin(), runs.end(),
                                    [](const RunFindings& run) { return !run.recording; });
  const auto unreadable = std::count_if(runs.begin(), runs.end(), [](const RunFindings& run) {
    std::error_code error;
    return !run.recording && std::filesystem::exists(run.shown.stream_file, error);
  });
  if (unread != 0) {
    verdict.look = "doubt";
    verdict.headline = fmt::format("PASS, but {} of {} {} {}", unread,
                                   counted(runs.size(), "recording"), unread == 1 ? "is" : "are",
                                   unreadable == 0 ? "missing" : "missing or unreadable");
  }
  double largest_ppm = -1;
  double least_ps = std::numeric_limits<double>::infinity();
  for (std::size_t i = 0; i < runs.size(); ++i) {
    for (std::size_t c = 0; c < kChannels; ++c) {
      const double ppm = std::abs(runs[i].shown.channels[c].ppm_error);
      if (verification::channel_counts(dir.settings.channel_mask, c) && ppm > largest_ppm) {
        largest_ppm = ppm;
        verdict.sentence = fmt::format(
            "{} passed. The largest rate error of a channel is {} ppm, tolerance {:g} ppm: {}, "
            "channel {}.",
            runs.size() == 1 ? "The run" : "All " + counted(runs.size(), "run"), fixed_text(ppm, 6),
            dir.settings.tolerance_ppm, name_of_run(i, runs[i]), c);
      }
    }
    if (runs[i].incomplete && runs[i].decoded_ps < least_ps) {
      least_ps = runs[i].decoded_ps;
      verdict.look = "doubt";
      verdict.headline = fmt::format("PASS, but only {} of {} decoded", time_text(least_ps, 3),
                                     capture_text(dir, 3));
    } else if (runs[i].differs && std::isinf(least_ps)) {
      verdict.look = "doubt";
      verdict.headline = "PASS, but the recordings say otherwise";
    }
  }
  return verdict;
}

}  // namespace

Findings look_into(const RunDirectory& dir, std::uint64_t chunk_bytes) {
  std::vector<RunFindings> runs;
  for (const RunResult& reported : dir.runs) {
    runs.push_back(look_into_run(dir, reported, chunk_bytes));
  }
  Verdict verdict = verdict_of(dir, runs);
  return {dir, std::move(runs), std::move(verdict)};
}

std::string name_of_run(std::size_t index, const RunFindings& run) {
  const double rate_hz =
      run.shown.requested_hz > 0 ? run.shown.requested_hz : run.shown.effective_hz;
  return fmt::format("Run {}", index + 1) + (rate_hz > 0 ? " at " + hz_text(rate_hz) : "");
}

std::vector<std::string> lock_history_of(const Recording& recording) {
  Words lines;
  for (const auto& [event, time_ps, next_ps] : recording.locks.entries()) {
    lines.push_back(
        fmt::format("Payload byte {}{}: {}.", grouped(event.payload_offset_bytes),
                    time_ps ? ", after the timestamp at " + since_first(*time_ps, recording) : "",
                    describe(event, recording.header)));
  }
  if (recording.locks.left_out() != 0) {
    lines.push_back("And " + grouped(recording.locks.left_out()) + " more.");
  }
  return lines;
}

}  // namespace orvo::inspection
