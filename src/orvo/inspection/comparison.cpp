#include "orvo/inspection/comparison.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

namespace orvo::inspection {

using Numbers = std::vector<NamedNumber>;

verification::RunResult judge_again(const verification::RunResult& reported,
                                    const verification::TagStatistics& recorded,
                                    std::optional<std::uint64_t> payload_bytes,
                                    const verification::EvaluationSettings& settings) {
  verification::RunResult run = verification::judge(
      recorded, verification::derive_rates(reported.divider, settings), settings);
  run.requested_hz = reported.requested_hz;
  run.stream_file = reported.stream_file;
  run.payload_bytes = payload_bytes.value_or(0);
  return run;
}

Numbers numbers_of(const verification::RunResult& run) {
  return {{"requested_hz", fmt::format("{:.3f}", run.requested_hz)},
          {"effective_hz", fmt::format("{:.3f}", run.effective_hz)},
          {"expected_decoded_hz", fmt::format("{:.3f}", run.expected_decoded_hz)},
          {"divider", fmt::to_string(run.divider)},
          {"overflow_required", fmt::to_string(run.overflow_required)},
          {"payload_bytes", fmt::to_string(run.payload_bytes)},
          {"decoded_tags", fmt::to_string(run.decoded_tags)},
          {"pass", fmt::to_string(run.pass)}};
}

Numbers numbers_of(const verification::ChannelResult& channel) {
  return {{"count", fmt::to_string(channel.count)},
          {"first_ps", fmt::to_string(channel.first_ps)},
          {"last_ps", fmt::to_string(channel.last_ps)},
          {"measured_hz", fmt::format("{:.9f}", channel.measured_hz)},
          {"ppm_error", fmt::format("{:.6f}", channel.ppm_error)},
          {"pass", fmt::to_string(channel.pass)}};
}

nlohmann::ordered_json json_of(const Numbers& numbers) {
  auto object = nlohmann::ordered_json::object();
  for (const auto& [name, digits] : numbers) {
    object[name] = nlohmann::ordered_json::parse(digits);
  }
  return object;
}

std::vector<Difference> differences(const verification::RunResult& reported,
                                    const verification::RunResult& decoded, bool with_verdicts) {
  std::vector<Difference> found;
  const auto compare = [&](const std::string& of, const Numbers& old_numbers,
                           const Numbers& new_numbers) {
    for (std::size_t i = 0; i < new_numbers.size(); ++i) {
      const auto& [name, digits] = new_numbers[i];
      if (digits != old_numbers[i].digits && (with_verdicts || name != "pass")) {
        found.push_back({of + name, old_numbers[i].digits, digits});
      }
    }
  };
  compare("", numbers_of(reported), numbers_of(decoded));
  for (std::size_t c = 0; c < verification::kChannels; ++c) {
    compare(fmt::format("ch{} ", c), numbers_of(reported.channels[c]),
            numbers_of(decoded.channels[c]));
  }
  return found;
}

const char* options_behind(const std::vector<Difference>& differences) {
  const bool verdicts_alone =
      std::all_of(differences.begin(), differences.end(),
                  [](const Difference& difference) { return difference.name.ends_with("pass"); });
  return verdicts_alone ? "--min-tags-per-channel or --tolerance-ppm" : "--chunk-bytes";
}

}  // namespace orvo::inspection
