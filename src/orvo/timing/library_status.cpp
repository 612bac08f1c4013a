#include "orvo/timing/library_status.h"

#include <string>

#include "orvo/timing/error.h"

namespace orvo::timing::detail {

void throw_status(ot_status status, const char* operation, const char* detail_text) {
  const char* status_text = ot_status_string(status);
  std::string message = operation;
  message += ": ";
  message += status_text != nullptr ? status_text : "";
  if (detail_text != nullptr && *detail_text != '\0') {
    message += " (";
    message += detail_text;
    message += ')';
  }
  throw Error(status, message);
}

void check(ot_status status, const char* operation, const ot_device* device) {
  if (status != OT_OK) {
    throw_status(status, operation, device != nullptr ? ot_last_error(device) : nullptr);
  }
}

}  // namespace orvo::timing::detail
