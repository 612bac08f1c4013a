#include "orvo/verification/config.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <fstream>
#include <istream>
#include <sstream>
#include <system_error>
#include <utility>

#include "orvo/timing/json_text.h"

namespace orvo::verification {
namespace {

constexpr const char* kFileName = "ot_verify_overflow_frequency.ini";

/// The program's folder as its first argument names it; links and the search path stay unresolved.
std::filesystem::path program_dir(const char* program, const std::filesystem::path& working_dir) {
  std::error_code error;
  const std::filesystem::path absolute =
      std::filesystem::absolute(program == nullptr ? "" : program, error);
  return !error && absolute.has_parent_path() ? absolute.parent_path() : working_dir;
}

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

/// `text` without the ASCII white space around it.
std::string trim(std::string_view text) {
  while (!text.empty() && is_space(text.front())) {
    text.remove_prefix(1);
  }
  while (!text.empty() && is_space(text.back())) {
    text.remove_suffix(1);
  }
  return std::string(text);
}

/// std::stoul with base 0 (decimal, 0x hexadecimal, leading 0 octal), its exceptions and its
/// wrapping of negative numbers included; also takes 0b binary where the C library does not.
unsigned long parse_unsigned(const std::string& text) {
  std::string_view rest = text;
  rest.remove_prefix(std::min(rest.find_first_not_of(" \t\n\v\f\r"), rest.size()));
  const bool negative = rest.starts_with('-');
  if (negative || rest.starts_with('+')) {
    rest.remove_prefix(1);
  }
  if (!rest.starts_with("0b") && !rest.starts_with("0B")) {
    return std::stoul(text, nullptr, 0);
  }
  rest.remove_prefix(2);
  const std::string digits(rest.substr(0, rest.find_first_not_of("01")));
  if (digits.empty()) {
    return std::stoul(text, nullptr, 0);
  }
  const unsigned long magnitude = std::stoul(digits, nullptr, 2);
  return negative ? 0 - magnitude : magnitude;
}

/// The positive numbers before the first thing in `text` that is not a number.
std::vector<double> positive_numbers(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c == ',' || c == ';'; }, ' ');
  std::istringstream stream(std::move(text));
  std::vector<double> numbers;
  for (double number; stream >> number;) {
    if (number > 0) {
      numbers.push_back(number);
    }
  }
  return numbers;
}

void set_frequencies(Config& config, const std::string& value) {
  if (std::vector<double> numbers = positive_numbers(value); !numbers.empty()) {
    config.frequencies_hz = std::move(numbers);
  }
}

struct Setting {
  std::string_view key;
  void (*apply)(Config& config, const std::string& value);
};

// Numbers wider than their field keep their low bits.
constexpr Setting kSettings[] = {
    {"control_port", [](Config& config, const std::string& value) { config.control_port = value; }},
    {"usb_serial", [](Config& config, const std::string& value) { config.usb_serial = value; }},
    {"capture_s",
     [](Config& config, const std::string& value) { config.capture_s = std::stod(value); }},
    {"cal_freq_hz", set_frequencies},
    {"frequencies_hz", set_frequencies},
    {"channel_mask",
     [](Config& config, const std::string& value) {
       config.channel_mask =
           static_cast<std::uint8_t>(parse_unsigned(value) & timing::kAllChannels);
     }},
    {"tdl_index",
     [](Config& config, const std::string& value) {
       config.tdl_index = static_cast<std::uint8_t>(parse_unsigned(value));
     }},
    {"packed_bits",
     [](Config& config, const std::string& value) {
       config.packed_bits = static_cast<std::uint8_t>(parse_unsigned(value));
     }},
    {"packed_quantum_ps",
     [](Config& config, const std::string& value) {
       config.packed_quantum_ps = static_cast<std::uint16_t>(parse_unsigned(value));
     }},
    {"chunk_bytes",
     [](Config& config, const std::string& value) { config.chunk_bytes = std::stoull(value); }},
    {"queue_chunks",
     [](Config& config, const std::string& value) { config.queue_chunks = std::stoull(value); }},
    {"tolerance_ppm",
     [](Config& config, const std::string& value) { config.tolerance_ppm = std::stod(value); }},
    {"min_tags_per_channel",
     [](Config& config, const std::string& value) {
       config.min_tags_per_channel = std::stoull(value);
     }},
    {"output_root", [](Config& config, const std::string& value) { config.output_root = value; }},
};

void apply_config_lines(Config& config, std::istream& lines) {
  for (std::string line; std::getline(lines, line);) {
    line.resize(std::min(line.find('#'), line.size()));
    const std::size_t equals = line.find('=');
    if (equals != std::string::npos) {
      apply_config_line(config, line.substr(0, equals), line.substr(equals + 1));
    }
  }
}

}  // namespace

void apply_config_line(Config& config, std::string key, std::string value) {
  key = timing::detail::to_lower(trim(key));
  value = trim(value);
  if (value.empty()) {
    return;
  }
  for (const Setting& setting : kSettings) {
    if (setting.key == key) {
      setting.apply(config, value);
      return;
    }
  }
}

std::vector<std::filesystem::path> config_candidates(char** argv,
                                                     const std::filesystem::path& source_dir) {
  const std::filesystem::path working_dir = std::filesystem::current_path();
  return {program_dir(argv[0], working_dir) / kFileName, working_dir / kFileName,
          source_dir / "verification" / kFileName};
}

std::optional<std::filesystem::path> apply_first_config_file(
    Config& config, const std::vector<std::filesystem::path>& candidates) {
  for (const std::filesystem::path& path : candidates) {
    if (std::ifstream file(path); file.is_open()) {
      apply_config_lines(config, file);
      return path;
    }
  }
  return std::nullopt;
}

bool is_valid(const Config& config) {
  // Written so that a capture_s of nan is invalid.
  return config.capture_s > 0 && !config.frequencies_hz.empty() && config.packed_bits != 0 &&
         config.packed_quantum_ps != 0;
}

}  // namespace orvo::verification
