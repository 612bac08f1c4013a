// The exceptions of the timing layer; the tool throws Error for its own files too.
//
// Threads: an exception is a value, and may pass from one thread to another.
#pragma once

#include <cstddef>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "orvo/timing/ot_status.h"

namespace orvo::timing {

/// A failed operation: what() is the complete message, status() the value that caused it.
class Error : public std::runtime_error {
 public:
  /// `message` is complete; no operation is recorded.
  Error(ot_status status, const std::string& message)
      : std::runtime_error(message), status_(status) {}

  /// The message is "operation: reason".
  Error(ot_status status, std::string_view operation, std::string_view reason)
      : std::runtime_error(std::string(operation).append(": ").append(reason)),
        status_(status),
        operation_length_(operation.size()) {}

  /// One of ot_status.h, or the status that the driver library returned, unchanged.
  [[nodiscard]] ot_status status() const noexcept { return status_; }

  /// The class or the driver call that failed; empty where the message names none.
  [[nodiscard]] std::string_view operation() const noexcept { return {what(), operation_length_}; }

  /// The message without the operation.
  [[nodiscard]] std::string_view reason() const noexcept {
    return what() + (operation_length_ == 0 ? 0 : operation_length_ + 2);
  }

 private:
  ot_status status_;
  std::size_t operation_length_ = 0;
};

/// A capture or a read-back that was asked to end early, which is no failure of its own.
class Interrupted : public std::exception {
 public:
  [[nodiscard]] const char* what() const noexcept override { return "interrupted"; }
};

/// Asked before each read of a capture or a file, and every 10 ms while a capture waits for the
/// disk; once it returns true, the work ends with Interrupted. May be empty.
using InterruptionCheck = std::function<bool()>;

inline void throw_if(const InterruptionCheck& interrupted) {
  if (interrupted && interrupted()) {
    throw Interrupted();
  }
}

}  // namespace orvo::timing
