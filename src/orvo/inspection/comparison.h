// A run judged again from its recording: its numbers as the tool reports them, and where report and
// recording disagree. Plain values; any thread may call.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "orvo/verification/evaluation.h"

namespace orvo::inspection {

/// What `reported` has of a run with what its recording holds, judged by `settings`; without a size
/// it has no payload_bytes.
[[nodiscard]] verification::RunResult judge_again(const verification::RunResult& reported,
                                                  const verification::TagStatistics& recorded,
                                                  std::optional<std::uint64_t> payload_bytes,
                                                  const verification::EvaluationSettings& settings);

/// A number with the digits that it has in the tool's reports.
struct NamedNumber {
  std::string name;
  std::string digits;
};

[[nodiscard]] std::vector<NamedNumber> numbers_of(const verification::RunResult& run);
[[nodiscard]] std::vector<NamedNumber> numbers_of(const verification::ChannelResult& channel);
[[nodiscard]] nlohmann::ordered_json json_of(const std::vector<NamedNumber>& numbers);

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

/// Options that may explain what differs, given as they were in the run: where it is verdicts
/// alone, those of settings that a report rounds or does not hold.
[[nodiscard]] const char* options_behind(const std::vector<Difference>& differences);

}  // namespace orvo::inspection
