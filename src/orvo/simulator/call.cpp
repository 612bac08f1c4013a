#include "orvo/simulator/call.h"

#include <algorithm>

namespace orvo::simulator {
namespace {

/// The number of the calling thread, from 1 in the order of first calls.
std::size_t thread_number(std::vector<std::thread::id>& threads) {
  const auto found = std::find(threads.begin(), threads.end(), std::this_thread::get_id());
  if (found != threads.end()) {
    return static_cast<std::size_t>(found - threads.begin()) + 1;
  }
  threads.push_back(std::this_thread::get_id());
  return threads.size();
}

}  // namespace

Call::Call(std::string_view operation) : driver_(Driver::instance()), lock_(driver_.mutex) {
  guard([&] { begin(operation); });
}

Call::~Call() {
  guard([&] { driver_.ledger.call(label_ + notes_); });
}

void Call::begin(std::string_view operation) {
  const bool loads =
      operation == "ot_discover" || operation.starts_with("ot_open") || driver_.threads.empty();
  if (loads) {
    driver_.load_settings();
  }
  const std::uint64_t number = ++driver_.calls[operation];
  const std::size_t thread = thread_number(driver_.threads);
  label_ =
      std::string(operation) + " k=" + std::to_string(number) + " thread=" + std::to_string(thread);
  for (const Failure& failure : driver_.settings().failures) {
    const bool due = failure.always ? number >= failure.call : number == failure.call;
    if (failure.operation == operation && due) {
      failure_ = &failure;
    }
  }
  expect(thread == 1 || operation == "ot_status_string", "called from a second thread");
}

bool Call::expect(bool condition, const char* misuse) {
  if (!condition) {
    guard([&] { driver_.ledger.misuse(label_ + ": " + misuse); });
  }
  return condition;
}

bool Call::require(bool condition, const char* misuse) {
  if (!condition) {
    refuse(OT_ERR_ARGUMENT);
  }
  return expect(condition, misuse);
}

ot_status Call::finish(const Outcome& outcome) {
  ot_status status = outcome.status;
  const char* detail = outcome.detail.c_str();
  if (refused_ != OT_OK) {
    status = refused_;
    detail = status == OT_ERR_ARGUMENT ? "null argument" : "";
  } else if (failure_ != nullptr) {
    status = failure_->status;
    detail = failure_->detail.c_str();
  }
  // A read that met no data has not failed.
  const bool failed = status != OT_OK && (status != OT_ERR_TIMEOUT || failure_ != nullptr);
  if (handle_ != nullptr && failed) {
    guard([&] { handle_->last_error = detail; });
  }
  note("status", status);
  if (failure_ != nullptr) {
    guard([&] { notes_ += failure_->effect ? " commanded after its effect" : " commanded"; });
  }
  return status;
}

DeviceCall::DeviceCall(std::string_view operation, const ot_device* handle) : Call(operation) {
  ot_device* const known = driver().find(handle);
  if (known == nullptr) {
    require(false, handle == nullptr ? "null device" : "unknown device");
  } else if (expect(known->device.has_value(), "called after the close")) {
    handle_ = known;
  } else {
    refuse(OT_ERR_NOT_OPEN);
  }
}

}  // namespace orvo::simulator
