// The numbers of a run as the tool reports them, and where a report and a recording disagree.
// Plain values; any thread may call.
#pragma once

#include <string>
#include <vector>

#include "orvo/verification/evaluation.h"

namespace orvo::inspection {

/// A number with the digits that it has in the tool's reports.
struct NamedNumber {
  std::string name;
  std::string digits;
};

[[nodiscard]] std::vector<NamedNumber> numbers_of(const verification::RunResult& run);
[[nodiscard]] std::vector<NamedNumber> numbers_of(const verification::ChannelResult& channel);

struct Difference {
  std::string name;  ///< "decoded_tags", or "ch0 count" for a number of a channel
  std::string reported;
  std::string decoded;
};

/// What differs in the digits that a report has; verdicts only `with_verdicts`, which makes sense
/// where both were judged by the same settings.
[[nodiscard]] std::vector<Difference> differences(const verification::RunResult& reported,
                                                  const verification::RunResult& decoded,
                                                  bool with_verdicts);

}  // namespace orvo::inspection
