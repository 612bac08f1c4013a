// How far a long capture is, on one line of the terminal that is written over.
// Threads: belongs to the thread that captures. Errors: none; a failing write shows nothing.
#pragma once

#include "orvo/timing/device/device.h"

namespace orvo::verification {

/// Writes to standard error where that is a terminal, this process is in its foreground and the
/// capture is longer than two seconds; else nothing. The line is gone when the object is.
class CaptureLine {
 public:
  CaptureLine(double capture_s, std::uint64_t queue_chunks);
  ~CaptureLine() { clear(); }
  CaptureLine(const CaptureLine&) = delete;
  CaptureLine& operator=(const CaptureLine&) = delete;

  /// Shows `progress`. Allocates nothing.
  void show(const timing::CaptureProgress& progress);
  /// Removes the line; it comes back with the next show().
  void clear();

 private:
  const double capture_s_;
  const std::uint64_t queue_chunks_;
  const bool wanted_;
  bool shown_ = false;
};

}  // namespace orvo::verification
