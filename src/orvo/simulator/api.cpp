// The driver library's operations: checks of arguments and of the protocol in front of the
// driver and the device that do the work.
#include <algorithm>
#include <exception>
#include <new>
#include <string>
#include <utility>

#include "orvo/simulator/call.h"
#include "orvo/simulator/statuses.h"
#include "orvo/timing/device/ot_api.h"

namespace {

using orvo::simulator::Call;
using orvo::simulator::Device;
using orvo::simulator::Driver;
using orvo::simulator::Operation;
using orvo::simulator::Outcome;
using orvo::simulator::StreamDuty;

/// No exception leaves an operation that has a status.
template <typename Work>
ot_status guarded(Work work) noexcept {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    return orvo::simulator::kNoMemory;
  } catch (const std::exception&) {
    return OT_ERR_IO;
  }
}

/// Opens unless the call is to fail; a handle of a failed call is closed again.
ot_status open_device(Operation operation, ot_device** out, const char* port, int baud) {
  return guarded([&] {
    Call call(operation);
    if (port != nullptr) call.note("port", port);
    if (operation == Operation::open) call.note("baud", std::to_string(baud));
    call.misuse_if(out == nullptr, "null out");
    call.misuse_if(out != nullptr && *out != nullptr, "*out is not preset to null");
    call.misuse_if(port == nullptr, "null port");
    if (out == nullptr || port == nullptr || baud <= 0) return call.finish(OT_ERR_ARGUMENT);
    ot_device* device = nullptr;
    Outcome outcome;
    if (call.takes_effect()) outcome = call.driver().open(device, port);
    outcome = call.result(outcome);
    if (outcome.status == OT_OK) {
      call.driver().say_simulated();
      *out = device;
    } else if (device != nullptr) {
      Driver::close(*device);
    }
    return call.finish(outcome.status);
  });
}

ot_status handle_status(Call& call, const ot_device* dev) {
  call.misuse_if(dev == nullptr, "null device");
  if (dev == nullptr) return OT_ERR_ARGUMENT;
  const bool known = call.driver().knows(dev);
  call.misuse_if(!known, "unknown device");
  if (!known) return OT_ERR_ARGUMENT;
  call.misuse_if(!dev->device, "called after the close");
  return dev->device ? OT_OK : OT_ERR_NOT_OPEN;
}

/// Runs `work(call, device)` when the handle is good and `check(call)` finds no null argument, and
/// `after(status)` in the end.
template <typename Check, typename Work, typename After>
ot_status on_device(Operation operation, ot_device* dev, Check check, Work work, After after) {
  return guarded([&] {
    Call call(operation);
    if (const ot_status status = handle_status(call, dev); status != OT_OK) {
      return call.finish(status);
    }
    if (!check(call)) {
      dev->last_error = "null argument";
      return call.finish(OT_ERR_ARGUMENT);
    }
    Outcome outcome;
    if (call.takes_effect()) outcome = work(call, *dev->device);
    const bool timeout = outcome.status == OT_ERR_TIMEOUT && call.failure() == nullptr;
    outcome = call.result(std::move(outcome));
    if (outcome.status != OT_OK && !timeout) dev->last_error = outcome.detail;
    after(outcome.status);
    return call.finish(outcome.status);
  });
}

constexpr auto kNothing = [](ot_status) {};

/// As on_device(), for an operation that sets up the next stream.
template <typename Check, typename Work, typename After = decltype(kNothing)>
ot_status on_idle_device(Operation operation, ot_device* dev, Check check, Work work,
                         After after = kNothing) {
  return on_device(
      operation, dev,
      [&](Call& call) {
        call.misuse_if(dev->duty != StreamDuty::none, "a stream is running");
        return check(call);
      },
      [&](Call& /*call*/, Device& device) { return work(device); }, after);
}

bool is_zero(const ot_identity& identity) {
  const char* const bytes = reinterpret_cast<const char*>(&identity);
  return std::all_of(bytes, bytes + sizeof identity, [](char byte) { return byte == 0; });
}

bool list_is_good(Call& call, const ot_discovery_list* list) {
  const bool good = list != nullptr && call.driver().knows(list) && !list->freed;
  call.misuse_if(!good, "no such discovery list, or freed already");
  return good;
}

const ot_discovery_list::Entry* entry_at(Operation operation, const ot_discovery_list* list,
                                         std::uint64_t index) {
  Call call(operation);
  call.note("index", std::to_string(index));
  if (!list_is_good(call, list)) return nullptr;
  const bool inside = index < list->entries.size();
  call.misuse_if(!inside, "index out of range");
  return inside ? &list->entries[index] : nullptr;
}

}  // namespace

extern "C" {

ot_status ot_open(ot_device** out, const char* port, int baud) {
  return open_device(Operation::open, out, port, baud);
}

ot_status ot_open_serial(ot_device** out, const char* port) {
  constexpr int kBaud = 3000000;
  return open_device(Operation::open_serial, out, port, kBaud);
}

// A close that fails releases the handle all the same.
ot_status ot_close(ot_device* dev) {
  return guarded([&] {
    Call call(Operation::close);
    if (const ot_status status = handle_status(call, dev); status != OT_OK) {
      return call.finish(status);
    }
    call.misuse_if(dev->duty == StreamDuty::running, "closed while a stream is running");
    Driver::close(*dev);
    return call.finish(call.result({}).status);
  });
}

ot_status ot_discover(ot_discovery_list** out) {
  return guarded([&] {
    Call call(Operation::discover);
    call.misuse_if(out == nullptr, "null out");
    call.misuse_if(out != nullptr && *out != nullptr, "*out is not preset to null");
    if (out == nullptr) return call.finish(OT_ERR_ARGUMENT);
    ot_discovery_list* list = nullptr;
    Outcome outcome;
    if (call.takes_effect()) outcome = call.driver().discover(list);
    outcome = call.result(outcome);
    if (outcome.status == OT_OK) {
      *out = list;
    } else if (list != nullptr) {
      list->freed = true;
    }
    return call.finish(outcome.status);
  });
}

uint64_t ot_discover_count(ot_discovery_list* list) {
  Call call(Operation::discover_count);
  if (!list_is_good(call, list)) return 0;
  call.note("count", std::to_string(list->entries.size()));
  return list->entries.size();
}

const char* ot_discover_port(ot_discovery_list* list, uint64_t index) {
  const auto* const entry = entry_at(Operation::discover_port, list, index);
  return entry == nullptr ? nullptr : entry->port.c_str();
}

const ot_identity* ot_discover_identity(ot_discovery_list* list, uint64_t index) {
  const auto* const entry = entry_at(Operation::discover_identity, list, index);
  return entry == nullptr ? nullptr : &entry->identity;
}

void ot_discover_free(ot_discovery_list* list) {
  Call call(Operation::discover_free);
  if (list_is_good(call, list)) list->freed = true;
}

ot_status ot_identify(ot_device* dev, ot_identity* out) {
  return on_device(
      Operation::identify, dev,
      [&](Call& call) {
        call.misuse_if(out == nullptr, "null out");
        call.misuse_if(out != nullptr && !is_zero(*out), "*out is not preset to zero");
        return out != nullptr;
      },
      [&](Call& /*call*/, Device& device) {
        *out = device.identity();
        return Outcome{};
      },
      kNothing);
}

const char* ot_last_error(const ot_device* dev) {
  Call call(Operation::last_error);
  return handle_status(call, dev) == OT_OK ? dev->last_error.c_str() : nullptr;
}

const char* ot_status_string(ot_status status) {
  Call call(Operation::status_string);
  call.note("of", std::to_string(status));
  return orvo::simulator::status_text(status);
}

ot_status ot_set_calibration_freq(ot_device* dev, double freq_hz, uint32_t* divider_out) {
  return on_idle_device(
      Operation::set_calibration_freq, dev,
      [&](Call& call) {
        call.note("freq_hz", std::to_string(freq_hz));
        call.misuse_if(divider_out == nullptr, "null divider_out");
        call.misuse_if(divider_out != nullptr && *divider_out != 0, "divider is not preset to 0");
        return divider_out != nullptr;
      },
      [&](Device& device) { return device.set_calibration_freq(freq_hz, *divider_out); });
}

ot_status ot_set_packed_delta_config(ot_device* dev, uint8_t delta_bits, uint16_t quantum_ps,
                                     uint8_t* effective_bits, uint16_t* effective_quantum_ps) {
  return on_idle_device(
      Operation::set_packed_delta_config, dev,
      [&](Call& call) {
        call.note("bits", std::to_string(delta_bits));
        call.note("quantum_ps", std::to_string(quantum_ps));
        const bool null = effective_bits == nullptr || effective_quantum_ps == nullptr;
        call.misuse_if(null, "null output");
        call.misuse_if(!null && (*effective_bits != 16 || *effective_quantum_ps != 8),
                       "outputs are not preset to 16 and 8");
        return !null;
      },
      [&](Device& device) {
        *effective_bits = delta_bits;
        *effective_quantum_ps = quantum_ps;
        return device.set_packed_delta_config(*effective_bits, *effective_quantum_ps);
      });
}

ot_status ot_set_stream_channel_mask(ot_device* dev, uint8_t mask) {
  return on_idle_device(
      Operation::set_stream_channel_mask, dev,
      [&](Call& call) {
        call.note("mask", std::to_string(mask));
        return true;
      },
      [&](Device& device) { return device.set_channel_mask(mask); });
}

ot_status ot_set_stream_interface(ot_device* dev, ot_transport transport, ot_format format) {
  return on_idle_device(
      Operation::set_stream_interface, dev,
      [&](Call& call) {
        call.note("transport", std::to_string(transport));
        call.note("format", std::to_string(format));
        return true;
      },
      [&](Device& device) { return device.set_interface(transport, format); });
}

ot_status ot_start_stream_mode(ot_device* dev, ot_mode mode, uint8_t tdl_index) {
  return on_idle_device(
      Operation::start_stream_mode, dev,
      [&](Call& call) {
        call.note("mode", std::to_string(mode));
        call.note("tdl_index", std::to_string(tdl_index));
        return true;
      },
      [&](Device& device) { return device.start(mode); },
      [&](ot_status status) {
        if (status == OT_OK) {
          dev->duty = StreamDuty::running;
        } else if (dev->duty == StreamDuty::none && dev->device->streaming()) {
          dev->device->stop(0);  // a start that fails leaves no stream behind
        }
      });
}

ot_status ot_read_stream_bytes(ot_device* dev, uint8_t* buffer, uint64_t capacity, uint64_t* got,
                               int timeout_ms) {
  return on_device(
      Operation::read_stream_bytes, dev,
      [&](Call& call) {
        call.note("capacity", std::to_string(capacity));
        call.note("timeout_ms", std::to_string(timeout_ms));
        const bool null = got == nullptr || (buffer == nullptr && capacity != 0);
        call.misuse_if(null, "null buffer or count");
        call.misuse_if(!null && *got != 0, "count is not preset to 0");
        call.misuse_if(dev->duty != StreamDuty::running, "no stream is running");
        return !null;
      },
      [&](Call& call, Device& device) {
        Outcome outcome = device.read({buffer, capacity}, *got, timeout_ms);
        call.note("got", std::to_string(*got));
        return outcome;
      },
      kNothing);
}

ot_status ot_stop_stream_mode(ot_device* dev, int stop_flag) {
  return on_device(
      Operation::stop_stream_mode, dev,
      [&](Call& call) {
        call.note("stop_flag", std::to_string(stop_flag));
        call.misuse_if(dev->duty == StreamDuty::none, "no stream is running");
        call.misuse_if(dev->duty == StreamDuty::stop_failed && stop_flag != 0,
                       "a stop that failed is repeated with flag 0");
        return true;
      },
      [&](Call& /*call*/, Device& device) { return device.stop(stop_flag); },
      [&](ot_status status) {
        const bool again = status != OT_OK && dev->duty == StreamDuty::running;
        dev->duty = again ? StreamDuty::stop_failed : StreamDuty::none;
      });
}

}  // extern "C"
