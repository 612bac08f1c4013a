// One call of the driver library, from its beginning to its end: counted, recorded in the ledger,
// and failed where ORVO_SIM says so.
//
// Threads: a call holds the driver's lock.
// Errors: no exception leaves a call; one refuses it with the status kNoMemory or OT_ERR_IO.
#pragma once

#include <exception>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>

#include "orvo/simulator/driver.h"

namespace orvo::simulator {

class Call {
 public:
  /// `operation`: its name in the interface, which outlives the driver.
  explicit Call(std::string_view operation);
  /// Adds the call's line to the ledger.
  ~Call();
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  [[nodiscard]] Driver& driver() const { return driver_; }

  /// Adds an argument or a result to the call's line.
  template <typename Value>
  void note(const char* name, const Value& value) {
    guard([&] {
      notes_.append(" ").append(name).append("=");
      if constexpr (std::is_arithmetic_v<Value>) {
        notes_ += std::to_string(value);
      } else {
        notes_ += value;
      }
    });
  }

  /// Records `misuse` unless `condition` holds; returns whether it holds.
  bool expect(bool condition, const char* misuse);
  /// As expect(); moreover, refuses the call with OT_ERR_ARGUMENT unless `condition` holds.
  bool require(bool condition, const char* misuse);
  /// The call does no work and reports `status`, not OT_OK.
  void refuse(ot_status status) { refused_ = status; }

  /// Does the work, which returns an Outcome, unless the call is refused or fails without effect;
  /// then finishes the call.
  template <typename Work>
  ot_status perform(Work work) {
    Outcome outcome;
    const bool takes_effect = failure_ == nullptr || failure_->effect;
    if (refused_ == OT_OK && takes_effect) {
      guard([&] { outcome = work(); });
    }
    return finish(outcome);
  }

  /// Adds the status to the call's line and returns it: the one it was refused with, or that
  /// ORVO_SIM says, or that of `outcome`.
  ot_status finish(const Outcome& outcome = {});

 protected:
  ot_device* handle_ = nullptr;  // whose last error is kept

 private:
  template <typename Action>
  void guard(Action action) noexcept {
    try {
      action();
    } catch (const std::bad_alloc&) {
      refuse(kNoMemory);
    } catch (const std::exception&) {
      refuse(OT_ERR_IO);
    }
  }

  void begin(std::string_view operation);

  Driver& driver_;
  std::lock_guard<std::mutex> lock_;
  std::string label_;
  std::string notes_;
  ot_status refused_ = OT_OK;
  const Failure* failure_ = nullptr;  // that ORVO_SIM has for this call
};

/// A call on a device.
class DeviceCall : public Call {
 public:
  /// Refuses the call, as a misuse, unless `handle` is that of an open device.
  DeviceCall(std::string_view operation, const ot_device* handle);

  [[nodiscard]] bool has_device() const { return handle_ != nullptr; }

  void expect_idle() { expect(handle_->stream == StreamState::idle, "a stream is running"); }

  /// As Call's, with the device as the argument of `work`.
  template <typename Work>
  ot_status perform(Work work) {
    return Call::perform([&] { return work(*handle_->device); });
  }
};

}  // namespace orvo::simulator
