// From a driver library's status to an Error. No state; call from the thread that owns the device.
#pragma once

#include "orvo/timing/device/ot_api.h"

namespace orvo::timing::detail {

/// Throws Error with the message "operation: status text (detail_text)"; a null or empty
/// `detail_text` leaves out the parentheses.
[[noreturn]] void throw_status(ot_status status, const char* operation, const char* detail_text);

/// Returns at once when `status` is OT_OK; otherwise throw_status() with the detail text that
/// `device`, when it is not null, gives for its most recent failure.
void check(ot_status status, const char* operation, const ot_device* device);

}  // namespace orvo::timing::detail
