#include "orvo/simulator/settings.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <utility>

namespace orvo::simulator {
namespace {

struct BadValue {};

constexpr std::uint64_t kMaxLostEvents = 1'000'000'000;
constexpr std::uint64_t kMaxNoiseBytes = std::uint64_t{1} << 24;  // held in memory
constexpr std::uint64_t kMaxJitterPs = 1'000'000'000;

std::uint64_t parse_uint(std::string_view text, std::uint64_t low, std::uint64_t high) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size()) throw BadValue{};
  if (value < low || value > high) throw BadValue{};
  return value;
}

unsigned parse_channel(std::string_view text) {
  return static_cast<unsigned>(parse_uint(text, 0, kChannels - 1));
}

/// The text before the first `separator`, which is removed from `rest` with it.
std::string_view take(std::string_view& rest, char separator) {
  const std::size_t end = std::min(rest.find(separator), rest.size());
  const std::string_view head = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return head;
}

/// As take(), where the separator must be there.
std::string_view take_before(std::string_view& rest, char separator) {
  if (rest.find(separator) == std::string_view::npos) throw BadValue{};
  return take(rest, separator);
}

template <typename Item>
void for_each_item(std::string_view list, Item item) {
  do {
    item(take(list, ','));
  } while (!list.empty());
}

/// A decimal number of at most 100000 in size and at most six digits behind the point.
std::int64_t parse_ppm(std::string_view text) {
  const bool negative = !text.empty() && text.front() == '-';
  if (negative) text.remove_prefix(1);
  const bool has_fraction = text.find('.') != std::string_view::npos;
  const std::uint64_t whole = parse_uint(take(text, '.'), 0, 100000);
  std::uint64_t fraction = 0;
  if (has_fraction) {
    if (text.size() > 6) throw BadValue{};
    std::string digits(text);
    digits.resize(6, '0');
    fraction = parse_uint(text.empty() ? text : std::string_view(digits), 0, 999999);
  }
  const auto value = static_cast<std::int64_t>(whole * 1000000 + fraction);
  return negative ? -value : value;
}

void add_rate_error(Settings& settings, std::string_view item) {
  const unsigned channel = parse_channel(take_before(item, ':'));
  settings.rate_error_per_1e12[channel] = parse_ppm(item);
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
  Damage damage;
  if (kind == "flip") {
    damage.kind = Damage::Kind::flip;
  } else if (kind == "drop") {
    damage.kind = Damage::Kind::drop;
  } else {
    throw BadValue{};
  }
  damage.offset = parse_uint(item, 0, kNever - 1);
  settings.damage.push_back(damage);
}

void set_external_hz(Settings& settings, std::string_view value) {
  // The divisor of the period is this rate times 1.1 * 10^12 at most, and must fit 63 bits.
  constexpr std::uint64_t kMaxHz = 5'000'000;
  for (unsigned channel = 0; channel < kChannels; ++channel) {
    const bool last = channel + 1 == kChannels;
    const std::string_view item = last ? value : take_before(value, ',');
    settings.external_hz[channel] = parse_uint(item, 1, kMaxHz);
  }
}

void set_pace(Settings& settings, std::string_view value) {
  const std::string_view kind = take(value, ':');
  if (kind == "real" && value.empty()) {
    settings.pace = Pace::real_time;
    settings.end = kNever;
    return;
  }
  if (kind == "bytes") {
    settings.pace = Pace::unpaced_bytes;
  } else if (kind == "ps") {
    settings.pace = Pace::unpaced_ps;
  } else {
    throw BadValue{};
  }
  settings.end = parse_uint(value, 1, kNever >> 1);
}

Operation parse_operation(std::string_view name) {
  for (std::size_t i = 0; i < kOperations.size(); ++i) {
    if (kOperations[i].can_fail && kOperations[i].name == name) return static_cast<Operation>(i);
  }
  throw BadValue{};
}

ot_status parse_status(std::string_view text) {
  ot_status status = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), status);
  if (error != std::errc{} || end != text.data() + text.size()) throw BadValue{};
  return status;
}

/// OPERATION:CALL:STATUS[:always][:effect][:detail=TEXT]
void add_failure(Settings& settings, std::string_view value) {
  Failure failure;
  failure.operation = parse_operation(take_before(value, ':'));
  failure.call = parse_uint(take_before(value, ':'), 1, kNever);
  failure.status = parse_status(take(value, ':'));
  // Success without a handle would be no failure but a trap; a read can succeed with nothing.
  const bool is_read = failure.operation == Operation::read_stream_bytes;
  if (failure.status == OT_OK && !is_read) throw BadValue{};
  constexpr std::string_view kDetail = "detail=";
  while (!value.empty()) {
    if (value.substr(0, kDetail.size()) == kDetail) {
      failure.detail = value.substr(kDetail.size());
      break;
    }
    const std::string_view word = take(value, ':');
    if (word == "always") {
      failure.always = true;
    } else if (word == "effect") {
      failure.effect = true;
    } else {
      throw BadValue{};
    }
  }
  settings.failures.push_back(std::move(failure));
}

void set_ledger(Settings& settings, std::string_view value) {
  if (value.empty()) throw BadValue{};
  settings.ledger = value;
}

using Apply = void (*)(Settings&, std::string_view);

struct Key {
  std::string_view name;
  Apply apply;
};

constexpr Key kKeys[] = {
    {"seed", [](Settings& s, std::string_view v) { s.seed = parse_uint(v, 0, kNever); }},
    {"instruments", [](Settings& s, std::string_view v) { s.instruments = parse_uint(v, 0, 99); }},
    {"rate_error_ppm",
     [](Settings& s, std::string_view v) {
       for_each_item(v, [&s](std::string_view item) { add_rate_error(s, item); });
     }},
    {"jitter_ps",
     [](Settings& s, std::string_view v) { s.jitter_ps = parse_uint(v, 0, kMaxJitterPs); }},
    {"external_hz", set_external_hz},
    {"silent",
     [](Settings& s, std::string_view v) {
       for_each_item(v, [&s](std::string_view item) { s.silent[parse_channel(item)] = true; });
     }},
    {"lose",
     [](Settings& s, std::string_view v) {
       for_each_item(v, [&s](std::string_view item) { add_loss(s, item); });
     }},
    {"bit_phase", [](Settings& s, std::string_view v) { s.bit_phase = parse_uint(v, 0, 33); }},
    {"clock_ps",
     [](Settings& s, std::string_view v) { s.clock_ps = parse_uint(v, 0, kWrapPs - 1); }},
    {"sync_interval",
     [](Settings& s, std::string_view v) { s.sync_interval = parse_uint(v, 0, kNever); }},
    {"noise_bytes",
     [](Settings& s, std::string_view v) { s.noise_bytes = parse_uint(v, 0, kMaxNoiseBytes); }},
    {"damage",
     [](Settings& s, std::string_view v) {
       for_each_item(v, [&s](std::string_view item) { add_damage(s, item); });
     }},
    {"pace", set_pace},
    {"fail", add_failure},
    {"ledger", set_ledger},
};

void apply(Settings& settings, std::string_view setting) {
  const std::string text(setting);
  if (setting.find('=') == std::string_view::npos) {
    throw std::invalid_argument("'" + text + "' is not key=value");
  }
  const std::string_view name = take(setting, '=');
  const auto* const key = std::find_if(std::begin(kKeys), std::end(kKeys),
                                       [name](const Key& k) { return k.name == name; });
  if (key == std::end(kKeys)) {
    throw std::invalid_argument("unknown key '" + std::string(name) + "'");
  }
  try {
    key->apply(settings, setting);
  } catch (const BadValue&) {
    throw std::invalid_argument("bad value of key '" + std::string(name) + "': '" +
                                std::string(setting) + "'");
  }
}

}  // namespace

Settings parse_settings(std::string_view text) {
  Settings settings;
  while (!text.empty()) {
    const std::string_view setting = take(text, ';');
    if (!setting.empty()) apply(settings, setting);
  }
  const auto by_offset = [](const Damage& a, const Damage& b) { return a.offset < b.offset; };
  std::stable_sort(settings.damage.begin(), settings.damage.end(), by_offset);
  return settings;
}

}  // namespace orvo::simulator
