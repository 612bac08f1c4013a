#include "support/scripted_driver.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <sstream>

struct ot_device {};
struct ot_discovery_list {};

namespace {

using orvo::tests::ScriptedDriver;

ot_device the_device;
ot_discovery_list the_list;

ScriptedDriver& script() {
  if (ScriptedDriver::current == nullptr) std::abort();  // a driver call outside any script
  return *ScriptedDriver::current;
}

template <typename... Parts>
std::string text(const Parts&... parts) {
  std::ostringstream out;
  (out << ... << parts);
  return out.str();
}

const char* or_null(const std::optional<std::string>& value) {
  return value ? value->c_str() : nullptr;
}

ot_status record(const ot_device* dev, const std::string& call) {
  return script().record(call, dev == &the_device);
}

/// For a call that makes something, which its output must not hold before.
template <typename Made>
ot_status make(const std::string& call, Made** out, Made& made) {
  const ot_status status = script().record(call, *out == nullptr);
  if (status == OT_OK) *out = &made;
  return status;
}

}  // namespace

ot_status ScriptedDriver::record(const std::string& call, bool valid) {
  calls_ += (valid && std::this_thread::get_id() == owner_ ? "" : "!") + call + "; ";
  return call.starts_with(failing) ? failure : OT_OK;
}

extern "C" {

ot_status ot_open(ot_device** out, const char* port, int baud) {
  return make(text("open ", port, ' ', baud), out, the_device);
}
ot_status ot_open_serial(ot_device** out, const char* port) {
  return make(text("open_serial ", port), out, the_device);
}
ot_status ot_close(ot_device* dev) { return record(dev, "close"); }

ot_status ot_discover(ot_discovery_list** out) { return make("discover", out, the_list); }
uint64_t ot_discover_count(ot_discovery_list* list) {
  script().record("count", list == &the_list);
  return script().instruments.size();
}
const char* ot_discover_port(ot_discovery_list* list, uint64_t index) {
  script().record(text("port ", index), list == &the_list);
  return or_null(script().instruments.at(index).port);
}
const ot_identity* ot_discover_identity(ot_discovery_list* list, uint64_t index) {
  script().record(text("identity ", index), list == &the_list);
  const auto& identity = script().instruments.at(index).identity;
  return identity ? &*identity : nullptr;
}
void ot_discover_free(ot_discovery_list* list) { script().record("free", list == &the_list); }

ot_status ot_identify(ot_device* dev, ot_identity* out) {
  *out = {};
  return record(dev, "identify");
}
const char* ot_last_error(const ot_device* dev) {
  record(dev, "last_error");
  return or_null(script().detail_text);
}
const char* ot_status_string(ot_status status) {
  script().record(text("status_string ", status));
  return or_null(script().status_text);
}

ot_status ot_set_calibration_freq(ot_device* dev, double freq_hz, uint32_t* divider_out) {
  const std::string call = text("set_calibration_freq ", freq_hz, '/', *divider_out);
  *divider_out = 1;
  return record(dev, call);
}
ot_status ot_set_packed_delta_config(ot_device* dev, uint8_t delta_bits, uint16_t quantum_ps,
                                     uint8_t* effective_bits, uint16_t* effective_quantum_ps) {
  const std::string call = text("set_packed_delta_config ", +delta_bits, ' ', quantum_ps, '/',
                                +*effective_bits, ' ', *effective_quantum_ps);
  *effective_bits = script().effective_bits.value_or(*effective_bits);
  *effective_quantum_ps = script().effective_quantum_ps.value_or(*effective_quantum_ps);
  return record(dev, call);
}
ot_status ot_set_stream_channel_mask(ot_device* dev, uint8_t mask) {
  return record(dev, text("set_stream_channel_mask ", +mask));
}
ot_status ot_set_stream_interface(ot_device* dev, ot_transport transport, ot_format format) {
  return record(dev, text("set_stream_interface ", transport, ' ', format));
}

ot_status ot_start_stream_mode(ot_device* dev, ot_mode mode, uint8_t tdl_index) {
  return record(dev, text("start ", mode, ' ', +tdl_index));
}
ot_status ot_read_stream_bytes(ot_device* dev, uint8_t* buffer, uint64_t capacity, uint64_t* got,
                               int timeout_ms) {
  auto& reads = script().reads;
  if (reads.empty()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return OT_ERR_TIMEOUT;
  }
  record(dev, text("read ", capacity, ' ', timeout_ms, '/', *got));
  const auto [status, bytes, claimed] = std::move(reads.front());
  reads.erase(reads.begin());
  *got = bytes.size() + claimed;
  std::memcpy(buffer, bytes.data(), std::min<std::size_t>(bytes.size(), capacity));
  return status;
}
ot_status ot_stop_stream_mode(ot_device* dev, int stop_flag) {
  return record(dev, text("stop ", stop_flag));
}

}  // extern "C"
