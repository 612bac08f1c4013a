// One opened instrument: its settings, its stream, and what its user may do next.
//
// Threads: a device belongs to one thread at a time.
// Errors: every operation returns its status with a text; arguments have been checked for null.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "orvo/simulator/instrument_clock.h"
#include "orvo/simulator/settings.h"
#include "orvo/simulator/stream.h"
#include "orvo/timing/device/ot_api.h"

namespace orvo::simulator {

struct Outcome {
  ot_status status = OT_OK;
  std::string detail;
};

class Device {
 public:
  /// `settings` and `clock` outlive the device.
  Device(const Settings& settings, InstrumentClock& clock, const ot_identity& identity)
      : settings_(settings), clock_(clock), identity_(identity) {}

  [[nodiscard]] const ot_identity& identity() const { return identity_; }
  [[nodiscard]] bool streaming() const { return stream_ != nullptr; }

  /// Rounds to the nearest integer divider of the source's base frequency.
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
  StreamConfig config_ = power_on_config();
  std::unique_ptr<Stream> stream_;

  static StreamConfig power_on_config();
};

}  // namespace orvo::simulator
