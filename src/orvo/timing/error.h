// The one exception type of the timing layer and of the tool's own file failures.
#pragma once

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

}  // namespace orvo::timing
