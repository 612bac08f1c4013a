// The instrument's time: 0.9999 s per second of the host's steady clock from the first open on.
// Unpaced, it stands still but for the events that are read.
//
// Threads: a clock belongs to one thread at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace orvo::simulator {

class InstrumentClock {
 public:
  using Host = std::chrono::steady_clock;

  InstrumentClock(std::uint64_t start_ps, bool paced) : now_ps_(start_ps), paced_(paced) {}

  /// Starts with the first call.
  void start() {
    if (!started_) started_ = Host::now();
  }

  [[nodiscard]] bool paced() const { return paced_; }

  [[nodiscard]] std::uint64_t now_ps() const { return paced_ ? at(Host::now()) : now_ps_; }

  /// The instrument's time at a time of the host, and the other way round, rounded up. Paced only.
  [[nodiscard]] std::uint64_t at(Host::time_point host) const;
  [[nodiscard]] Host::time_point when(std::uint64_t time_ps) const;

  /// Unpaced only: the instrument is at `time_ps` now.
  void set_now(std::uint64_t time_ps) { now_ps_ = time_ps; }

 private:
  std::uint64_t now_ps_;  // unpaced; else the time of the start
  bool paced_;
  std::optional<Host::time_point> started_;
};

}  // namespace orvo::simulator
