// A stream that the simulated instrument sends, and a witness of all that it had to say.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <vector>

#include "orvo/simulator/stream.h"
#include "orvo/timing/stream_decoder.h"
#include "orvo/timing/stream_header.h"
#include "orvo/timing/time_tag.h"

namespace orvo::tests {

struct Instrument {
  timing::Format format = timing::Format::packed_delta;
  unsigned bits = 16, quantum_ps = 8;
  timing::Mode mode = timing::Mode::internal;
  unsigned mask = 0;
  std::uint32_t divider = 310;             ///< of the calibration source: 100 kHz
  std::uint64_t duration_ps = 80'000'000;  ///< of the stream
  std::string sim = "";                    ///< as in ORVO_SIM; may name another end

  /// Of its recording.
  [[nodiscard]] timing::StreamFileHeader header() const {
    timing::StreamFileHeader header;
    header.stream_format = format;
    header.mode = mode;
    if (mode == timing::Mode::internal) header.raw64_tag_format = "raw_cf";
    header.channel_mask = static_cast<std::uint8_t>(mask);
    header.delta_bits = static_cast<std::uint8_t>(bits);
    header.quantum_ps = static_cast<std::uint16_t>(quantum_ps);
    return header;
  }
  [[nodiscard]] simulator::Settings settings() const {
    return simulator::parse_settings("pace=ps:" + std::to_string(duration_ps) + ";" + sim);
  }
  [[nodiscard]] simulator::StreamConfig config() const {
    const timing::StreamFileHeader told = header();
    return {format,
            told.delta_bits,
            told.quantum_ps,
            {mode, told.channel_mask, divider, settings().clock_ps}};
  }
  [[nodiscard]] simulator::Stream stream() const {
    return {settings(), generate_payload(settings(), config())};
  }

  /// The stream's first 64 KiB.
  [[nodiscard]] std::vector<std::uint8_t> bytes() const {
    std::vector<std::uint8_t> bytes(1 << 16);
    bytes.resize(stream().read(bytes, simulator::kNever - 1));
    return bytes;
  }
  /// Calls `take` with the tags of the whole stream, decoded in chunks.
  template <typename Take>
  void for_each_batch(std::size_t chunk_bytes, const Take& take) const {
    const auto decoder = timing::StreamDecoder::make(header());
    simulator::Stream bytes = stream();
    while (const auto got = bytes.read(decoder->prepare(chunk_bytes), simulator::kNever - 1)) {
      decoder->commit(got);
      take(decoder->feed());
    }
  }
};

/// Takes tags against the events that the instrument had: every one in its order, with its time cut
/// to whole ticks, on a time line that each channel begins with the clock's reading at its first.
class Witness {
 public:
  explicit Witness(const Instrument& instrument)
      : events_(instrument.settings(), instrument.config().source) {
    if (instrument.format == timing::Format::packed_delta) {
      tick_ps_ <<= std::countr_zero(instrument.quantum_ps);
    }
    if (instrument.format != timing::Format::raw64) {
      line_ps_ = std::min(line_ps_, tick_ps_ * (simulator::kTickMask + 1));
    } else if (instrument.mode == timing::Mode::internal) {
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
