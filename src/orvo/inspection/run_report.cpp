#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <string_view>
#include <type_traits>
#include <utility>

#include "orvo/inspection/run_directory.h"
#include "orvo/timing/error.h"

namespace orvo::inspection {
namespace {

using nlohmann::json;
using verification::kChannels;

constexpr std::size_t kMaxFileBytes = 64 << 20;  // more than sixty thousand runs

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
                        fmt::format("{:?} is too large: more than 64 MiB", path.string()));
  }
  std::string text(size, '\0');
  file.read(text.data(), static_cast<std::streamsize>(size));
  text.resize(static_cast<std::size_t>(file.gcount()));
  return text;
}

/// The characters for the parser: each byte one, so that text in any encoding, or in none, can be
/// read. An infinite tolerance, for which JSON has no word, as a string.
std::u16string characters_of(std::string_view text) {
  constexpr std::string_view kInfinite = "inf";
  std::u16string characters;
  characters.reserve(text.size());
  bool in_string = false;
  bool escaped = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (!in_string && text.substr(i, kInfinite.size()) == kInfinite) {
      characters += u"\"inf\"";
      i += kInfinite.size() - 1;
      continue;
    }
    characters += static_cast<unsigned char>(text[i]);
    in_string = in_string != (text[i] == '"' && !escaped);
    escaped = in_string && text[i] == '\\' && !escaped;
  }
  return characters;
}

/// The bytes of a string of such a document. Characters that stand for no byte stay as they are.
std::string bytes_of(std::string_view characters) {
  std::string bytes;
  for (std::size_t i = 0; i < characters.size(); ++i) {
    const auto lead = static_cast<unsigned char>(characters[i]);
    const bool high = lead == 0xC2 || lead == 0xC3;
    bytes += high ? static_cast<char>(lead << 6 | (characters[++i] & 0x3F)) : characters[i];
  }
  return bytes;
}

/// What `error` says, fit for a terminal, without the library's name and number for it.
std::string words_of(const std::exception& error) {
  std::string words = error.what();
  words.erase(0, words.find("] ") + 2);
  const auto is_foreign = [](char c) { return static_cast<unsigned char>(c) >= 0x80; };
  std::replace_if(words.begin(), words.end(), is_foreign, '?');
  return words;
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

/// What a visit calls to set each value it visits.
auto from(const json& object) {
  return [&object](const char* name, auto& value, int = 0) {
    using Value = std::remove_cvref_t<decltype(value)>;
    const json& member = object.at(name);
    if constexpr (std::is_same_v<Value, bool>) {
      value = member.get<bool>();
    } else if constexpr (std::is_same_v<Value, double>) {
      value = member.get<double>();
    } else if constexpr (std::is_same_v<Value, std::filesystem::path>) {
      value = path_of(member);
    } else {
      value = integer_of<Value>(member);
    }
  };
}

verification::RunResult run_of(const json& object) {
  verification::RunResult run;
  visit_run(run, from(object));
  const json& channels = object.at("channels");
  if (channels.size() != kChannels) {
    refuse(channels, fmt::format("has not {} elements", kChannels));
  }
  for (std::size_t number = 0; number < kChannels; ++number) {
    const json& channel = channels.at(number);
    if (integer_of<std::size_t>(channel.at("channel")) != number) {
      refuse(channel.at("channel"), fmt::format("is not {}", number));
    }
    visit_channel(run.channels[number], from(channel));
  }
  return run;
}

void fill(const json& report, RunDirectory& dir) {
  if (report.at("verification") != verification::kVerificationName) {
    refuse(report.at("verification"), std::string("is not ") + verification::kVerificationName);
  }
  dir.pass = report.at("pass").get<bool>();
  dir.capture_s = report.at("capture_s").get<double>();
  const json& tolerance_ppm = report.at("tolerance_ppm");
  constexpr double kInfinite = std::numeric_limits<double>::infinity();
  dir.settings = {
      .channel_mask = integer_of<std::uint8_t>(report.at("channel_mask")),
      .tolerance_ppm = tolerance_ppm == "inf" ? kInfinite : tolerance_ppm.get<double>(),
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
  const std::string text = text_of(dir.report);
  try {
    fill(json::parse(characters_of(text)), dir);
  } catch (const json::exception& error) {
    throw timing::Error(OT_ERR_FORMAT,
                        fmt::format("{:?}: {}", dir.report.string(), words_of(error)));
  }
}

}  // namespace orvo::inspection
