#include "orvo/simulator/settings.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <utility>

namespace orvo::simulator {
namespace {

struct BadValue {};

constexpr std::uint64_t kMaxLostEvents = 1'000'000'000;           // of one item of the list
constexpr std::uint64_t kMaxJitterPs = 1'000'000'000;             // twice this has 31 bits
constexpr std::uint64_t kMaxNoiseBytes = std::uint64_t{1} << 24;  // held in memory
// The divisor of an input's period is this rate times 1.1 * 10^12 at most, and must fit 63 bits.
constexpr std::uint64_t kMaxInputHz = 5'000'000;

template <typename Number>
Number parse_number(std::string_view text) {
  Number value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size()) {
    throw BadValue{};
  }
  return value;
}

std::uint64_t parse_uint(std::string_view text, std::uint64_t low, std::uint64_t high) {
  const auto value = parse_number<std::uint64_t>(text);
  if (value < low || value > high) {
    throw BadValue{};
  }
  return value;
}

unsigned parse_channel(std::string_view text) {
  return static_cast<unsigned>(parse_uint(text, 0, kChannels - 1));
}

/// The text before the first `separator`. Removes both from `rest`.
std::string_view take(std::string_view& rest, char separator) {
  const std::size_t end = std::min(rest.find(separator), rest.size());
  const std::string_view head = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return head;
}

/// As take(), of a text that has the separator.
std::string_view take_before(std::string_view& rest, char separator) {
  if (rest.find(separator) == std::string_view::npos) {
    throw BadValue{};
  }
  return take(rest, separator);
}

/// In millionths of a ppm: a decimal number from -100000 to 100000, of at most six decimals.
std::int64_t parse_ppm(std::string_view text) {
  constexpr std::uint64_t kMillionths = 1'000'000;
  constexpr std::uint64_t kMaxPpm = 100'000;
  const bool negative = !text.empty() && text.front() == '-';
  if (negative) {
    text.remove_prefix(1);
  }
  const bool has_decimals = text.find('.') != std::string_view::npos;
  std::uint64_t value = parse_uint(take(text, '.'), 0, kMaxPpm) * kMillionths;
  if (has_decimals) {
    if (text.empty() || text.size() > 6) {
      throw BadValue{};
    }
    std::string decimals(text);
    decimals.resize(6, '0');
    value += parse_uint(decimals, 0, kMillionths - 1);
  }
  if (value > kMaxPpm * kMillionths) {
    throw BadValue{};
  }
  return negative ? -static_cast<std::int64_t>(value) : static_cast<std::int64_t>(value);
}

template <auto member, std::uint64_t max = kNever>
void set_number(Settings& settings, std::string_view value) {
  settings.*member = parse_uint(value, 0, max);
}

void set_rate_error(Settings& settings, std::string_view item) {
  const unsigned channel = parse_channel(take_before(item, ':'));
  settings.rate_error_per_1e12[channel] = parse_ppm(item);
}

void set_silent(Settings& settings, std::string_view item) {
  settings.silent[parse_channel(item)] = true;
}

void add_loss(Settings& settings, std::string_view item) {
  Loss loss;
  loss.channel = parse_channel(take_before(item, ':'));
  loss.count = parse_uint(take_before(item, '@'), 0, kMaxLostEvents);
  loss.first = parse_uint(item, 0, kNever - 1);
  settings.losses.push_back(loss);
}

void add_damage(Settings& settings, std::string_view item) {
  const std::string_view kind = take_before(item, '@');
  if (kind != "flip" && kind != "drop") {
    throw BadValue{};
  }
  settings.damage.push_back(
      {kind == "flip" ? Damage::Kind::flip : Damage::Kind::drop, parse_uint(item, 0, kNever - 1)});
}

void set_external_hz(Settings& settings, std::string_view value) {
  for (unsigned channel = 0; channel < kChannels; ++channel) {
    const bool last = channel + 1 == kChannels;
    const std::string_view item = last ? value : take_before(value, ',');
    settings.external_hz[channel] = parse_uint(item, 1, kMaxInputHz);
  }
}

void set_pace(Settings& settings, std::string_view value) {
  if (value == "real") {
    settings.pace = Pace::real_time;
    settings.end = kNever;
    return;
  }
  const std::string_view kind = take_before(value, ':');
  if (kind != "bytes" && kind != "ps") {
    throw BadValue{};
  }
  settings.pace = kind == "bytes" ? Pace::unpaced_bytes : Pace::unpaced_ps;
  settings.end = parse_uint(value, 1, kNever >> 1);
}

constexpr std::string_view kOperationsWithStatus[] = {
    "ot_open",
    "ot_open_serial",
    "ot_close",
    "ot_discover",
    "ot_identify",
    "ot_set_calibration_freq",
    "ot_set_packed_delta_config",
    "ot_set_stream_channel_mask",
    "ot_set_stream_interface",
    "ot_start_stream_mode",
    "ot_read_stream_bytes",
    "ot_stop_stream_mode",
};

/// OPERATION:CALL:STATUS[:always][:effect][:detail=TEXT]
void add_failure(Settings& settings, std::string_view value) {
  Failure failure;
  failure.operation = take_before(value, ':');
  const auto* const known = std::find(std::begin(kOperationsWithStatus),
                                      std::end(kOperationsWithStatus), failure.operation);
  if (known == std::end(kOperationsWithStatus)) {
    throw BadValue{};
  }
  failure.call = parse_uint(take_before(value, ':'), 1, kNever);
  failure.status = parse_number<ot_status>(take(value, ':'));
  // A read can succeed without bytes; another call that did nothing must not report success.
  const bool is_read = failure.operation == "ot_read_stream_bytes";
  if (failure.status == OT_OK && !is_read) {
    throw BadValue{};
  }
  constexpr std::string_view kDetail = "detail=";
  while (!value.empty()) {
    if (value.starts_with(kDetail)) {
      failure.detail = value.substr(kDetail.size());
      break;
    }
    const std::string_view word = take(value, ':');
    if (word != "always" && word != "effect") {
      throw BadValue{};
    }
    (word == "always" ? failure.always : failure.effect) = true;
  }
  settings.failures.push_back(std::move(failure));
}

void set_ledger(Settings& settings, std::string_view value) {
  if (value.empty()) {
    throw BadValue{};
  }
  settings.ledger = value;
}

using Apply = void (*)(Settings&, std::string_view);

template <Apply apply_item>
void for_each_item(Settings& settings, std::string_view list) {
  while (list.find(',') != std::string_view::npos) {
    apply_item(settings, take(list, ','));
  }
  apply_item(settings, list);
}

struct Key {
  std::string_view name;
  Apply apply;
};

constexpr Key kKeys[] = {
    {"seed", set_number<&Settings::seed>},
    {"instruments", set_number<&Settings::instruments, 99>},
    {"rate_error_ppm", for_each_item<set_rate_error>},
    {"jitter_ps", set_number<&Settings::jitter_ps, kMaxJitterPs>},
    {"external_hz", set_external_hz},
    {"silent", for_each_item<set_silent>},
    {"lose", for_each_item<add_loss>},
    {"bit_phase", set_number<&Settings::bit_phase, 33>},
    {"clock_ps", set_number<&Settings::clock_ps, kWrapPs - 1>},
    {"sync_interval", set_number<&Settings::sync_interval>},
    {"noise_bytes", set_number<&Settings::noise_bytes, kMaxNoiseBytes>},
    {"damage", for_each_item<add_damage>},
    {"pace", set_pace},
    {"fail", add_failure},
    {"ledger", set_ledger},
};

void apply(Settings& settings, std::string_view setting) {
  const std::string text(setting);
  if (setting.find('=') == std::string_view::npos) {
    throw std::invalid_argument("'" + text + "' is not key=value");
  }
  const std::string name(take(setting, '='));
  const auto* const key = std::find_if(std::begin(kKeys), std::end(kKeys),
                                       [&name](const Key& k) { return k.name == name; });
  if (key == std::end(kKeys)) {
    throw std::invalid_argument("unknown key '" + name + "'");
  }
  try {
    key->apply(settings, setting);
  } catch (const BadValue&) {
    throw std::invalid_argument("bad value of key '" + name + "': '" + std::string(setting) + "'");
  }
}

}  // namespace

Settings parse_settings(std::string_view text) {
  Settings settings;
  while (!text.empty()) {
    const std::string_view setting = take(text, ';');
    if (!setting.empty()) {
      apply(settings, setting);
    }
  }
  const auto by_offset = [](const Damage& a, const Damage& b) { return a.offset < b.offset; };
  std::stable_sort(settings.damage.begin(), settings.damage.end(), by_offset);
  return settings;
}

}  // namespace orvo::simulator
