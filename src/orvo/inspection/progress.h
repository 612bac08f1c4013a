// A progress bar on standard error, where that is a terminal.
// Threads: a ProgressBar belongs to one thread. Errors: none; what cannot be shown is not shown.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace orvo::inspection {

/// "[#####     ] 50 %  512 of 1024 MB, 800 MB/s, 0:01 left"; without a total "512 MB, 800 MB/s".
[[nodiscard]] std::string progress_line(std::uint64_t done_bytes,
                                        std::optional<std::uint64_t> total_bytes, double elapsed_s);

class ProgressBar {
 public:
  /// Shows nothing where it is not wanted or standard error is no terminal.
  ProgressBar(std::optional<std::uint64_t> total_bytes, bool wanted);
  /// Wipes the bar away.
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  /// Cheap enough to be called often: draws at most ten times a second.
  void update(std::uint64_t done_bytes);

 private:
  using Clock = std::chrono::steady_clock;

  std::optional<std::uint64_t> total_bytes_;
  bool shown_;
  bool drawn_ = false;
  Clock::time_point start_ = Clock::now();
  Clock::time_point next_draw_ = start_;
};

}  // namespace orvo::inspection
