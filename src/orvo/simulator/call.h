// One call of the driver library from its begin to its end: counted, recorded in the ledger, and
// failed where that was commanded. Holds the driver's lock meanwhile.
#pragma once

#include <mutex>
#include <string>

#include "orvo/simulator/driver.h"
#include "orvo/simulator/operation.h"

namespace orvo::simulator {

class Call {
 public:
  explicit Call(Operation operation);
  ~Call();
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  [[nodiscard]] Driver& driver() const { return driver_; }

  /// The failure commanded for this call, or null.
  [[nodiscard]] const Failure* failure() const { return failure_; }
  /// Whether the call is to do its work.
  [[nodiscard]] bool takes_effect() const { return failure_ == nullptr || failure_->effect; }

  void misuse_if(bool wrong, const char* what);
  /// Adds an argument or a result to the ledger's line.
  void note(const char* name, const std::string& value);

  /// The outcome to report: the commanded one, or else `outcome`.
  [[nodiscard]] Outcome result(Outcome outcome);
  ot_status finish(ot_status status);

 private:
  Driver& driver_;
  std::lock_guard<std::mutex> lock_;
  std::string label_;
  std::string notes_;
  const Failure* failure_ = nullptr;
};

}  // namespace orvo::simulator
