#include "support/scripted_driver.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <sstream>

struct ot_device {};
struct ot_discovery_list {};

namespace orvo::tests {
namespace {

ScriptedDriver* current = nullptr;
ot_device the_device;
ot_discovery_list the_list;

/// "name a b c"
template <typename... Values>
std::string line(const char* name, const Values&... values) {
  std::ostringstream text;
  text << name;
  ((text << ' ' << values), ...);
  return text.str();
}

std::string quoted(const char* text) { return '"' + std::string(text) + '"'; }

const char* preset(const void* pointer) { return pointer == nullptr ? "null" : "garbage"; }

const char* or_null(const std::optional<std::string>& text) {
  return text ? text->c_str() : nullptr;
}

ot_status open(const std::string& call, ot_device** out) {
  const ot_status status = scripted_driver().record(call + " preset " + preset(*out));
  if (status == OT_OK) {
    *out = &the_device;
  }
  return status;
}

}  // namespace

ScriptedDriver::ScriptedDriver() { current = this; }
ScriptedDriver::~ScriptedDriver() { current = nullptr; }

ScriptedDriver& scripted_driver() {
  if (current == nullptr) {
    std::abort();  // a driver call outside any script
  }
  return *current;
}

std::size_t ScriptedDriver::count(std::string_view call) const {
  return static_cast<std::size_t>(std::count_if(
      calls.begin(), calls.end(), [&](const std::string& made) { return made.starts_with(call); }));
}

ot_status ScriptedDriver::record(const std::string& call, bool valid) {
  const bool as_agreed = valid && std::this_thread::get_id() == owner_;
  calls.push_back(as_agreed ? call : '!' + call);
  const auto failure =
      std::find_if(failures.begin(), failures.end(),
                   [&](const ScriptedFailure& f) { return call.starts_with(f.call); });
  return failure == failures.end() ? OT_OK : failure->status;
}

ot_status ScriptedDriver::read(bool valid, std::uint8_t* buffer, std::uint64_t capacity,
                               std::uint64_t& got, int timeout_ms) {
  if (next_read_ == reads.size()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return status_after_reads;
  }
  record(line("ot_read_stream_bytes", capacity, timeout_ms, "preset", got), valid);
  const ScriptedRead& next = reads[next_read_++];
  got = next.bytes.size();
  std::memcpy(buffer, next.bytes.data(), std::min<std::size_t>(next.bytes.size(), capacity));
  return next.status;
}

}  // namespace orvo::tests

using orvo::tests::scripted_driver;
namespace script = orvo::tests;

extern "C" {

ot_status ot_open(ot_device** out, const char* port, int baud) {
  return script::open(script::line("ot_open", script::quoted(port), baud), out);
}

ot_status ot_open_serial(ot_device** out, const char* port) {
  return script::open(script::line("ot_open_serial", script::quoted(port)), out);
}

ot_status ot_close(ot_device* dev) {
  return scripted_driver().record("ot_close", dev == &script::the_device);
}

ot_status ot_discover(ot_discovery_list** out) {
  const ot_status status =
      scripted_driver().record(script::line("ot_discover", "preset", script::preset(*out)));
  if (status == OT_OK) {
    *out = &script::the_list;
  }
  return status;
}

uint64_t ot_discover_count(ot_discovery_list* list) {
  scripted_driver().record("ot_discover_count", list == &script::the_list);
  return scripted_driver().instruments.size();
}

const char* ot_discover_port(ot_discovery_list* list, uint64_t index) {
  scripted_driver().record(script::line("ot_discover_port", index), list == &script::the_list);
  return script::or_null(scripted_driver().instruments.at(index).port);
}

const ot_identity* ot_discover_identity(ot_discovery_list* list, uint64_t index) {
  scripted_driver().record(script::line("ot_discover_identity", index), list == &script::the_list);
  const auto& identity = scripted_driver().instruments.at(index).identity;
  return identity ? &*identity : nullptr;
}

void ot_discover_free(ot_discovery_list* list) {
  scripted_driver().record("ot_discover_free", list == &script::the_list);
}

ot_status ot_identify(ot_device* dev, ot_identity* out) {
  *out = {};
  return scripted_driver().record("ot_identify", dev == &script::the_device);
}

const char* ot_last_error(const ot_device* dev) {
  scripted_driver().record("ot_last_error", dev == &script::the_device);
  return script::or_null(scripted_driver().detail_text);
}

const char* ot_status_string(ot_status status) {
  scripted_driver().record(script::line("ot_status_string", status));
  return script::or_null(scripted_driver().status_text);
}

ot_status ot_set_calibration_freq(ot_device* dev, double freq_hz, uint32_t* divider_out) {
  const std::string call = script::line("ot_set_calibration_freq", freq_hz, "preset", *divider_out);
  *divider_out = 1;
  return scripted_driver().record(call, dev == &script::the_device);
}

ot_status ot_set_packed_delta_config(ot_device* dev, uint8_t delta_bits, uint16_t quantum_ps,
                                     uint8_t* effective_bits, uint16_t* effective_quantum_ps) {
  const std::string call =
      script::line("ot_set_packed_delta_config", unsigned{delta_bits}, quantum_ps, "preset",
                   unsigned{*effective_bits}, *effective_quantum_ps);
  *effective_bits = scripted_driver().effective_bits.value_or(*effective_bits);
  *effective_quantum_ps = scripted_driver().effective_quantum_ps.value_or(*effective_quantum_ps);
  return scripted_driver().record(call, dev == &script::the_device);
}

ot_status ot_set_stream_channel_mask(ot_device* dev, uint8_t mask) {
  std::ostringstream call;
  call << "ot_set_stream_channel_mask 0x" << std::hex << unsigned{mask};
  return scripted_driver().record(call.str(), dev == &script::the_device);
}

ot_status ot_set_stream_interface(ot_device* dev, ot_transport transport, ot_format format) {
  return scripted_driver().record(script::line("ot_set_stream_interface", transport, format),
                                  dev == &script::the_device);
}

ot_status ot_start_stream_mode(ot_device* dev, ot_mode mode, uint8_t tdl_index) {
  return scripted_driver().record(script::line("ot_start_stream_mode", mode, unsigned{tdl_index}),
                                  dev == &script::the_device);
}

ot_status ot_read_stream_bytes(ot_device* dev, uint8_t* buffer, uint64_t capacity, uint64_t* got,
                               int timeout_ms) {
  return scripted_driver().read(dev == &script::the_device, buffer, capacity, *got, timeout_ms);
}

ot_status ot_stop_stream_mode(ot_device* dev, int stop_flag) {
  return scripted_driver().record(script::line("ot_stop_stream_mode", stop_flag),
                                  dev == &script::the_device);
}

}  // extern "C"
