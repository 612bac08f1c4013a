// What was found in a run as documents: for people and for programs. No state; any thread may call.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "orvo/inspection/report/findings.h"

namespace orvo::inspection {

struct Labels {
  std::string title;  ///< may be empty
  std::string made;   ///< when
};

/// report.html filled: one self-contained document. Strings of unknown origin are text in it.
[[nodiscard]] std::string page_of(const Findings& findings, const Labels& labels);

/// The numbers: results, and of each channel the deviations by column of time and by value, and the
/// skew. Strings are as the files have them.
[[nodiscard]] nlohmann::ordered_json data_of(const Findings& findings, const Labels& labels);

}  // namespace orvo::inspection
