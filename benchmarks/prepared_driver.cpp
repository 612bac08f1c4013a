#include "prepared_driver.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "orvo/timing/device/ot_api.h"

namespace {

std::vector<std::uint8_t> prepared;
std::uint64_t bytes_left = 0;
char some_device;

ot_status open_device(ot_device** out) {
  *out = reinterpret_cast<ot_device*>(&some_device);  // never looked into
  return OT_OK;
}

}  // namespace

namespace orvo::benchmarks {

void prepare_driver(std::uint64_t total_bytes, std::uint64_t read_bytes) {
  prepared.assign(read_bytes, 0x5A);
  bytes_left = total_bytes;
}

}  // namespace orvo::benchmarks

extern "C" {

ot_status ot_open(ot_device** out, const char*, int) { return open_device(out); }
ot_status ot_open_serial(ot_device** out, const char*) { return open_device(out); }
ot_status ot_close(ot_device*) { return OT_OK; }

ot_status ot_discover(ot_discovery_list** out) {
  *out = nullptr;
  return OT_OK;
}
uint64_t ot_discover_count(ot_discovery_list*) { return 0; }
const char* ot_discover_port(ot_discovery_list*, uint64_t) { return nullptr; }
const ot_identity* ot_discover_identity(ot_discovery_list*, uint64_t) { return nullptr; }
void ot_discover_free(ot_discovery_list*) {}

ot_status ot_identify(ot_device*, ot_identity* out) {
  *out = {};
  return OT_OK;
}
const char* ot_last_error(const ot_device*) { return nullptr; }
const char* ot_status_string(ot_status) { return "status"; }

ot_status ot_set_calibration_freq(ot_device*, double, uint32_t*) { return OT_OK; }
ot_status ot_set_packed_delta_config(ot_device*, uint8_t, uint16_t, uint8_t*, uint16_t*) {
  return OT_OK;
}
ot_status ot_set_stream_channel_mask(ot_device*, uint8_t) { return OT_OK; }
ot_status ot_set_stream_interface(ot_device*, ot_transport, ot_format) { return OT_OK; }
ot_status ot_start_stream_mode(ot_device*, ot_mode, uint8_t) { return OT_OK; }
ot_status ot_stop_stream_mode(ot_device*, int) { return OT_OK; }

ot_status ot_read_stream_bytes(ot_device*, uint8_t* buffer, uint64_t capacity, uint64_t* got,
                               int timeout_ms) {
  *got = std::min({capacity, bytes_left, std::uint64_t{prepared.size()}});
  if (*got == 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(timeout_ms));
    return OT_ERR_TIMEOUT;
  }
  std::memcpy(buffer, prepared.data(), *got);
  bytes_left -= *got;
  return OT_OK;
}

}  // extern "C"
