#include "orvo/inspection/report/report_words.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "orvo/inspection/report/html_text.h"

namespace orvo::inspection {
namespace {

using verification::ChannelResult;
using verification::EvaluationSettings;
using verification::kChannels;
using verification::RunResult;

/// Of the time recorded, timestamps of less than this are worth a word.
constexpr double kGoodCoverage = 0.9;
/// Periods that may pass at either end without a timestamp.
constexpr double kEdgePeriods = 3;

std::string ppm_words(double ppm, double tolerance_ppm) {
  const bool close = std::abs(ppm) < 1.01 * tolerance_ppm;
  return fixed_text(std::abs(ppm), close                ? 6
                                   : std::abs(ppm) < 10 ? 3
                                                        : 1) +
         (ppm < 0 ? " ppm slow" : " ppm fast");
}

std::string causes_of(const ChannelResult& channel, const EvaluationSettings& settings) {
  if (channel.count == 0) {
    return "no timestamps decoded";
  }
  std::string causes;
  if (channel.count < settings.min_tags_per_channel) {
    causes = fmt::format("only {}, {} wanted", counted(channel.count, "timestamp"),
                         grouped(settings.min_tags_per_channel));
  }
  if (std::abs(channel.ppm_error) > settings.tolerance_ppm) {
    causes +=
        fmt::format("{}{}, tolerance {:g} ppm", causes.empty() ? "" : "; ",
                    ppm_words(channel.ppm_error, settings.tolerance_ppm), settings.tolerance_ppm);
  }
  return causes.empty() ? "reported as failed" : causes;
}

std::string result_words(const ChannelResult& channel) {
  const int decimals = std::abs(channel.ppm_error) < 0.1 ? 6 : 2;
  return grouped(channel.count) + " (" + signed_text(channel.ppm_error, decimals) + " ppm)";
}

/// The report has six decimals.
bool same_result(const ChannelResult& a, const ChannelResult& b) {
  return a.count == b.count && a.first_ps == b.first_ps && a.last_ps == b.last_ps &&
         std::abs(a.ppm_error - b.ppm_error) < 1e-6;
}

/// What `words_of` says of each channel behind its name; nothing where it says nothing.
template <typename WordsOf>
std::string words_of_channels(const WordsOf& words_of) {
  std::vector<std::string> all;
  for (std::size_t c = 0; c < kChannels; ++c) {
    if (const std::string words = words_of(c); !words.empty()) {
      all.push_back(fmt::format("channel {}{}", c, words));
    }
  }
  return fmt::format("{}", fmt::join(all, "; "));
}

std::string difference_words(const RunResult& reported, const RunAnalysis& analysis) {
  return words_of_channels([&](std::size_t c) {
    const ChannelResult& then = reported.channels[c];
    const ChannelResult& now = analysis.decoded.channels[c];
    return same_result(then, now)
               ? std::string()
               : fmt::format(": {} reported, {} now", result_words(then), result_words(now));
  });
}

std::string gap_words(const RunAnalysis& analysis) {
  return words_of_channels([&](std::size_t c) {
    const IntervalStatistics& s = analysis.channels[c].statistics;
    const auto missing = static_cast<std::uint64_t>(std::min(s.missing_events(), 1e18));
    return s.gaps() == 0
               ? std::string()
               : fmt::format(" has {} missing in {} ending at {}", counted(missing, "event"),
                             s.gaps() == 1 ? "a gap" : counted(s.gaps(), "gap") + ", the longest",
                             time_since_first(s.largest().time_ps, analysis));
  });
}

std::string backward_words(const RunAnalysis& analysis) {
  return words_of_channels([&](std::size_t c) {
    const IntervalStatistics& s = analysis.channels[c].statistics;
    return s.backward_steps() == 0
               ? std::string()
               : fmt::format("'s time goes back {}, by {} at the most",
                             counted(s.backward_steps(), "time"),
                             time_text(-s.smallest().deviation_ps - analysis.scale.expected_ps));
  });
}

std::string coverage_words(const RunResult& run, double capture_s, double expected_hz) {
  double span_s = 0;
  for (const ChannelResult& channel : run.channels) {
    span_s = std::max(
        span_s, (static_cast<double>(channel.last_ps) - static_cast<double>(channel.first_ps)) /
                    timing::kPicosecondsPerSecond);
  }
  const double edges_s = expected_hz > 0 ? kEdgePeriods / expected_hz : 0;
  if (span_s == 0 || span_s + edges_s >= kGoodCoverage * capture_s) {
    return {};
  }
  return fmt::format(
      "timestamps cover {} of a capture of {}; the verdict knows nothing of the rest",
      time_text(span_s * timing::kPicosecondsPerSecond),
      time_text(capture_s * timing::kPicosecondsPerSecond));
}

std::string lock_words(const RunAnalysis& analysis) {
  const LockHistory& locks = analysis.locks;
  if (locks.dropped() == 0 && locks.count(timing::LockEvent::Kind::locked) != 0) {
    return {};
  }
  if (locks.count(timing::LockEvent::Kind::locked) == 0) {
    return locks.entries().empty()
               ? std::string()
               : "no place was found in the stream where its records could begin. One silent "
                 "channel is enough for that, and hides the others: leave it out of "
                 "channel_mask to see them";
  }
  return fmt::format(
      "the decoder lost its place {}; {} passed over in search of it, {} left over at the end",
      counted(locks.dropped(), "time"), counted(locks.skipped_bytes(), "byte"),
      counted(analysis.undecoded_bytes, "byte"));
}

std::string event_words(const timing::LockEvent& event) {
  using Kind = timing::LockEvent::Kind;
  switch (event.kind) {
    case Kind::locked:
      return fmt::format("lock taken, {} skipped", counted(event.drop_bytes, "byte"));
    case Kind::no_alignment:
      return fmt::format("no lock found in {}", counted(event.buffer_bytes, "byte"));
    case Kind::rejected_alignment:
      return "a lock was found and refused: its channels differ too much";
    case Kind::inactive_channel:
      return fmt::format("lock lost: a record of channel {}, which was not recorded",
                         event.channel);
    case Kind::overflow_in_sync:
    case Kind::sync_channel_mismatch:
      return fmt::format("lock lost: a sync of channel {} was interrupted", event.sync_channel);
    case Kind::nonmonotonic_sync:
      return fmt::format("lock lost: an event of channel {} lies before the last one",
                         event.channel);
    case Kind::implausible_sync_delta:
    case Kind::implausible_delta:
      return fmt::format("lock lost: channel {} took a step that the source cannot make",
                         event.channel);
    case Kind::imbalanced:
      return "lock lost: its channels differed more than eightfold";
  }
  return {};
}

}  // namespace

std::string time_since_first(std::int64_t time_ps, const RunAnalysis& analysis) {
  return time_text(static_cast<double>(time_ps) - static_cast<double>(analysis.first_ps));
}

std::string name_of_run(std::size_t index, const RunResult& run) {
  return fmt::format("<a href=\"#run-{0}\">Run {0} at {1}</a>", index + 1,
                     hz_text(run.requested_hz));
}

std::vector<std::string> failures_of(std::size_t index, const RunResult& run,
                                     const EvaluationSettings& settings) {
  std::vector<std::string> sentences;
  if (run.pass) {
    return sentences;
  }
  const std::string name = name_of_run(index, run);
  const bool silent = std::all_of(run.channels.begin(), run.channels.end(),
                                  [](const ChannelResult& channel) { return channel.count == 0; });
  if (silent) {
    return {name + ": no timestamps decoded on any channel."};
  }
  for (std::size_t c = 0; c < kChannels; ++c) {
    if (verification::channel_counts(settings.channel_mask, c) && !run.channels[c].pass) {
      sentences.push_back(
          fmt::format("{}, channel {}: {}.", name, c, causes_of(run.channels[c], settings)));
    }
  }
  return sentences.empty() ? std::vector{name + ": reported as failed."} : sentences;
}

std::vector<std::string> observations_of(std::size_t index, const RunDirectory& dir,
                                         const RunAnalysis& analysis) {
  const RunResult& reported = dir.runs[index];
  const std::string name = name_of_run(index, reported) + ": ";
  const std::string coverage =
      coverage_words(reported, dir.capture_s, analysis.decoded.expected_decoded_hz);
  std::vector<std::string> sentences;
  if (!coverage.empty()) {
    sentences.push_back(name + coverage + '.');
  }
  if (!analysis.problem.empty()) {
    sentences.push_back(name + "its recording is not shown: " + html_escaped(analysis.problem) +
                        '.');
    return sentences;
  }
  for (const std::string& words :
       {gap_words(analysis), backward_words(analysis), lock_words(analysis)}) {
    if (!words.empty()) {
      sentences.push_back(name + words + '.');
    }
  }
  if (const std::string words = difference_words(reported, analysis); !words.empty()) {
    sentences.push_back(name +
                        "the recording does not decode to what the report says, timestamps and "
                        "error of " +
                        words +
                        ". The charts show it as it decodes now. What is left of a damaged "
                        "stream depends on the size of the reads: try --chunk-bytes with the "
                        "verification's chunk_bytes. Otherwise one of the files has changed.");
  }
  return sentences;
}

std::vector<std::string> lock_history_of(const RunAnalysis& analysis) {
  std::vector<std::string> lines;
  for (const LockHistory::Entry& entry : analysis.locks.entries()) {
    std::string line = fmt::format("Payload byte {}", grouped(entry.event.payload_offset_bytes));
    if (entry.time_ps) {
      line += ", after the timestamp at " + time_since_first(*entry.time_ps, analysis);
    }
    lines.push_back(line + ": " + event_words(entry.event) + '.');
  }
  if (analysis.locks.left_out() != 0) {
    lines.push_back("And " + grouped(analysis.locks.left_out()) + " more.");
  }
  return lines;
}

}  // namespace orvo::inspection
