#include "orvo/simulator/instrument_clock.h"

#include <algorithm>

#include "orvo/simulator/instrument.h"

namespace orvo::simulator {
namespace {

using std::chrono::nanoseconds;

// 10 ns of the host are 9999 ps of the instrument.
constexpr std::int64_t kHostNs = 10;
constexpr std::int64_t kInstrumentPs = 9999;

// Then the time line is nearly at its end, and the products below still fit.
constexpr std::int64_t kLastHostNs = kTimeLineEndPs / 1000;

}  // namespace

std::uint64_t InstrumentClock::at(Host::time_point host) const {
  if (!started_) return now_ps_;
  const nanoseconds passed = std::chrono::duration_cast<nanoseconds>(host - *started_);
  const std::int64_t ns = std::clamp<std::int64_t>(passed.count(), 0, kLastHostNs);
  const std::int64_t ps = ns / kHostNs * kInstrumentPs + ns % kHostNs * kInstrumentPs / kHostNs;
  return now_ps_ + static_cast<std::uint64_t>(ps);
}

InstrumentClock::Host::time_point InstrumentClock::when(std::uint64_t time_ps) const {
  if (!started_ || time_ps <= now_ps_) return Host::time_point::min();
  const auto ps = static_cast<std::int64_t>(time_ps - now_ps_);
  const std::int64_t rest = ps % kInstrumentPs;
  const std::int64_t ns =
      ps / kInstrumentPs * kHostNs + (rest * kHostNs + kInstrumentPs - 1) / kInstrumentPs;
  return *started_ + nanoseconds(ns);
}

}  // namespace orvo::simulator
