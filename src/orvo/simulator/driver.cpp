#include "orvo/simulator/driver.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <utility>

namespace orvo::simulator {
namespace {

/// Empty when the variable is not set.
std::string environment(const char* name) {
  const char* const text = std::getenv(name);
  return text == nullptr ? "" : text;
}

template <std::size_t kSize>
void fill(char (&field)[kSize], std::string_view text) {
  std::copy_n(text.begin(), std::min(text.size(), kSize), field);
}

std::string serial_of(std::uint64_t number) { return "SIM" + std::to_string(1001 + number); }

ot_identity identity_of(std::uint64_t number) {
  ot_identity identity{};
  const std::string serial = serial_of(number);
  fill(identity.id_field_1, "ORVO-SIM-4");
  fill(identity.id_field_2, serial);
  fill(identity.id_field_3, "sim 1.0");
  fill(identity.description, "Orvo timing instrument, simulated, " + serial);
  return identity;
}

template <typename Handle>
Handle* find_in(const std::vector<std::unique_ptr<Handle>>& handles, const Handle* wanted) {
  const auto found = std::find_if(handles.begin(), handles.end(),
                                  [wanted](const auto& handle) { return handle.get() == wanted; });
  return found == handles.end() ? nullptr : found->get();
}

}  // namespace

bool Ledger::open(const std::string& path) {
  if (path == path_) {
    return true;
  }
  file_.close();
  file_.clear();
  path_ = path;
  misuses_ = 0;
  if (path.empty()) {
    return true;
  }
  file_.open(path);
  if (file_.is_open()) {
    return true;
  }
  path_.clear();
  return false;
}

void Ledger::misuse(const std::string& line) {
  ++misuses_;
  write("misuse " + line);
}

void Ledger::write(const std::string& line) {
  if (!file_.is_open() || file_ << line << std::endl) {
    return;
  }
  std::cerr << "ORVO_SIM: cannot write the ledger '" + path_ + "', which ends here\n";
  file_.close();
}

Driver& Driver::instance() {
  static Driver driver;
  return driver;
}

Driver::~Driver() {
  for (const auto& device : devices_) {
    if (device->device) {
      ledger.misuse("end: an instrument was not closed");
    }
  }
  for (const auto& list : lists_) {
    if (!list->freed) {
      ledger.misuse("end: a discovery list was not freed");
    }
  }
  ledger.end();
}

void Driver::load_settings() {
  std::string text = environment("ORVO_SIM");
  if (any_open() || loaded_text_ == text) {
    return;
  }
  settings_good_ = true;
  try {
    settings_ = parse_settings(text);
    if (!ledger.open(settings_.ledger)) {
      throw std::invalid_argument("bad value of key 'ledger': '" + settings_.ledger + "'");
    }
  } catch (const std::invalid_argument& error) {
    std::cerr << std::string("ORVO_SIM: ") + error.what() + '\n';
    settings_ = Settings{};
    settings_good_ = false;
  }
  clock_ = InstrumentClock(settings_.clock_ps, settings_.pace == Pace::real_time);
  loaded_text_ = std::move(text);
}

bool Driver::any_open() const {
  return std::any_of(devices_.begin(), devices_.end(),
                     [](const auto& device) { return device->device.has_value(); });
}

ot_device* Driver::find(const ot_device* handle) const { return find_in(devices_, handle); }

ot_discovery_list* Driver::find(const ot_discovery_list* list) const {
  return find_in(lists_, list);
}

std::vector<ot_discovery_list::Entry> Driver::attached() const {
  const std::string wanted_serial = environment("ORVO_TIMING_USB_SERIAL");
  std::vector<ot_discovery_list::Entry> entries;
  for (std::uint64_t number = 0; number < settings_.instruments; ++number) {
    if (!wanted_serial.empty() && wanted_serial != serial_of(number)) {
      continue;
    }
    entries.push_back({"sim:" + std::to_string(number), identity_of(number)});
  }
  return entries;
}

Outcome Driver::discover(ot_discovery_list*& out) {
  if (!settings_good_) {
    return {kBadSettings, {}};
  }
  lists_.push_back(std::make_unique<ot_discovery_list>());
  lists_.back()->entries = attached();
  out = lists_.back().get();
  return {};
}

Outcome Driver::open(ot_device*& out, std::string_view port) {
  if (!settings_good_) {
    return {kBadSettings, {}};
  }
  if (any_open()) {
    return {kBusy, {}};
  }
  const auto entries = attached();
  const auto entry = std::find_if(entries.begin(), entries.end(),
                                  [port](const auto& e) { return e.port == port; });
  if (entry == entries.end()) {
    return {OT_ERR_NOT_FOUND, {}};
  }
  devices_.push_back(std::make_unique<ot_device>());
  devices_.back()->device.emplace(settings_, clock_, entry->identity);
  clock_.start();
  out = devices_.back().get();
  return {};
}

void Driver::say_simulated() {
  if (said_simulated_) {
    return;
  }
  said_simulated_ = true;
  std::cerr << "liborvo_timing.so.0: simulated instrument; results say nothing about a real one\n";
}

}  // namespace orvo::simulator
