// The statuses that only this driver library gives, and the text of every status.
#pragma once

#include "orvo/timing/ot_status.h"

namespace orvo::simulator {

inline constexpr ot_status kBusy = 1;         ///< an instrument is open, or its stream runs
inline constexpr ot_status kBadSettings = 2;  ///< ORVO_SIM has an unknown key or a bad value
inline constexpr ot_status kNoMemory = 3;

[[nodiscard]] constexpr const char* status_text(ot_status status) {
  switch (status) {
    case OT_OK:
      return "ok";
    case OT_ERR_ARGUMENT:
      return "invalid argument";
    case OT_ERR_IO:
      return "input/output failure";
    case OT_ERR_TIMEOUT:
      return "timeout";
    case OT_ERR_FORMAT:
      return "unexpected format";
    case OT_ERR_NOT_FOUND:
      return "not found";
    case OT_ERR_NOT_OPEN:
      return "not open";
    case kBusy:
      return "busy";
    case kBadSettings:
      return "bad simulator settings";
    case kNoMemory:
      return "out of memory";
    default:
      return "unknown status";
  }
}

}  // namespace orvo::simulator
