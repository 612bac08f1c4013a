// An Error as one text that compares and prints.
#pragma once

#include <string>

#include "orvo/timing/error.h"

namespace orvo::tests {

/// "message [status]" of the Error that `action` throws, or "no error".
template <typename Action>
std::string error_of(const Action& action) {
  try {
    action();
  } catch (const timing::Error& error) {
    return std::string(error.what()) + " [" + std::to_string(error.status()) + "]";
  }
  return "no error";
}

}  // namespace orvo::tests
