#include "orvo/inspection/verify.h"

#include <fmt/format.h>

#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "orvo/inspection/exit_status.h"
#include "orvo/inspection/printable_text.h"
#include "orvo/inspection/run_directory.h"
#include "orvo/inspection/stream_input.h"
#include "orvo/timing/error.h"

namespace orvo::inspection {
namespace {

using verification::ChannelResult;
using verification::EvaluationSettings;
using verification::RunResult;

constexpr const char* kVerdict = "pass";

/// With the digits that the reports of the tool have.
struct NamedNumber {
  std::string name;
  std::string digits;
};
using Numbers = std::vector<NamedNumber>;

Numbers numbers_of(const RunResult& run) {
  return {{"requested_hz", fmt::format("{:.3f}", run.requested_hz)},
          {"effective_hz", fmt::format("{:.3f}", run.effective_hz)},
          {"expected_decoded_hz", fmt::format("{:.3f}", run.expected_decoded_hz)},
          {"divider", fmt::to_string(run.divider)},
          {"overflow_required", fmt::to_string(run.overflow_required)},
          {"payload_bytes", fmt::to_string(run.payload_bytes)},
          {"decoded_tags", fmt::to_string(run.decoded_tags)},
          {kVerdict, fmt::to_string(run.pass)}};
}

Numbers numbers_of(const ChannelResult& channel) {
  return {{"count", fmt::to_string(channel.count)},
          {"first_ps", fmt::to_string(channel.first_ps)},
          {"last_ps", fmt::to_string(channel.last_ps)},
          {"measured_hz", fmt::format("{:.9f}", channel.measured_hz)},
          {"ppm_error", fmt::format("{:.6f}", channel.ppm_error)},
          {kVerdict, fmt::to_string(channel.pass)}};
}

void print_numbers(std::string_view of, const Numbers& numbers, const char* end) {
  std::cout << of;
  for (const NamedNumber& number : numbers) {
    std::cout << ' ' << number.name << '=' << number.digits;
  }
  std::cout << end << '\n';
}

void print_run(const RunResult& run, const Numbers& numbers, std::uint8_t channel_mask) {
  print_numbers("run", numbers, "");
  std::cout << "  stream_file=" << printable(run.stream_file.string()) << '\n';
  for (std::size_t channel = 0; channel < verification::kChannels; ++channel) {
    const bool judged = verification::channel_counts(channel_mask, channel);
    print_numbers(fmt::format("  ch{}", channel), numbers_of(run.channels[channel]),
                  judged ? "" : " judged=false");
  }
}

/// Prints the last line.
int status_of(bool pass) {
  std::cout << fmt::format("pass={}\n", pass);
  return pass ? kExitSuccess : kExitVerificationFailed;
}

/// Tells on standard error which of the numbers `reported` has otherwise; the verdicts only
/// `with_verdicts`. Returns whether one does.
bool print_differences(const std::string& of, const Numbers& reported, const Numbers& decoded,
                       bool with_verdicts) {
  bool differs = false;
  for (std::size_t i = 0; i < decoded.size(); ++i) {
    if (decoded[i].digits != reported[i].digits && (with_verdicts || decoded[i].name != kVerdict)) {
      std::cerr << fmt::format("ortime: {}{}={} differs from the report: {}\n", of, decoded[i].name,
                               decoded[i].digits, reported[i].digits);
      differs = true;
    }
  }
  return differs;
}

/// `settings` with what the options say otherwise; prints them.
EvaluationSettings chosen_settings(EvaluationSettings settings, const VerifyOptions& options) {
  settings.tolerance_ppm = options.tolerance_ppm.value_or(settings.tolerance_ppm);
  settings.min_tags_per_channel =
      options.min_tags_per_channel.value_or(settings.min_tags_per_channel);
  settings.channel_mask = options.channel_mask.value_or(settings.channel_mask);
  std::cout << fmt::format("tolerance_ppm={}\nmin_tags_per_channel={}\nchannel_mask=0x{:02X}\n",
                           settings.tolerance_ppm, settings.min_tags_per_channel,
                           settings.channel_mask);
  return settings;
}

RunResult judge_recording(StreamInput& input, const verification::Rates& rates,
                          const EvaluationSettings& settings, std::uint64_t chunk_bytes) {
  verification::TagStatistics statistics;
  input.read(chunk_bytes, [&](std::span<const timing::TimeTag> tags) { statistics.add(tags); });
  RunResult run = verification::judge(statistics, rates, settings);
  run.payload_bytes = input.payload_bytes().value_or(0);
  return run;
}

int verify_file(const VerifyOptions& options) {
  StreamInput input(options.path);
  const EvaluationSettings settings = chosen_settings(settings_of(input.reader.header()), options);
  verification::Rates rates;
  if (options.divider) {
    rates = verification::derive_rates(*options.divider, settings);
  } else {
    rates.expected_decoded_hz = options.expected_decoded_hz.value();
    rates.effective_hz =
        rates.expected_decoded_hz * verification::kDecodedTimestampSecondsPerSecond;
    rates.overflow_required = verification::overflow_required(rates.expected_decoded_hz, settings);
  }
  RunResult run = judge_recording(input, rates, settings, options.chunk_bytes);
  run.stream_file = options.path;

  Numbers numbers = numbers_of(run);
  std::erase_if(numbers, [&](const NamedNumber& number) {  // what no one has told
    return number.name == "requested_hz" || (number.name == "divider" && !options.divider) ||
           (number.name == "payload_bytes" && !input.payload_bytes());
  });
  print_run(run, numbers, settings.channel_mask);
  return status_of(run.pass);
}

/// The run judged anew.
RunResult judged_again(const RunResult& reported, const RunDirectory& directory,
                       const EvaluationSettings& settings, std::uint64_t chunk_bytes) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(reported.stream_file, error)) {
    throw timing::Error(OT_ERR_IO, fmt::format("neither {} nor a file of that name in {} can be "
                                               "found",
                                               printable(reported.stream_file.string()),
                                               printable(directory.path.string())));
  }
  StreamInput input(reported.stream_file);
  RunResult run = judge_recording(input, verification::derive_rates(reported.divider, settings),
                                  settings, chunk_bytes);
  run.requested_hz = reported.requested_hz;
  run.stream_file = reported.stream_file;
  return run;
}

int verify_directory(const VerifyOptions& options) {
  const RunDirectory directory = load_run_directory(options.path);
  const EvaluationSettings settings = chosen_settings(directory.settings, options);
  // Another minimum may be the very one of the recording, which the report does not tell.
  const bool same_judgement = !options.tolerance_ppm && !options.channel_mask;
  bool pass = true;
  bool differs = false;
  const auto compare = [&](const std::string& of, const auto& reported, const auto& decoded) {
    differs |= print_differences(of, numbers_of(reported), numbers_of(decoded), same_judgement);
  };
  for (std::size_t i = 0; i < directory.runs.size(); ++i) {
    const RunResult& reported = directory.runs[i];
    const RunResult run = judged_again(reported, directory, settings, options.chunk_bytes);
    print_run(run, numbers_of(run), settings.channel_mask);
    compare(fmt::format("run {}: ", i + 1), reported, run);
    for (std::size_t c = 0; c < verification::kChannels; ++c) {
      compare(fmt::format("run {}: ch{} ", i + 1, c), reported.channels[c], run.channels[c]);
    }
    pass = pass && run.pass;
  }
  if (same_judgement && pass != directory.pass) {
    std::cerr << fmt::format("ortime: pass={} differs from the report: {}\n", pass, directory.pass);
    differs = true;
  }
  if (differs) {
    std::cerr << "ortime: was the recording changed, or made with settings that the report does "
                 "not tell: --chunk-bytes, --min-tags-per-channel, digits of --tolerance-ppm?\n";
  }
  return status_of(pass);
}

}  // namespace

int verify(const VerifyOptions& options) {
  std::error_code error;  // what cannot be looked at cannot be opened either, which tells why
  return std::filesystem::is_directory(options.path, error) ? verify_directory(options)
                                                            : verify_file(options);
}

}  // namespace orvo::inspection
