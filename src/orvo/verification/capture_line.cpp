#include "orvo/verification/capture_line.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <string_view>

namespace orvo::verification {
namespace {

constexpr double kShortCapture_s = 2;  // over before anybody asks how far it is
constexpr double kMegabyte = 1e6;
constexpr std::string_view kEraseLine = "\r\x1b[K";

bool in_foreground() { return tcgetpgrp(STDERR_FILENO) == getpgrp(); }

/// Columns that a line may fill without wrapping; 79 where the terminal does not say how wide it
/// is.
std::size_t columns() {
  winsize size = {};
  const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
  return known ? size.ws_col - 1U : 79U;
}

bool put(std::string_view text) {
  return write(STDERR_FILENO, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

}  // namespace

CaptureLine::CaptureLine(double capture_s, std::uint64_t queue_chunks)
    : capture_s_(capture_s),
      queue_chunks_(queue_chunks),
      wanted_(capture_s > kShortCapture_s && isatty(STDERR_FILENO) != 0) {}

void CaptureLine::show(const timing::CaptureProgress& progress) {
  if (!wanted_ || !in_foreground()) {
    return;
  }
  std::array<char, 160> line;
  const double recorded_mb = static_cast<double>(progress.payload_bytes) / kMegabyte;
  const int length = std::snprintf(line.data(), line.size(),
                                   "%.0f of %.0f s, %.1f MB recorded, %.1f MB/s, %" PRIu64
                                   " of %" PRIu64 " chunks waiting",
                                   progress.elapsed_s, capture_s_, recorded_mb,
                                   progress.elapsed_s > 0 ? recorded_mb / progress.elapsed_s : 0,
                                   progress.waiting_chunks, queue_chunks_);
  const std::size_t fits =
      std::min({static_cast<std::size_t>(std::max(length, 0)), line.size() - 1, columns()});
  shown_ = true;
  put(kEraseLine) && put({line.data(), fits});
}

void CaptureLine::clear() {
  if (shown_ && in_foreground()) {
    put(kEraseLine);
  }
  shown_ = false;
}

}  // namespace orvo::verification
