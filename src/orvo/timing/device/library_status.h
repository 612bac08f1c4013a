// From a driver library's status to an Error. No state; call from the thread that owns the device.
#pragma once

#include <string>

#include "orvo/timing/device/ot_api.h"
#include "orvo/timing/error.h"

namespace orvo::timing::detail {

/// Throws Error with the message "operation: status text (detail_text)"; a null or empty
/// `detail_text` leaves out the parentheses.
[[noreturn]] inline void throw_status(ot_status status, const char* operation,
                                      const char* detail_text) {
  const char* status_text = ot_status_string(status);
  std::string reason = status_text != nullptr ? status_text : "";
  if (detail_text != nullptr && *detail_text != '\0') {
    reason += " (";
    reason += detail_text;
    reason += ')';
  }
  throw Error(status, operation, reason);
}

/// Returns at once when `status` is OT_OK; otherwise throw_status() with the detail text that
/// `device`, when it is not null, gives for its most recent failure.
inline void check(ot_status status, const char* operation, const ot_device* device) {
  if (status != OT_OK) {
    throw_status(status, operation, device != nullptr ? ot_last_error(device) : nullptr);
  }
}

}  // namespace orvo::timing::detail
