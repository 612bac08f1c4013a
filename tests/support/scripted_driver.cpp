#include "support/scripted_driver.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <sstream>
#include <thread>

struct ot_device {};
struct ot_discovery_list {};

namespace orvo::tests {

ScriptedDriver driver;

namespace {

ot_device the_device;
ot_discovery_list the_list;

template <typename... Parts>
ot_status call(const Parts&... parts) {
  std::ostringstream text;
  (text << ... << parts);
  driver.calls += text.str() + "; ";
  return text.str().starts_with(driver.failing) ? OT_ERR_IO : OT_OK;
}

}  // namespace

extern "C" {

ot_status ot_open(ot_device** out, const char* port, int baud) {
  *out = &the_device;
  return call("open ", port, ' ', baud);
}
ot_status ot_open_serial(ot_device** out, const char* port) {
  *out = &the_device;
  return call("open_serial ", port);
}
ot_status ot_close(ot_device*) { return call("close"); }

ot_status ot_discover(ot_discovery_list** out) {
  *out = &the_list;
  return call("discover");
}
uint64_t ot_discover_count(ot_discovery_list*) { return driver.instruments.size(); }
const char* ot_discover_port(ot_discovery_list*, uint64_t index) {
  return driver.instruments.at(index).port;
}
const ot_identity* ot_discover_identity(ot_discovery_list*, uint64_t index) {
  return driver.instruments.at(index).identity;
}
void ot_discover_free(ot_discovery_list*) { call("free"); }

ot_status ot_identify(ot_device*, ot_identity*) { return call("identify"); }
const char* ot_last_error(const ot_device*) {
  call("last_error");
  return driver.detail_text;
}
const char* ot_status_string(ot_status status) {
  call("status_string ", status);
  return driver.status_text;
}

ot_status ot_set_calibration_freq(ot_device*, double freq_hz, uint32_t* divider_out) {
  return call("set_calibration_freq ", freq_hz, '/', *divider_out);
}
ot_status ot_set_packed_delta_config(ot_device*, uint8_t delta_bits, uint16_t quantum_ps,
                                     uint8_t* effective_bits, uint16_t* effective_quantum_ps) {
  const ot_status status = call("set_packed_delta_config ", +delta_bits, ' ', quantum_ps, '/',
                                +*effective_bits, ' ', *effective_quantum_ps);
  *effective_bits = driver.effective_bits.value_or(*effective_bits);
  *effective_quantum_ps = driver.effective_quantum_ps.value_or(*effective_quantum_ps);
  return status;
}
ot_status ot_set_stream_channel_mask(ot_device*, uint8_t mask) {
  return call("set_stream_channel_mask ", +mask);
}
ot_status ot_set_stream_interface(ot_device*, ot_transport transport, ot_format format) {
  return call("set_stream_interface ", transport, ' ', format);
}

ot_status ot_start_stream_mode(ot_device*, ot_mode mode, uint8_t tdl_index) {
  return call("start ", mode, ' ', +tdl_index);
}
ot_status ot_read_stream_bytes(ot_device*, uint8_t* buffer, uint64_t capacity, uint64_t* got,
                               int timeout_ms) {
  if (driver.reads.empty()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return OT_ERR_TIMEOUT;
  }
  call("read ", capacity, ' ', timeout_ms, '/', *got);
  const auto [status, bytes, claimed] = std::move(driver.reads.front());
  driver.reads.erase(driver.reads.begin());
  *got = bytes.size() + claimed;
  std::memcpy(buffer, bytes.data(), std::min<std::size_t>(bytes.size(), capacity));
  return status;
}
ot_status ot_stop_stream_mode(ot_device*, int stop_flag) { return call("stop ", stop_flag); }

}  // extern "C"

}  // namespace orvo::tests
