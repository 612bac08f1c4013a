// Recordings of four channels that fire together, written record by record.
#pragma once

#include <cmath>
#include <cstdint>
#include <string>

#include "orvo/timing/stream_files.h"
#include "orvo/verification/evaluation.h"
#include "support/record_writer.h"

namespace orvo::tests {

/// Packed-delta records of 16 bits and 8 ps. Channel c fires skew_ps(c) after channel 0.
class PackedWriter {
 public:
  static constexpr std::uint32_t kDivider = 1'000;
  static constexpr double kPeriodPs = 1e12 * verification::kDecodedTimestampSecondsPerSecond *
                                      kDivider / verification::kCalibrationBaseHz;
  static constexpr double skew_ps(std::size_t channel) {
    return 248.0 * static_cast<double>(channel);
  }

  PackedWriter() {
    header.mode = timing::Mode::internal;
    header.application = "test";
  }

  /// A lock needs a sync of each channel; they come by themselves with the first events.
  void sync() { synced_ = false; }

  /// The next `count` events of each channel, but none of `silent`, every interval of channel 2
  /// longer by `slow_ppm`.
  void events(unsigned count, unsigned silent = 4, double slow_ppm = 0) {
    slow_ppm_ = slow_ppm;
    for (unsigned i = 0; i < count; ++i, ++event_) {
      for (unsigned c = 0; c < 4; ++c) {
        if (c != silent) event(c);
      }
      synced_ = true;
    }
  }
  /// All channels go on later by `time_ps`.
  void jump(std::uint64_t time_ps) { start_ticks_ += time_ps / 8; }
  /// A record of another channel amid a sync: the lock is lost.
  void lose_lock() {
    put(0, 1, 0xFFFF);
    put(1, 0, 0);
  }
  void put(unsigned channel, unsigned flag, std::uint64_t payload) {
    records_.record(channel, flag != 0, payload);
  }

  void save(const std::string& file) {
    timing::StreamFileWriter writer;
    writer.open(file, header);
    writer.write(records_.bytes.data(), records_.bytes.size());
    writer.close();
  }

  timing::StreamFileHeader header;

 private:
  [[nodiscard]] std::uint64_t ticks_of(unsigned channel) const {
    const double stretch = 1 + (channel == 2 ? slow_ppm_ * 1e-6 : 0);
    const double time_ps = event_ * kPeriodPs * stretch + skew_ps(channel);
    return start_ticks_ + static_cast<std::uint64_t>(std::llround(time_ps / 8));
  }
  void event(unsigned channel) {
    const std::uint64_t now = ticks_of(channel);
    std::uint64_t step = now - last_[channel];
    if (!synced_) {
      records_.sync(channel, now);
      step = 0;
    }
    records_.data(channel, step);
    last_[channel] = now;
  }

  RecordWriter records_;
  std::uint64_t start_ticks_ = 125'000'000'000;
  std::uint64_t last_[4] = {};
  double slow_ppm_ = 0;
  unsigned event_ = 0;
  bool synced_ = false;
};

}  // namespace orvo::tests
