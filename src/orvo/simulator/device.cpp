#include "orvo/simulator/device.h"

#include <algorithm>
#include <cmath>
#include <thread>

namespace orvo::simulator {
namespace {

using std::chrono::nanoseconds;

// 10 ns of the host are 9999 ps of the instrument.
constexpr std::int64_t kHostNs = 10;
constexpr std::int64_t kInstrumentPs = 9999;
// Close to the end of the time line; up to here the products below fit 63 bits.
constexpr std::int64_t kLastHostNs = kTimeLineEndPs / 1000;

constexpr double kCalibrationBaseHz = 712'500'000.0 / 23.0;
constexpr std::uint32_t kPowerOnDivider = 30'978;  // 1 kHz

constexpr std::uint8_t kDefaultBits = 16;
constexpr std::uint8_t kMaxBits = 31;
constexpr std::uint16_t kDefaultQuantumPs = 8;

Outcome running() { return {kBusy, "a stream is running"}; }
Outcome not_running() { return {OT_ERR_NOT_OPEN, "no stream is running"}; }

}  // namespace

std::uint64_t InstrumentClock::at(Host::time_point host) const {
  if (!started_) {
    return now_ps_;
  }
  const auto passed = std::chrono::duration_cast<nanoseconds>(host - *started_);
  const std::int64_t ns = std::clamp<std::int64_t>(passed.count(), 0, kLastHostNs);
  const std::int64_t ps = ns / kHostNs * kInstrumentPs + ns % kHostNs * kInstrumentPs / kHostNs;
  return now_ps_ + static_cast<std::uint64_t>(ps);
}

InstrumentClock::Host::time_point InstrumentClock::when(std::uint64_t time_ps) const {
  if (!started_ || time_ps <= now_ps_) {
    return Host::time_point::min();
  }
  const auto ps = static_cast<std::int64_t>(time_ps - now_ps_);
  const std::int64_t rest = ps % kInstrumentPs;
  const std::int64_t ns =
      ps / kInstrumentPs * kHostNs + (rest * kHostNs + kInstrumentPs - 1) / kInstrumentPs;
  return *started_ + nanoseconds(ns);
}

Device::Device(const Settings& settings, InstrumentClock& clock, const ot_identity& identity)
    : settings_(settings), clock_(clock), identity_(identity) {
  config_.source.divider = kPowerOnDivider;
}

Outcome Device::set_calibration_freq(double freq_hz, std::uint32_t& divider) {
  if (streaming()) {
    return running();
  }
  const double below = std::max(std::floor(kCalibrationBaseHz / freq_hz), 1.0);
  const double above = below + 1;
  const bool is_above = freq_hz - kCalibrationBaseHz / above < kCalibrationBaseHz / below - freq_hz;
  const double nearest = is_above ? above : below;
  if (!(std::isfinite(freq_hz) && freq_hz > 0 && nearest <= 4'294'967'295.0)) {
    return {OT_ERR_ARGUMENT, "calibration frequency out of range"};
  }
  config_.source.divider = static_cast<std::uint32_t>(nearest);
  divider = config_.source.divider;
  return {};
}

Outcome Device::set_packed_delta_config(std::uint8_t& delta_bits, std::uint16_t& quantum_ps) {
  if (streaming()) {
    return running();
  }
  delta_bits = delta_bits == 0 ? kDefaultBits : std::min(delta_bits, kMaxBits);
  quantum_ps = quantum_ps == 0 ? kDefaultQuantumPs : quantum_ps;
  config_.delta_bits = delta_bits;
  config_.quantum_ps = quantum_ps;
  return {};
}

Outcome Device::set_channel_mask(std::uint8_t mask) {
  if (streaming()) {
    return running();
  }
  config_.source.channel_mask = mask;
  return {};
}

Outcome Device::set_interface(ot_transport transport, ot_format format) {
  if (streaming()) {
    return running();
  }
  if (transport < 0 || transport > 2) {
    return {OT_ERR_ARGUMENT, "unknown transport"};
  }
  if (format < 0 || format > 2) {
    return {OT_ERR_ARGUMENT, "unknown format"};
  }
  config_.format = static_cast<timing::Format>(format);
  return {};
}

Outcome Device::start(ot_mode mode) {
  if (streaming()) {
    return running();
  }
  if (mode < 0 || mode > 1) {
    return {OT_ERR_ARGUMENT, "unknown mode"};
  }
  config_.source.mode = static_cast<timing::Mode>(mode);
  config_.source.start_ps = clock_.now_ps();
  stream_ = std::make_unique<Stream>(settings_, generate_payload(settings_, config_));
  return {};
}

Outcome Device::read(std::span<std::uint8_t> buffer, std::uint64_t& got, int timeout_ms) {
  if (!streaming()) {
    return not_running();
  }
  const auto deadline =
      InstrumentClock::Host::now() + std::chrono::milliseconds(std::max(timeout_ms, 0));
  got = stream_->read(buffer, clock_.paced() ? clock_.at(deadline) : kNever - 1);
  if (got < buffer.size() && (clock_.paced() || got == 0)) {
    std::this_thread::sleep_until(deadline);
  } else if (clock_.paced()) {
    // The buffer is full; the read ends when its last event has happened.
    std::this_thread::sleep_until(std::min(deadline, clock_.when(stream_->time_ps())));
  }
  if (got == 0 && !buffer.empty()) {
    return {OT_ERR_TIMEOUT, {}};
  }
  return {};
}

Outcome Device::stop(int stop_flag) {
  if (!streaming()) {
    return not_running();
  }
  if (stop_flag != 0 && stop_flag != 1) {
    return {OT_ERR_ARGUMENT, "unknown stop flag"};
  }
  if (!clock_.paced()) {
    clock_.set_now(stream_->time_ps());
  }
  stream_.reset();
  return {};
}

}  // namespace orvo::simulator
