// The C interface of the driver library. Each operation checks its arguments and the protocol, and
// has the driver or the device do the work.
#include <algorithm>
#include <optional>

#include "orvo/simulator/call.h"
#include "orvo/timing/device/ot_api.h"

namespace {

using orvo::simulator::Call;
using orvo::simulator::Device;
using orvo::simulator::DeviceCall;
using orvo::simulator::Outcome;
using orvo::simulator::StreamState;

struct StatusText {
  ot_status status;
  const char* text;
};

constexpr StatusText kStatusTexts[] = {
    {OT_OK, "ok"},
    {OT_ERR_ARGUMENT, "invalid argument"},
    {OT_ERR_IO, "input/output failure"},
    {OT_ERR_TIMEOUT, "timeout"},
    {OT_ERR_FORMAT, "unexpected format"},
    {OT_ERR_NOT_FOUND, "not found"},
    {OT_ERR_NOT_OPEN, "not open"},
    {orvo::simulator::kBusy, "busy"},
    {orvo::simulator::kBadSettings, "bad simulator settings"},
    {orvo::simulator::kNoMemory, "out of memory"},
};

ot_status open_device(const char* operation, ot_device** out, const char* port,
                      std::optional<int> baud) {
  Call call(operation);
  if (port != nullptr) {
    call.note("port", port);
  }
  if (baud) {
    call.note("baud", *baud);
  }
  if (out != nullptr) {
    call.expect(*out == nullptr, "*out is not preset to null");
  }
  call.require(out != nullptr, "null out");
  call.require(port != nullptr, "null port");
  if (baud && *baud <= 0) {
    call.refuse(OT_ERR_ARGUMENT);
  }
  ot_device* device = nullptr;
  const ot_status status = call.perform([&] { return call.driver().open(device, port); });
  if (out != nullptr && status == OT_OK) {
    call.driver().say_simulated();
    *out = device;
  } else if (device != nullptr) {
    device->device.reset();
  }
  return status;
}

bool is_zero(const ot_identity& identity) {
  const char* const bytes = reinterpret_cast<const char*>(&identity);
  return std::all_of(bytes, bytes + sizeof identity, [](char byte) { return byte == 0; });
}

/// Null, as a misuse, for a list that was freed or never given out.
ot_discovery_list* find_list(Call& call, const ot_discovery_list* list) {
  ot_discovery_list* const found = call.driver().find(list);
  const bool good = found != nullptr && !found->freed;
  return call.expect(good, "no such discovery list, or freed already") ? found : nullptr;
}

const ot_discovery_list::Entry* find_entry(Call& call, const ot_discovery_list* list,
                                           std::uint64_t index) {
  call.note("index", index);
  const ot_discovery_list* const found = find_list(call, list);
  if (found == nullptr) {
    return nullptr;
  }
  const bool inside = call.expect(index < found->entries.size(), "index out of range");
  return inside ? &found->entries[index] : nullptr;
}

}  // namespace

extern "C" {

ot_status ot_open(ot_device** out, const char* port, int baud) {
  return open_device(__func__, out, port, baud);
}

ot_status ot_open_serial(ot_device** out, const char* port) {
  return open_device(__func__, out, port, std::nullopt);
}

// A close that fails releases the handle all the same.
ot_status ot_close(ot_device* dev) {
  DeviceCall call(__func__, dev);
  if (!call.has_device()) {
    return call.finish();
  }
  call.expect(dev->stream != StreamState::running, "closed while a stream is running");
  dev->device.reset();
  return call.finish();
}

ot_status ot_discover(ot_discovery_list** out) {
  Call call(__func__);
  if (out != nullptr) {
    call.expect(*out == nullptr, "*out is not preset to null");
  }
  call.require(out != nullptr, "null out");
  ot_discovery_list* list = nullptr;
  const ot_status status = call.perform([&] { return call.driver().discover(list); });
  if (out != nullptr && status == OT_OK) {
    *out = list;
  } else if (list != nullptr) {
    list->freed = true;
  }
  return status;
}

uint64_t ot_discover_count(ot_discovery_list* list) {
  Call call(__func__);
  const ot_discovery_list* const found = find_list(call, list);
  if (found == nullptr) {
    return 0;
  }
  call.note("count", found->entries.size());
  return found->entries.size();
}

const char* ot_discover_port(ot_discovery_list* list, uint64_t index) {
  Call call(__func__);
  const auto* const entry = find_entry(call, list, index);
  return entry == nullptr ? nullptr : entry->port.c_str();
}

const ot_identity* ot_discover_identity(ot_discovery_list* list, uint64_t index) {
  Call call(__func__);
  const auto* const entry = find_entry(call, list, index);
  return entry == nullptr ? nullptr : &entry->identity;
}

void ot_discover_free(ot_discovery_list* list) {
  Call call(__func__);
  ot_discovery_list* const found = find_list(call, list);
  if (found != nullptr) {
    found->freed = true;
  }
}

ot_status ot_identify(ot_device* dev, ot_identity* out) {
  DeviceCall call(__func__, dev);
  if (!call.has_device()) {
    return call.finish();
  }
  if (out != nullptr) {
    call.expect(is_zero(*out), "*out is not preset to zero");
  }
  call.require(out != nullptr, "null out");
  return call.perform([&](const Device& device) {
    *out = device.identity();
    return Outcome{};
  });
}

const char* ot_last_error(const ot_device* dev) {
  const DeviceCall call(__func__, dev);
  return call.has_device() ? dev->last_error.c_str() : nullptr;
}

const char* ot_status_string(ot_status status) {
  Call call(__func__);
  call.note("of", status);
  for (const StatusText& known : kStatusTexts) {
    if (known.status == status) {
      return known.text;
    }
  }
  return "unknown status";
}

ot_status ot_set_calibration_freq(ot_device* dev, double freq_hz, uint32_t* divider_out) {
  DeviceCall call(__func__, dev);
  if (!call.has_device()) {
    return call.finish();
  }
  call.note("freq_hz", freq_hz);
  call.expect_idle();
  if (divider_out != nullptr) {
    call.expect(*divider_out == 0, "divider is not preset to 0");
  }
  call.require(divider_out != nullptr, "null divider_out");
  return call.perform(
      [&](Device& device) { return device.set_calibration_freq(freq_hz, *divider_out); });
}

ot_status ot_set_packed_delta_config(ot_device* dev, uint8_t delta_bits, uint16_t quantum_ps,
                                     uint8_t* effective_bits, uint16_t* effective_quantum_ps) {
  DeviceCall call(__func__, dev);
  if (!call.has_device()) {
    return call.finish();
  }
  call.note("bits", delta_bits);
  call.note("quantum_ps", quantum_ps);
  call.expect_idle();
  if (effective_bits != nullptr && effective_quantum_ps != nullptr) {
    call.expect(*effective_bits == 16 && *effective_quantum_ps == 8,
                "outputs are not preset to 16 and 8");
  }
  call.require(effective_bits != nullptr && effective_quantum_ps != nullptr, "null output");
  return call.perform([&](Device& device) {
    *effective_bits = delta_bits;
    *effective_quantum_ps = quantum_ps;
    return device.set_packed_delta_config(*effective_bits, *effective_quantum_ps);
  });
}

ot_status ot_set_stream_channel_mask(ot_device* dev, uint8_t mask) {
  DeviceCall call(__func__, dev);
  if (!call.has_device()) {
    return call.finish();
  }
  call.note("mask", mask);
  call.expect_idle();
  return call.perform([&](Device& device) { return device.set_channel_mask(mask); });
}

ot_status ot_set_stream_interface(ot_device* dev, ot_transport transport, ot_format format) {
  DeviceCall call(__func__, dev);
  if (!call.has_device()) {
    return call.finish();
  }
  call.note("transport", transport);
  call.note("format", format);
  call.expect_idle();
  return call.perform([&](Device& device) { return device.set_interface(transport, format); });
}

ot_status ot_start_stream_mode(ot_device* dev, ot_mode mode, uint8_t tdl_index) {
  DeviceCall call(__func__, dev);
  if (!call.has_device()) {
    return call.finish();
  }
  call.note("mode", mode);
  call.note("tdl_index", tdl_index);
  call.expect_idle();
  const ot_status status = call.perform([&](Device& device) { return device.start(mode); });
  if (status == OT_OK) {
    dev->stream = StreamState::running;
  } else if (dev->stream == StreamState::idle && dev->device->streaming()) {
    dev->device->stop(0);  // a start that fails leaves no stream running
  }
  return status;
}

ot_status ot_read_stream_bytes(ot_device* dev, uint8_t* buffer, uint64_t capacity, uint64_t* got,
                               int timeout_ms) {
  DeviceCall call(__func__, dev);
  if (!call.has_device()) {
    return call.finish();
  }
  call.note("capacity", capacity);
  call.note("timeout_ms", timeout_ms);
  const bool has_buffer = buffer != nullptr || capacity == 0;
  if (got != nullptr) {
    call.expect(*got == 0, "count is not preset to 0");
  }
  call.require(got != nullptr && has_buffer, "null buffer or count");
  call.expect(dev->stream == StreamState::running, "no stream is running");
  return call.perform([&](Device& device) {
    Outcome outcome = device.read({buffer, capacity}, *got, timeout_ms);
    call.note("got", *got);
    return outcome;
  });
}

ot_status ot_stop_stream_mode(ot_device* dev, int stop_flag) {
  DeviceCall call(__func__, dev);
  if (!call.has_device()) {
    return call.finish();
  }
  call.note("stop_flag", stop_flag);
  call.expect(dev->stream != StreamState::idle, "no stream is running");
  call.expect(dev->stream != StreamState::stop_failed || stop_flag == 0,
              "a stop that failed is repeated with flag 0");
  const ot_status status = call.perform([&](Device& device) { return device.stop(stop_flag); });
  const bool again = status != OT_OK && dev->stream == StreamState::running;
  dev->stream = again ? StreamState::stop_failed : StreamState::idle;
  return status;
}

}  // extern "C"
