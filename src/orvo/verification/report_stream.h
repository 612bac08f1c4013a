// What the three reports share: opening a file and writing numbers and booleans.
#pragma once

#include <filesystem>
#include <fstream>
#include <iomanip>
#include <ostream>

#include "orvo/timing/error.h"

namespace orvo::verification {

/// `value` with exactly `decimals` digits after the point; leaves the stream in fixed notation.
struct Fixed {
  double value;
  int decimals;
};

inline std::ostream& operator<<(std::ostream& out, Fixed number) {
  return out << std::fixed << std::setprecision(number.decimals) << number.value;
}

[[nodiscard]] inline const char* true_or_false(bool value) { return value ? "true" : "false"; }

/// Creates or truncates `path`; throws timing::Error with `failure_message` when that fails.
[[nodiscard]] inline std::ofstream open_report(const std::filesystem::path& path,
                                               const char* failure_message) {
  std::ofstream file(path);
  if (!file) {
    throw timing::Error(OT_ERR_IO, failure_message);
  }
  return file;
}

}  // namespace orvo::verification
