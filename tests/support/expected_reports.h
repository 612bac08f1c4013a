// The reports as they must be, told from nothing but the settings and the recorded streams.
#pragma once

#include <filesystem>
#include <string>

#include "orvo/verification/config.h"

namespace orvo::tests {

struct ExpectedReports {
  std::string csv;
  std::string json;
  std::string summary;
  bool pass = true;
};

[[nodiscard]] ExpectedReports expected_reports(const verification::Config& config,
                                               const std::filesystem::path& run_dir);

}  // namespace orvo::tests
