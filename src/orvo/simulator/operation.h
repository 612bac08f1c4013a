// The operations of the driver interface, for counting, failing and recording their calls.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace orvo::simulator {

enum class Operation : std::size_t {
  open,
  open_serial,
  close,
  discover,
  discover_count,
  discover_port,
  discover_identity,
  discover_free,
  identify,
  last_error,
  status_string,
  set_calibration_freq,
  set_packed_delta_config,
  set_stream_channel_mask,
  set_stream_interface,
  start_stream_mode,
  read_stream_bytes,
  stop_stream_mode,
};

struct OperationInfo {
  std::string_view name;
  bool can_fail;  ///< has a status
};

inline constexpr std::array<OperationInfo, 18> kOperations = {{
    {"ot_open", true},
    {"ot_open_serial", true},
    {"ot_close", true},
    {"ot_discover", true},
    {"ot_discover_count", false},
    {"ot_discover_port", false},
    {"ot_discover_identity", false},
    {"ot_discover_free", false},
    {"ot_identify", true},
    {"ot_last_error", false},
    {"ot_status_string", false},
    {"ot_set_calibration_freq", true},
    {"ot_set_packed_delta_config", true},
    {"ot_set_stream_channel_mask", true},
    {"ot_set_stream_interface", true},
    {"ot_start_stream_mode", true},
    {"ot_read_stream_bytes", true},
    {"ot_stop_stream_mode", true},
}};

constexpr const OperationInfo& info(Operation operation) {
  return kOperations[static_cast<std::size_t>(operation)];
}

}  // namespace orvo::simulator
