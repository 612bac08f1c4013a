#include "orvo/timing/device/library_status.h"

#include <string>

#include "orvo/timing/error.h"

namespace orvo::timing::detail {

void throw_status(ot_status status, const char* operation, const char* detail_text) {
  const char* status_text = ot_status_string(status);
  std::string reason = status_text != nullptr ? status_text : "";
  if (detail_text != nullptr && *detail_text != '\0') {
    reason += " (";
    reason += detail_text;
    reason += ')';
  }
  throw Error(status, operation, reason);
}

void check(ot_status status, const char* operation, const ot_device* device) {
  if (status != OT_OK) {
    throw_status(status, operation, device != nullptr ? ot_last_error(device) : nullptr);
  }
}

}  // namespace orvo::timing::detail
