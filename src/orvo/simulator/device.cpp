#include "orvo/simulator/device.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <thread>

#include "orvo/simulator/statuses.h"

namespace orvo::simulator {
namespace {

constexpr double kCalibrationBaseHz = 712500000.0 / 23.0;
constexpr std::uint32_t kPowerOnDivider = 30978;  // 1 kHz

constexpr std::uint8_t kDefaultBits = 16;
constexpr std::uint8_t kMaxBits = 31;
constexpr std::uint16_t kDefaultQuantumPs = 8;

Outcome running() { return {kBusy, "a stream is running"}; }
Outcome not_running() { return {OT_ERR_NOT_OPEN, "no stream is running"}; }

}  // namespace

StreamConfig Device::power_on_config() {
  StreamConfig config;
  config.source.divider = kPowerOnDivider;
  return config;
}

Outcome Device::set_calibration_freq(double freq_hz, std::uint32_t& divider) {
  if (streaming()) return running();
  const double nearest = std::max(std::round(kCalibrationBaseHz / freq_hz), 1.0);
  if (!(std::isfinite(freq_hz) && freq_hz > 0 && nearest <= 4294967295.0)) {
    return {OT_ERR_ARGUMENT, "calibration frequency out of range"};
  }
  config_.source.divider = static_cast<std::uint32_t>(nearest);
  divider = config_.source.divider;
  return {};
}

Outcome Device::set_packed_delta_config(std::uint8_t& delta_bits, std::uint16_t& quantum_ps) {
  if (streaming()) return running();
  delta_bits = delta_bits == 0 ? kDefaultBits : std::min(delta_bits, kMaxBits);
  quantum_ps = quantum_ps == 0 ? kDefaultQuantumPs : quantum_ps;
  config_.delta_bits = delta_bits;
  config_.quantum_ps = quantum_ps;
  return {};
}

Outcome Device::set_channel_mask(std::uint8_t mask) {
  if (streaming()) return running();
  config_.source.channel_mask = mask;
  return {};
}

Outcome Device::set_interface(ot_transport transport, ot_format format) {
  if (streaming()) return running();
  if (transport < 0 || transport > 2) return {OT_ERR_ARGUMENT, "unknown transport"};
  if (format < 0 || format > 2) return {OT_ERR_ARGUMENT, "unknown format"};
  config_.format = static_cast<timing::Format>(format);
  return {};
}

Outcome Device::start(ot_mode mode) {
  if (streaming()) return running();
  if (mode < 0 || mode > 1) return {OT_ERR_ARGUMENT, "unknown mode"};
  config_.source.mode = static_cast<timing::Mode>(mode);
  config_.source.start_ps = clock_.now_ps();
  stream_ = std::make_unique<Stream>(settings_, generate_payload(settings_, config_));
  return {};
}

Outcome Device::read(std::span<std::uint8_t> buffer, std::uint64_t& got, int timeout_ms) {
  if (!streaming()) return not_running();
  using Host = InstrumentClock::Host;
  const auto deadline = Host::now() + std::chrono::milliseconds(std::max(timeout_ms, 0));
  got = stream_->read(buffer, clock_.paced() ? clock_.at(deadline) : kNever - 1);
  if (!clock_.paced()) {
    if (got == 0 && !buffer.empty()) std::this_thread::sleep_until(deadline);
  } else if (got == buffer.size()) {
    // All that fits is known; the read ends when the last of it has happened.
    std::this_thread::sleep_until(std::min(deadline, clock_.when(stream_->time_ps())));
  } else {
    std::this_thread::sleep_until(deadline);
  }
  if (got == 0 && !buffer.empty()) return {OT_ERR_TIMEOUT, {}};
  return {};
}

Outcome Device::stop(int stop_flag) {
  if (!streaming()) return not_running();
  if (stop_flag != 0 && stop_flag != 1) return {OT_ERR_ARGUMENT, "unknown stop flag"};
  if (!clock_.paced()) clock_.set_now(stream_->time_ps());
  stream_.reset();
  return {};
}

}  // namespace orvo::simulator
