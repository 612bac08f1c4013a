#include "orvo/verification/config.h"

#include <algorithm>
#include <cctype>
#include <sstream>
#include <utility>

#include "orvo/verification/number_text.h"

namespace orvo::verification {
namespace {

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

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
       config.channel_mask = static_cast<std::uint8_t>(parse_unsigned(value) & 0x0F);
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

}  // namespace

std::string trim(std::string_view text) {
  while (!text.empty() && is_space(text.front())) {
    text.remove_prefix(1);
  }
  while (!text.empty() && is_space(text.back())) {
    text.remove_suffix(1);
  }
  return std::string(text);
}

void apply_config_line(Config& config, std::string key, std::string value) {
  key = trim(key);
  std::transform(key.begin(), key.end(), key.begin(), [](char c) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  });
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

bool is_valid(const Config& config) {
  // Written so that a capture_s of nan is invalid.
  return config.capture_s > 0 && !config.frequencies_hz.empty() && config.packed_bits != 0 &&
         config.packed_quantum_ps != 0;
}

}  // namespace orvo::verification
