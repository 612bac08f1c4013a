// A stream that the simulated instrument sends, and a witness of all that it had to say.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <span>
#include <vector>

#include "orvo/simulator/stream.h"
#include "orvo/timing/stream_header.h"
#include "orvo/timing/time_tag.h"

namespace orvo::tests {

struct Instrument {
  timing::StreamFileHeader header;  ///< of its recording
  simulator::Settings settings;
  std::uint32_t divider = 310;  ///< of the calibration source: 100 kHz

  [[nodiscard]] simulator::SourceConfig source() const {
    return {header.mode, header.channel_mask, divider, settings.clock_ps};
  }
  [[nodiscard]] simulator::Stream stream() const {
    return {settings, generate_payload(settings, {header.stream_format, header.delta_bits,
                                                  header.quantum_ps, source()})};
  }
  /// Calls `take` with the stream's bytes, at most `chunk_bytes` at a time, to its end.
  template <typename Take>
  void for_each_chunk(std::size_t chunk_bytes, const Take& take) const {
    simulator::Stream bytes = stream();
    std::vector<std::uint8_t> chunk(chunk_bytes);
    while (const std::size_t got = bytes.read(chunk, simulator::kNever - 1)) {
      take(std::span(chunk).first(got));
    }
  }
};

/// Takes tags against the events that the instrument had: every one in its order, with its time cut
/// to whole ticks, on a time line that each channel begins with the clock's reading at its first.
class Witness {
 public:
  explicit Witness(const Instrument& instrument)
      : events_(instrument.settings, instrument.source()) {
    const timing::StreamFileHeader& header = instrument.header;
    if (header.stream_format == timing::Format::packed_delta) {
      tick_ps_ <<= std::countr_zero(header.quantum_ps);
    }
    if (header.stream_format != timing::Format::raw64) {
      line_ps_ = std::min(line_ps_, tick_ps_ * (simulator::kTickMask + 1));
    } else if (header.mode == timing::Mode::internal) {
      tolerance_ps_ = 18;  // of its counts
    }
    base_ps_.fill(simulator::kNever);
  }

  bool take(std::span<const timing::TimeTag> tags) {
    for (const timing::TimeTag& tag : tags) {
      const simulator::Event event = events_.front();
      events_.pop();
      ++count_;
      std::uint64_t& base_ps = base_ps_[event.channel];
      if (base_ps == simulator::kNever) {
        base_ps = event.time_ps - event.time_ps % simulator::kWrapPs % line_ps_;
      }
      const std::uint64_t expected = event.time_ps / tick_ps_ * tick_ps_ - base_ps;
      const auto time_ps = static_cast<std::uint64_t>(tag.time_ps);
      if (tag.channel != event.channel || time_ps - expected > tolerance_ps_) {
        std::fprintf(stderr, "event %ju of channel %u at %ju ps: a tag of channel %u at %ju ps\n",
                     count_, event.channel, event.time_ps, tag.channel, time_ps);
        return false;
      }
    }
    return true;
  }

  [[nodiscard]] bool has_all_before(std::uint64_t end_ps) const {
    return events_.front().time_ps >= end_ps;
  }
  [[nodiscard]] std::uint64_t count() const { return count_; }

 private:
  simulator::EventSource events_;
  std::array<std::uint64_t, simulator::kChannels> base_ps_{};
  std::uint64_t tick_ps_ = 1, line_ps_ = simulator::kWrapPs, tolerance_ps_ = 0, count_ = 0;
};

}  // namespace orvo::tests
