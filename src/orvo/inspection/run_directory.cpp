#include "orvo/inspection/run_directory.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#define JSON_DIAGNOSTICS 1  // messages name the place of what is wrong
#include <nlohmann/json.hpp>

#include "orvo/inspection/printable_text.h"
#include "orvo/timing/error.h"

namespace orvo::inspection {
namespace {

using nlohmann::json;
using verification::kChannels;

// Some ten thousand runs. In memory, a document takes up to thirty times as much.
constexpr std::size_t kMaxFileBytes = 16 << 20;
// An array in an array takes the most memory of all, for one byte of text.
constexpr int kMaxDepth = 16;

[[noreturn]] void refuse(const json& value, const std::string& what) {
  throw json::other_error::create(501, what, &value);
}

/// Whether no array or object of `text`, be it JSON or not, is nested more than kMaxDepth deep. The
/// parser's own callback could tell, but takes a time quadratic in the length of an array.
bool is_shallow(std::u16string_view text) {
  int depth = 0;
  bool in_string = false;
  for (std::size_t i = 0; i < text.size() && depth <= kMaxDepth; ++i) {
    const char16_t c = text[i];
    if (c == u'"') {
      in_string = !in_string;
    } else if (in_string) {
      i += c == u'\\' ? 1 : 0;  // with what it escapes
    } else {
      depth += c == u'[' || c == u'{' ? 1 : c == u']' || c == u'}' ? -1 : 0;
    }
  }
  return depth <= kMaxDepth;
}

/// The document in the file at `path`. Strings in it stand for bytes: each character is one, so
/// that text in any encoding, or in none, can be read. bytes_of() gives the bytes back.
json read_json(const std::filesystem::path& path) {
  std::error_code error;
  const std::uintmax_t size = std::filesystem::file_size(path, error);
  std::ifstream file;
  if (!error) {  // a pipe has no size; opening one could take for ever
    file.open(path, std::ios::binary);
  }
  if (!file.is_open()) {
    throw timing::Error(
        OT_ERR_IO,
        fmt::format("cannot open {}: {} (a run directory is what the verification has "
                    "named behind \"Output: \")",
                    printable(path.string()), error ? error.message() : std::strerror(errno)));
  }
  if (size > kMaxFileBytes) {
    throw timing::Error(OT_ERR_FORMAT,
                        printable(path.string()) + " is too large: more than 16 MiB");
  }
  std::u16string characters;
  characters.reserve(size);
  for (std::istreambuf_iterator<char> c(file), end; c != end; ++c) {
    characters += static_cast<unsigned char>(*c);
  }
  if (!is_shallow(characters)) {
    throw timing::Error(OT_ERR_FORMAT, printable(path.string()) + " is nested too deeply");
  }
  return json::parse(characters);
}

/// Characters that stand for no byte stay as they are.
std::string bytes_of(std::string_view characters) {
  std::string bytes;
  for (std::size_t i = 0; i < characters.size(); ++i) {
    const auto lead = static_cast<unsigned char>(characters[i]);
    const bool high = lead == 0xC2 || lead == 0xC3;
    bytes += high ? static_cast<char>(lead << 6 | (characters[++i] & 0x3F)) : characters[i];
  }
  return bytes;
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

/// Where the stream file is now.
std::filesystem::path present_path(const json& value, const std::filesystem::path& directory) {
  const std::string text = bytes_of(value.get<std::string>());
  if (text.empty() || text.find('\0') != std::string::npos) {
    refuse(value, "is not a path");
  }
  const std::filesystem::path recorded = text;
  const std::filesystem::path moved = directory / recorded.filename();
  std::error_code error;  // what cannot be looked at is not there
  const bool has_moved = !std::filesystem::is_regular_file(recorded, error) &&
                         std::filesystem::is_regular_file(moved, error);
  return has_moved ? moved : recorded;
}

verification::ChannelResult channel_of(const json& channel, std::size_t number) {
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

verification::RunResult run_of(const json& run, const std::filesystem::path& directory) {
  verification::RunResult result = {
      .requested_hz = run.at("requested_hz").get<double>(),
      .effective_hz = run.at("effective_hz").get<double>(),
      .expected_decoded_hz = run.at("expected_decoded_hz").get<double>(),
      .divider = integer_of<std::uint32_t>(run.at("divider")),
      .stream_file = present_path(run.at("stream_file"), directory),
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

RunDirectory directory_of(const json& report, const std::filesystem::path& path) {
  if (report.at("verification") != "overflow_frequency") {
    refuse(report.at("verification"), "is not overflow_frequency");
  }
  RunDirectory result = {
      .path = path,
      .pass = report.at("pass").get<bool>(),
      .capture_s = report.at("capture_s").get<double>(),
      .settings = {.channel_mask = integer_of<std::uint8_t>(report.at("channel_mask")),
                   .tolerance_ppm = report.at("tolerance_ppm").get<double>(),
                   .packed_bits = integer_of<std::uint8_t>(report.at("packed_delta_bits")),
                   .packed_quantum_ps =
                       integer_of<std::uint16_t>(report.at("packed_delta_quantum_ps"))},
      .runs = {}};
  for (const json& run : report.at("runs").get_ref<const json::array_t&>()) {
    result.runs.push_back(run_of(run, path));
  }
  if (result.runs.empty()) {
    refuse(report.at("runs"), "is empty: there is nothing to judge");
  }
  return result;
}

}  // namespace

std::filesystem::path report_path(const std::filesystem::path& run_dir) {
  return run_dir / "overflow_frequency.json";
}

RunDirectory load_run_directory(const std::filesystem::path& path) {
  const std::filesystem::path file = report_path(path);
  try {
    return directory_of(read_json(file), path);
  } catch (const json::exception& error) {  // whose words begin with its name for them
    const std::string_view what = error.what();
    throw timing::Error(OT_ERR_FORMAT, fmt::format("{}: {}", printable(file.string()),
                                                   printable(what.substr(what.find("] ") + 2))));
  }
}

}  // namespace orvo::inspection
