// One opened instrument, and the clock of the instrument.
//
// Threads: an object belongs to one thread at a time.
// Errors: an operation returns its status with a text; the caller has checked arguments for null.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "orvo/simulator/settings.h"
#include "orvo/simulator/stream.h"
#include "orvo/timing/device/ot_api.h"

namespace orvo::simulator {

/// The instrument's time: 0.9999 s per second of the host's steady clock, from the first opening
/// on. Unpaced it moves only with the events that are read.
class InstrumentClock {
 public:
  using Host = std::chrono::steady_clock;

  InstrumentClock(std::uint64_t start_ps, bool paced) : now_ps_(start_ps), paced_(paced) {}

  /// Calls after the first have no effect.
  void start() {
    if (!started_) {
      started_ = Host::now();
    }
  }

  [[nodiscard]] bool paced() const { return paced_; }
  [[nodiscard]] std::uint64_t now_ps() const { return paced_ ? at(Host::now()) : now_ps_; }

  // Paced only: the instrument's time at a time of the host; and the reverse, rounded up.
  [[nodiscard]] std::uint64_t at(Host::time_point host) const;
  [[nodiscard]] Host::time_point when(std::uint64_t time_ps) const;

  /// Unpaced only.
  void set_now(std::uint64_t time_ps) { now_ps_ = time_ps; }

 private:
  std::uint64_t now_ps_;  // paced: at the start
  bool paced_;
  std::optional<Host::time_point> started_;
};

// Statuses of this driver library alone.
inline constexpr ot_status kBusy = 1;         ///< an instrument is open, or a stream is running
inline constexpr ot_status kBadSettings = 2;  ///< ORVO_SIM has an unknown key or a bad value
inline constexpr ot_status kNoMemory = 3;

struct Outcome {
  ot_status status = OT_OK;
  std::string detail;
};

class Device {
 public:
  /// `settings` and `clock` outlive the device.
  Device(const Settings& settings, InstrumentClock& clock, const ot_identity& identity);

  [[nodiscard]] const ot_identity& identity() const { return identity_; }
  [[nodiscard]] bool streaming() const { return stream_ != nullptr; }

  /// Takes the divider of the source's base frequency that comes nearest.
  Outcome set_calibration_freq(double freq_hz, std::uint32_t& divider);
  /// A width of 0 becomes 16, one above 31 becomes 31; a quantum of 0 becomes 8.
  Outcome set_packed_delta_config(std::uint8_t& delta_bits, std::uint16_t& quantum_ps);
  Outcome set_channel_mask(std::uint8_t mask);
  Outcome set_interface(ot_transport transport, ot_format format);

  Outcome start(ot_mode mode);
  /// Returns when `buffer` is full or after `timeout_ms`, whichever comes first; unpaced, at once
  /// while there are bytes.
  Outcome read(std::span<std::uint8_t> buffer, std::uint64_t& got, int timeout_ms);
  Outcome stop(int stop_flag);

 private:
  const Settings& settings_;
  InstrumentClock& clock_;
  ot_identity identity_;
  StreamConfig config_;
  std::unique_ptr<Stream> stream_;
};

}  // namespace orvo::simulator
