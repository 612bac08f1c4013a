#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "orvo/inspection/foreign_json.h"
#include "orvo/inspection/run_directory.h"
#include "orvo/timing/error.h"

namespace orvo::inspection {
namespace {

using nlohmann::json;
using verification::ChannelResult;
using verification::kChannels;

constexpr std::size_t kMaxFileBytes = 4 << 20;  // more than two thousand runs

[[noreturn]] void refuse(const json& value, const std::string& what) {
  throw json::other_error::create(501, what, &value);
}

std::string text_of(const std::filesystem::path& path) {
  std::error_code error;
  const std::uintmax_t size = std::filesystem::file_size(path, error);
  std::ifstream file;
  if (!error) {  // a pipe has no size; opening one could take for ever
    file.open(path, std::ios::binary);
  }
  if (!file.is_open()) {
    throw timing::Error(OT_ERR_IO, fmt::format("cannot open {:?}: {}", path.string(),
                                               error ? error.message() : std::strerror(errno)));
  }
  if (size > kMaxFileBytes) {
    throw timing::Error(OT_ERR_FORMAT,
                        fmt::format("{:?} is too large: more than 4 MiB", path.string()));
  }
  std::string text(size, '\0');
  file.read(text.data(), static_cast<std::streamsize>(size));
  text.resize(static_cast<std::size_t>(file.gcount()));
  return text;
}

/// The tool reports an infinite tolerance, for which JSON has no word, as `inf`; likewise `nan`. In
/// quotes it can be read.
void quote_tolerance(std::string& text) {
  constexpr std::string_view kKey = "\"tolerance_ppm\":";
  const std::size_t key = text.find(kKey);
  const std::size_t begin = key == std::string::npos ? text.size() : key + kKey.size();
  for (const std::string_view word : {"inf,", "-inf,", "nan,", "-nan,"}) {
    if (std::string_view(text).substr(begin).starts_with(word)) {
      text.insert(begin + word.size() - 1, 1, '"').insert(begin, 1, '"');
      return;
    }
  }
}

double tolerance_of(const json& value) {
  return value == "inf"      ? std::numeric_limits<double>::infinity()
         : value == "-inf"   ? -std::numeric_limits<double>::infinity()
         : value.is_string() ? std::numeric_limits<double>::quiet_NaN()
                             : value.get<double>();
}

template <typename Integer>
Integer integer_of(const json& value) {
  const bool fits = value.is_number_unsigned()  ? std::in_range<Integer>(value.get<std::uint64_t>())
                    : value.is_number_integer() ? std::in_range<Integer>(value.get<std::int64_t>())
                                                : false;
  if (!fits) {
    using Limits = std::numeric_limits<Integer>;
    refuse(value, fmt::format("is not an integer from {} to {}", Limits::min(), Limits::max()));
  }
  return value.get<Integer>();
}

std::filesystem::path path_of(const json& value) {
  std::string text = bytes_of(value.get<std::string>());
  if (text.empty() || text.find('\0') != std::string::npos) {
    refuse(value, "is not a path");
  }
  return text;
}

ChannelResult channel_of(const json& channel, std::size_t number) {
  if (integer_of<std::size_t>(channel.at("channel")) != number) {
    refuse(channel.at("channel"), fmt::format("is not {}", number));
  }
  return {.count = integer_of<std::uint64_t>(channel.at("count")),
          .first_ps = integer_of<std::int64_t>(channel.at("first_ps")),
          .last_ps = integer_of<std::int64_t>(channel.at("last_ps")),
          .measured_hz = channel.at("measured_hz").get<double>(),
          .ppm_error = channel.at("ppm_error").get<double>(),
          .pass = channel.at("pass").get<bool>()};
}

verification::RunResult run_of(const json& run) {
  verification::RunResult result = {
      .requested_hz = run.at("requested_hz").get<double>(),
      .effective_hz = run.at("effective_hz").get<double>(),
      .expected_decoded_hz = run.at("expected_decoded_hz").get<double>(),
      .divider = integer_of<std::uint32_t>(run.at("divider")),
      .stream_file = path_of(run.at("stream_file")),
      .payload_bytes = integer_of<std::uint64_t>(run.at("payload_bytes")),
      .decoded_tags = integer_of<std::uint64_t>(run.at("decoded_tags")),
      .overflow_required = run.at("overflow_required").get<bool>(),
      .pass = run.at("pass").get<bool>(),
      .channels = {}};
  const json& channels = run.at("channels");
  if (channels.size() != kChannels) {
    refuse(channels, fmt::format("has not {} elements", kChannels));
  }
  for (std::size_t number = 0; number < kChannels; ++number) {
    result.channels[number] = channel_of(channels.at(number), number);
  }
  return result;
}

void fill(const json& report, RunDirectory& dir) {
  if (report.at("verification") != "overflow_frequency") {
    refuse(report.at("verification"), "is not overflow_frequency");
  }
  dir.pass = report.at("pass").get<bool>();
  dir.capture_s = report.at("capture_s").get<double>();
  dir.settings = {
      .channel_mask = integer_of<std::uint8_t>(report.at("channel_mask")),
      .tolerance_ppm = tolerance_of(report.at("tolerance_ppm")),
      .packed_bits = integer_of<std::uint8_t>(report.at("packed_delta_bits")),
      .packed_quantum_ps = integer_of<std::uint16_t>(report.at("packed_delta_quantum_ps"))};
  for (const json& run : report.at("runs").get_ref<const json::array_t&>()) {
    dir.runs.push_back(run_of(run));
  }
  if (dir.runs.empty()) {
    refuse(report.at("runs"), "is empty: there is nothing to judge");
  }
}

}  // namespace

void read_report(RunDirectory& dir) {
  std::string text = text_of(dir.report);
  quote_tolerance(text);
  try {
    fill(parse_foreign_json(text), dir);
  } catch (const json::exception& error) {
    throw timing::Error(OT_ERR_FORMAT,
                        fmt::format("{:?}: {}", dir.report.string(), words_of(error)));
  }
}

}  // namespace orvo::inspection
