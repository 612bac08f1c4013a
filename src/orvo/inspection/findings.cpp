#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "orvo/inspection/facts.h"
#include "orvo/inspection/text.h"
#include "orvo/timing/packed/alignment.h"

namespace orvo::inspection {
namespace {

using timing::kPicosecondsPerSecond;
using verification::ChannelResult;
using verification::kChannels;
using Kind = Finding::Kind;

/// In internal mode the decoder refuses longer steps.
constexpr double kLongestStep_ps = kPicosecondsPerSecond;
/// Jitter of the first and the last event explains errors up to so many of its deviations.
constexpr double kJitterReach = 4;
/// Errors of channels that differ by less than this share are one error.
constexpr double kAlike = 0.05;
constexpr std::size_t kMaxDifferences = 6;

constexpr const char* kDamageAdvice =
    "Bytes of a damaged stream were lost or changed before they were recorded: check cable, hub "
    "and driver, and record again. Where the decoder lost its place, more may decode with "
    "--chunk-bytes=65536.";
constexpr const char* kLostAdvice =
    "Events were lost or changed before they were recorded: record again at a lower rate, and over "
    "another port or cable.";
constexpr const char* kEndedAdvice =
    "Fewer timestamps than the capture can hold: check what feeds the channels, cable, hub and "
    "driver, and record again.";

std::string seconds_text(double seconds) { return time_text(seconds * kPicosecondsPerSecond); }

std::string since_first(std::int64_t time_ps, const Recording& recording) {
  return time_text(static_cast<double>(time_ps) - static_cast<double>(recording.first_ps));
}

Finding::Amount amount_of(std::uint64_t number, const char* thing) {
  return {static_cast<double>(number), counted(number, thing)};
}
Finding::Amount times(std::uint64_t number) {
  return {static_cast<double>(number), times_text(number)};
}

/// Lost events leave gaps, and a pulse too many is an extra event: both together, and times that a
/// capture cannot hold, come from changed bytes.
bool is_damaged(const Recording& recording) {
  IntervalSummary all;
  for (const ChannelRecording& channel : recording.channels) {
    all.add(channel.intervals);
  }
  return recording.locks.dropped() != 0 || recording.tags_outside != 0 ||
         (all.gaps != 0 && all.extra_events != 0);
}

/// The findings of one run, as they come.
class Look {
 public:
  Look(const Facts& facts, const RecordingFacts& run)
      : facts_(facts), run_(run), damaged_(run.judged && is_damaged(*run.recording)) {}

  std::vector<Finding> all() {
    look_at_file();
    if (run_.judged) {
      explained_ = look_at_locks();
      look_at_time();
      for (std::size_t c = 0; c < kChannels; ++c) {
        look_at_intervals(c);
      }
    }
    if (run_.verdict() != nullptr && !run_.verdict()->pass) {
      look_at_failures();
    }
    look_at_differences();
    std::stable_sort(found_.begin(), found_.end(),
                     [](const Finding& a, const Finding& b) { return a.kind < b.kind; });
    return std::move(found_);
  }

 private:
  void add(Finding finding) { found_.push_back(std::move(finding)); }

  void look_at_file();
  bool look_at_locks();
  void look_at_time();
  void look_at_intervals(std::size_t number);
  void look_at_failures();
  void look_at_failure(std::size_t number);
  [[nodiscard]] std::string advice_for_few(double rate_hz) const;
  void explain_rate(std::size_t number, Finding& finding) const;
  void look_at_differences();

  const Facts& facts_;
  const RecordingFacts& run_;
  const bool damaged_;
  bool explained_ = false;  // by the stream as a whole, why timestamps are missing
  std::vector<Finding> found_;
};

void Look::look_at_file() {
  if (!run_.error.empty()) {
    std::error_code error;  // what cannot be looked at is not there
    add({.kind = Kind::unreadable,
         .words = "its recording was not judged",
         .detail = ": " + run_.error,
         .advice = std::filesystem::exists(run_.stream_file, error)
                       ? ""
                       : "Name the folder that holds the recordings, or put them beside the "
                         "report."});
  } else if (!run_.recording->warning.empty()) {
    add({.kind = Kind::header,
         .words = "its recording is odd",
         .detail = ": " + run_.recording->warning});
  }
}

bool Look::look_at_locks() {
  const Recording& recording = *run_.recording;
  const LockHistory& locks = recording.locks;
  const bool internal = recording.header.mode == timing::Mode::internal;
  const double period_ps = kPicosecondsPerSecond / run_.shown().expected_decoded_hz;
  if (internal && std::isfinite(period_ps) && period_ps > kLongestStep_ps) {
    add({.kind = Kind::too_slow,
         .words =
             fmt::format("its events lie {} apart, and the decoder refuses steps above one second",
                         time_text(period_ps)),
         .advice = "Ask the calibration source for more than one event a second."});
  } else if (recording.header.stream_format == timing::Format::packed_delta &&
             locks.count(timing::LockEvent::Kind::locked) == 0 &&
             recording.read_bytes > timing::detail::kLastOffset) {
    add({.kind = Kind::no_lock,
         .words = "the decoder found no valid record boundary",
         .advice =
             "One silent channel is enough to hide all others, as is damage: check what feeds "
             "the channels, cable, hub and driver, or leave a silent channel out of "
             "channel_mask, and record again."});
  } else if (locks.dropped() != 0) {
    add({.kind = Kind::damage,
         .words = "the stream is damaged, and the decoder lost its place {0}{1}",
         .amount = times(locks.dropped()),
         .detail = fmt::format(
             ": {} of {} bytes decoded, {} skipped while resynchronising, {} undecoded at the end",
             grouped(recording.decoded_bytes()), grouped(recording.read_bytes),
             grouped(locks.skipped_bytes()), grouped(recording.undecoded_bytes)),
         .advice = kDamageAdvice});
  } else if (internal && locks.skipped_bytes() > timing::detail::kLastOffset) {
    add({.kind = Kind::damage,
         .words = "the decoder found its place late",
         .detail = fmt::format(": {} of {} bytes decoded, {} skipped before",
                               grouped(recording.decoded_bytes()), grouped(recording.read_bytes),
                               grouped(locks.skipped_bytes())),
         .advice = kDamageAdvice});
  } else if (damaged_) {
    add({.kind = Kind::damage,
         .words = "the stream is damaged, and the decoder kept its place",
         .advice = kDamageAdvice});
  } else {
    return false;
  }
  return true;
}

void Look::look_at_time() {
  const Recording& recording = *run_.recording;
  const double span_ps =
      static_cast<double>(recording.last_ps) - static_cast<double>(recording.first_ps);
  const std::string capture = "a capture of " + seconds_text(facts_.dir.capture_s) + " can hold";
  if (recording.tags_outside != 0) {
    add({.kind = Kind::span,
         .words = "{0}{1} outside of what " + capture + ", decoded from damage",
         .amount = amount_of(recording.tags_outside, "timestamp")});
  } else if (span_ps > longest_capture_ps(facts_.dir.capture_s)) {
    add({.kind = Kind::span,
         .words = "its timestamps span {}, more than " + capture,
         .amount = {span_ps, time_text(span_ps)}});
  }
}

void Look::look_at_intervals(std::size_t number) {
  const Recording& recording = *run_.recording;
  const IntervalSummary& s = recording.channels[number].intervals;
  if (s.gaps != 0) {
    add({.kind = Kind::lost,
         .channels = {number},
         .words = damaged_ ? "{0}{1} missing where the stream is damaged" : "lost {0}{1}",
         .amount = amount_of(s.missing_events, "event"),
         .detail = fmt::format("{} in {} ending at {}", damaged_ ? "," : "",
                               s.gaps == 1 ? "a gap" : counted(s.gaps, "gap") + ", the longest",
                               since_first(s.longest.time_ps, recording)),
         .advice = damaged_ ? "" : kLostAdvice});
  }
  if (s.extra_events != 0) {
    add({.kind = Kind::extra,
         .channels = {number},
         .words = damaged_ ? "{0}{1} out of place where the stream is damaged"
                           : "{0}{1} less than half a period after the one before",
         .amount = amount_of(s.extra_events, "event"),
         .detail = (s.extra_events == 1 ? ", at " : ", the nearest at ") +
                   since_first(s.shortest.time_ps, recording)});
  }
  if (s.backward_steps != 0) {
    add({.kind = Kind::backward,
         .channels = {number},
         .words = "time goes back {0}{1}",
         .amount = times(s.backward_steps),
         .detail = fmt::format(", by {} at the most",
                               time_text(-static_cast<double>(s.shortest.interval_ps)))});
  }
}

void Look::look_at_failures() {
  const std::size_t before = found_.size();
  for (std::size_t c = 0; c < kChannels; ++c) {
    if (facts_.counts(c) && !run_.verdict()->channels[c].pass) {
      look_at_failure(c);
    }
  }
  if (found_.size() == before) {
    add({.kind = Kind::failed, .words = "reported as failed"});
  }
}

std::string Look::advice_for_few(double rate_hz) const {
  const auto needed = facts_.settings.min_tags_per_channel;
  const double least_s = static_cast<double>(needed) / rate_hz;
  return !(rate_hz > 0) ? ""
         : least_s < facts_.dir.capture_s
             ? kEndedAdvice
             : fmt::format(
                   "Too few timestamps: capture longer "
                   "(--capture-s); {} at {} take {}.",
                   grouped(needed), hz_text(rate_hz), seconds_text(least_s));
}

void Look::look_at_failure(std::size_t number) {
  const ChannelResult& channel = run_.verdict()->channels[number];
  const verification::EvaluationSettings& settings = facts_.settings;
  const double rate_hz = run_.verdict()->expected_decoded_hz;
  const std::size_t before = found_.size();
  if (channel.count == 0) {
    add({.kind = Kind::silent,
         .channels = {number},
         .words = "no timestamps decoded",
         .advice = explained_ ? ""
                              : "Check what feeds a silent channel, or leave it out of "
                                "channel_mask."});
    return;
  }
  if (channel.count < settings.min_tags_per_channel) {
    add({.kind = Kind::few,
         .channels = {number},
         .words = fmt::format("only {{}}, {} needed", grouped(settings.min_tags_per_channel)),
         .amount = amount_of(channel.count, "timestamp"),
         .advice = explained_ ? "" : advice_for_few(rate_hz)});
  }
  if (const double ppm = std::abs(channel.ppm_error); ppm > settings.tolerance_ppm) {
    add({.kind = Kind::rate,
         .channels = {number},
         .words = fmt::format("{{}} {}, tolerance {} ppm", channel.ppm_error < 0 ? "slow" : "fast",
                              settings.tolerance_ppm),
         .amount = {ppm, fixed_text(ppm, ppm < 10 ? 3 : 1, settings.tolerance_ppm) + " ppm"}});
    explain_rate(number, found_.back());
  }
  if (found_.size() == before) {
    add({.kind = Kind::failed, .channels = {number}, .words = "reported as failed"});
  }
}

/// As far as the recording shows it.
void Look::explain_rate(std::size_t number, Finding& finding) const {
  if (!run_.judged || !run_.recording->has_intervals() || damaged_) {
    return;
  }
  const ChannelResult& channel = run_.judged->channels[number];
  const ChannelRecording& recorded = run_.recording->channels[number];
  const IntervalSummary& s = recorded.intervals;
  const double error_ppm = std::abs(channel.ppm_error);
  const double ps_of_ppm =
      1e-6 * (static_cast<double>(channel.last_ps) - static_cast<double>(channel.first_ps));
  const double farthest_ps =
      std::max(std::abs(recorded.smallest_ps()), std::abs(recorded.largest_ps()));
  bool alike = true;
  for (std::size_t c = 0; c < kChannels; ++c) {
    const double difference_ppm = run_.judged->channels[c].ppm_error - channel.ppm_error;
    alike = alike && (!facts_.counts(c) || std::abs(difference_ppm) < kAlike * error_ppm);
  }
  if (s.missing_events + s.extra_events + s.backward_steps != 0) {
    finding.cause = "Events are missing or out of order, which alone makes a rate wrong.";
  } else if (error_ppm * ps_of_ppm < kJitterReach * recorded.spread.deviation_ps) {
    finding.cause = "Jitter: the first and the last event move by as much.";
    finding.advice =
        "Against jitter capture longer (--capture-s): the same jitter then moves the rate less.";
  } else if (error_ppm * ps_of_ppm < 2 * farthest_ps) {
    finding.cause = "Most of the error comes from one interval.";
    finding.advice = kLostAdvice;
  } else if (alike) {
    finding.cause =
        "A steady error of all channels: the source's or the instrument's clock is off.";
    finding.advice = "Compare the instrument's clock with a reference, and record again.";
  } else {
    finding.cause = "A steady error, with no event missing.";
    finding.advice =
        "Record again. An error that stays with one channel is a fault of that channel.";
  }
}

void Look::look_at_differences() {
  const bool passed = run_.verdict() != nullptr && run_.verdict()->pass;
  for (std::size_t c = 0; passed && c < kChannels; ++c) {
    if (facts_.counts(c) && !compares_rate(*run_.verdict(), c)) {
      add({.kind = Kind::uncompared,
           .channels = {c},
           .words = "passed by its count alone, without a rate to compare"});
    }
  }
  if (run_.incomplete && passed) {
    add({.kind = Kind::coverage,
         .words = "only {} of a capture of " + seconds_text(facts_.dir.capture_s) +
                  " decoded; the rest was not judged",
         .amount = {run_.decoded_s, seconds_text(run_.decoded_s)},
         .advice = explained_ ? "" : kEndedAdvice});
  }
  const std::size_t all = run_.differences.size();
  std::string words;
  for (std::size_t i = 0; i < std::min(all, kMaxDifferences); ++i) {
    words += (i == 0 ? ": " : "; ") + run_.differences[i].text();
  }
  if (all > kMaxDifferences) {
    words += fmt::format("; and {} more", all - kMaxDifferences);
  }
  if (all != 0) {
    add({.kind = Kind::differs,
         .words = "the recording does not decode to what the report says",
         .detail = words,
         .advice = fmt::format("Where recording and report differ, one of the files has changed, "
                               "or the run was made with another {}.",
                               options_behind(run_.differences))});
  }
}

}  // namespace

std::string Finding::text() const {
  return fmt::format(fmt::runtime(words), amount.text, "") + detail;
}

std::string Finding::line() const {
  return (channels.empty() ? "" : fmt::format("channel {}: ", channels.front())) + text();
}

std::vector<Finding> findings_of(const Facts& facts, const RecordingFacts& run) {
  return Look(facts, run).all();
}

std::vector<std::string> lock_history_of(const Recording& recording) {
  std::vector<std::string> lines;
  for (const auto& [event, time_ps, next_ps] : recording.locks.entries()) {
    lines.push_back(
        fmt::format("Payload byte {}{}: {}.", grouped(event.payload_offset_bytes),
                    time_ps ? ", after the timestamp at " + since_first(*time_ps, recording) : "",
                    words_for(event)));
  }
  if (recording.locks.left_out() != 0) {
    lines.push_back("And " + grouped(recording.locks.left_out()) + " more.");
  }
  return lines;
}

}  // namespace orvo::inspection
