// The exception type of the timing layer's and the tool's own failures, and that of an
// interruption.
#pragma once

#include <exception>
#include <stdexcept>
#include <string>

#include "orvo/timing/ot_status.h"

namespace orvo::timing {

/// A failed operation: what() is the complete message, status() the value that caused it.
class Error : public std::runtime_error {
 public:
  Error(ot_status status, const std::string& message)
      : std::runtime_error(message), status_(status) {}

  /// One of ot_status.h, or whatever the driver library returned, unchanged.
  [[nodiscard]] ot_status status() const noexcept { return status_; }

 private:
  ot_status status_;
};

/// A capture or a read-back that was asked to end early, which is no failure of its own.
class Interrupted : public std::exception {
 public:
  [[nodiscard]] const char* what() const noexcept override { return "interrupted"; }
};

}  // namespace orvo::timing
