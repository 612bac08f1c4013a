#include "orvo/inspection/findings.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "orvo/inspection/text.h"

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

std::string seconds_text(double seconds) { return time_text(seconds * kPicosecondsPerSecond); }

std::string since_first(std::int64_t time_ps, const Recording& recording) {
  return time_text(static_cast<double>(time_ps) - static_cast<double>(recording.first_ps));
}

/// The findings of one run, as they come.
class Look {
 public:
  Look(const Facts& facts, const RecordingFacts& run)
      : facts_(facts), run_(run), damaged_(run.recording && run.recording->locks.dropped() != 0) {}

  std::vector<Finding> all() {
    look_at_file();
    if (run_.judged) {
      look_at_locks();
      look_at_time();
      for (std::size_t c = 0; c < kChannels; ++c) {
        look_at_intervals(c);
      }
    }
    if (run_.verdict() != nullptr && !run_.verdict()->pass) {
      look_at_failures();
    }
    if (run_.incomplete && run_.shown().pass) {
      Finding& finding = add(Kind::coverage);
      finding.words = "only {} of a capture of " + seconds_text(facts_.dir.capture_s) +
                      " decoded; the rest was not judged";
      finding.amount = run_.decoded_s;
      finding.amount_text = seconds_text(run_.decoded_s);
    }
    look_at_differences();
    std::stable_sort(found_.begin(), found_.end(),
                     [](const Finding& a, const Finding& b) { return a.kind < b.kind; });
    return std::move(found_);
  }

 private:
  Finding& add(Kind kind, std::vector<std::size_t> channels = {}) {
    Finding& finding = found_.emplace_back();
    finding.kind = kind;
    finding.channels = std::move(channels);
    return finding;
  }
  Finding& add_counted(Kind kind, std::size_t channel, std::uint64_t number, const char* thing) {
    Finding& finding = add(kind, {channel});
    finding.amount = static_cast<double>(number);
    finding.amount_text = counted(number, thing);
    return finding;
  }

  void look_at_file();
  void look_at_locks();
  void look_at_time();
  void look_at_intervals(std::size_t number);
  void look_at_failures();
  void look_at_failure(std::size_t number);
  void explain_rate(std::size_t number, Finding& finding) const;
  void look_at_differences();

  const Facts& facts_;
  const RecordingFacts& run_;
  const bool damaged_;
  std::vector<Finding> found_;
};

void Look::look_at_file() {
  if (!run_.error.empty()) {
    Finding& finding = add(Kind::unreadable);
    finding.words = "its recording was not judged";
    finding.detail = ": " + run_.error;
    finding.advice = run_.recording ? ""
                                    : "Name the folder that holds the recordings, or put them "
                                      "beside the report.";
  } else if (run_.recording && !run_.recording->warning.empty()) {
    Finding& finding = add(Kind::header);
    finding.words = "its recording is odd";
    finding.detail = ": " + run_.recording->warning;
  }
}

void Look::look_at_locks() {
  const Recording& recording = *run_.recording;
  const LockHistory& locks = recording.locks;
  const double period_ps = kPicosecondsPerSecond / run_.shown().expected_decoded_hz;
  if (recording.header.mode == timing::Mode::internal && std::isfinite(period_ps) &&
      period_ps > kLongestStep_ps) {
    Finding& finding = add(Kind::too_slow);
    finding.words =
        fmt::format("its events lie {} apart, and the decoder refuses steps above one second",
                    time_text(period_ps));
    finding.advice = "Ask the calibration source for more than one event a second.";
  } else if (locks.count(timing::LockEvent::Kind::locked) == 0 && !locks.entries().empty()) {
    Finding& finding = add(Kind::no_lock);
    finding.words = "the decoder found no valid record boundary";
    finding.advice =
        "One silent channel is enough to hide all others: leave it out of channel_mask and record "
        "again.";
  } else if (damaged_) {
    Finding& finding = add(Kind::damage);
    finding.words = "the stream is damaged, and the decoder lost its place {}";
    finding.amount = static_cast<double>(locks.dropped());
    finding.amount_text = times_text(locks.dropped());
    finding.detail = fmt::format(
        ": {} of {} bytes decoded, {} skipped while resynchronising, {} undecoded at the end",
        grouped(recording.decoded_bytes()), grouped(recording.read_bytes),
        grouped(locks.skipped_bytes()), grouped(recording.undecoded_bytes));
    finding.advice =
        "Bytes of a damaged stream were lost or changed before they were recorded: check cable, "
        "hub and driver, and record again. What is there may decode further with "
        "--chunk-bytes=65536.";
  }
}

void Look::look_at_time() {
  const Recording& recording = *run_.recording;
  const double span_ps =
      static_cast<double>(recording.last_ps) - static_cast<double>(recording.first_ps);
  if (recording.tags_outside != 0) {
    Finding& finding = add(Kind::span);
    finding.words = "{} outside of what a capture of " + seconds_text(facts_.dir.capture_s) +
                    " can hold, decoded from damage";
    finding.amount = static_cast<double>(recording.tags_outside);
    finding.amount_text = counted(recording.tags_outside, "timestamp");
  } else if (span_ps > longest_capture_ps(facts_.dir.capture_s)) {
    Finding& finding = add(Kind::span);
    finding.words = "its timestamps span {}, more than a capture of " +
                    seconds_text(facts_.dir.capture_s) + " can hold";
    finding.amount = span_ps;
    finding.amount_text = time_text(span_ps);
  }
}

void Look::look_at_intervals(std::size_t number) {
  const Recording& recording = *run_.recording;
  const IntervalSummary& s = recording.channels[number].intervals;
  if (s.gaps != 0) {
    Finding& finding = add_counted(Kind::lost, number, s.missing_events, "event");
    finding.words = damaged_ ? "{} missing where the stream is damaged" : "lost {}";
    finding.detail = fmt::format(" in {} ending at {}",
                                 s.gaps == 1 ? "a gap" : counted(s.gaps, "gap") + ", the longest",
                                 since_first(s.longest.time_ps, recording));
    finding.advice = damaged_ ? ""
                              : "Events were lost before they were recorded: record again at a "
                                "lower rate, and over another port or cable.";
  }
  if (s.extra_events != 0) {
    Finding& finding = add_counted(Kind::extra, number, s.extra_events, "event");
    finding.words = damaged_ ? "{} out of place where the stream is damaged"
                             : "{} less than half a period after the one before";
    finding.detail = (s.extra_events == 1 ? ", at " : ", the nearest at ") +
                     since_first(s.shortest.time_ps, recording);
  }
  if (s.backward_steps != 0) {
    Finding& finding = add(Kind::backward, {number});
    finding.words = "time goes back {}";
    finding.amount = static_cast<double>(s.backward_steps);
    finding.amount_text = times_text(s.backward_steps);
    finding.detail =
        fmt::format(", by {} at the most", time_text(-static_cast<double>(s.shortest.interval_ps)));
  }
}

void Look::look_at_failures() {
  const std::size_t before = found_.size();
  for (std::size_t c = 0; c < kChannels; ++c) {
    if (verification::channel_counts(facts_.settings.channel_mask, c) &&
        !run_.verdict()->channels[c].pass) {
      look_at_failure(c);
    }
  }
  if (found_.size() == before) {
    add(Kind::failed).words = "reported as failed";
  }
}

void Look::look_at_failure(std::size_t number) {
  const ChannelResult& channel = run_.verdict()->channels[number];
  const verification::EvaluationSettings& settings = facts_.settings;
  const double rate_hz = run_.verdict()->expected_decoded_hz;
  if (channel.count == 0) {
    Finding& finding = add(Kind::silent, {number});
    finding.words = "no timestamps decoded";
    finding.advice = "Check what feeds a silent channel, or leave it out of channel_mask.";
    return;
  }
  const std::size_t before = found_.size();
  if (channel.count < settings.min_tags_per_channel) {
    Finding& finding = add_counted(Kind::few, number, channel.count, "timestamp");
    finding.words = fmt::format("only {{}}, {} needed", grouped(settings.min_tags_per_channel));
    if (rate_hz > 0) {
      finding.advice =
          fmt::format("Too few timestamps: {} at {} take {}, so capture longer (--capture-s).",
                      grouped(settings.min_tags_per_channel), hz_text(rate_hz),
                      seconds_text(static_cast<double>(settings.min_tags_per_channel) / rate_hz));
    }
  }
  if (const double ppm = std::abs(channel.ppm_error); ppm > settings.tolerance_ppm) {
    Finding& finding = add(Kind::rate, {number});
    finding.words = fmt::format("{{}} {}, tolerance {} ppm",
                                channel.ppm_error < 0 ? "slow" : "fast", settings.tolerance_ppm);
    finding.amount = ppm;
    finding.amount_text = fixed_text(ppm, ppm < 10 ? 3 : 1, settings.tolerance_ppm) + " ppm";
    explain_rate(number, finding);
  }
  if (found_.size() == before) {
    add(Kind::failed, {number}).words = "reported as failed";
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
  const double jitter_ppm =
      1e6 * kJitterReach * recorded.spread.deviation_ps /
      (static_cast<double>(channel.last_ps) - static_cast<double>(channel.first_ps));
  bool alike = true;
  for (std::size_t c = 0; c < kChannels; ++c) {
    const double difference_ppm = run_.judged->channels[c].ppm_error - channel.ppm_error;
    alike = alike && (!verification::channel_counts(facts_.settings.channel_mask, c) ||
                      std::abs(difference_ppm) < kAlike * error_ppm);
  }
  if (s.missing_events + s.extra_events + s.backward_steps + run_.recording->tags_outside != 0) {
    finding.cause = "Its events are not complete and in order, which the rate shows.";
  } else if (error_ppm < jitter_ppm) {
    finding.cause = "Jitter: the first and the last event move by as much.";
    finding.advice =
        "Against jitter capture longer (--capture-s): the same jitter then moves the rate less.";
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
  if (run_.differences.empty()) {
    return;
  }
  std::string words;
  for (std::size_t i = 0; i < run_.differences.size() && i < kMaxDifferences; ++i) {
    const Difference& d = run_.differences[i];
    words += fmt::format("{}{} {} reported, {} now", i == 0 ? "" : "; ", d.full_name(), d.reported,
                         d.judged);
  }
  if (run_.differences.size() > kMaxDifferences) {
    words += fmt::format("; and {} more", run_.differences.size() - kMaxDifferences);
  }
  Finding& finding = add(Kind::differs);
  finding.words = "the recording does not decode to what the report says";
  finding.detail = ": " + words;
  finding.advice = fmt::format(
      "Where recording and report differ, one of the files has changed, or the run was made with "
      "another {}.",
      options_behind(run_.differences));
}

}  // namespace

std::string Finding::text() const { return fmt::format(fmt::runtime(words), amount_text) + detail; }

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
