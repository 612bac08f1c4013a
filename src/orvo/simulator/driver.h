// What the driver library holds: its settings, the attached instruments, and every handle given
// out. Closed handles stay known, so that a call after the close is recognised.
//
// Threads: guarded by `mutex`, which each call holds to its end (see call.h).
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "orvo/simulator/device.h"
#include "orvo/simulator/instrument_clock.h"
#include "orvo/simulator/ledger.h"
#include "orvo/simulator/operation.h"
#include "orvo/simulator/settings.h"
#include "orvo/timing/device/ot_api.h"

namespace orvo::simulator {

/// What a user of the device owes by the results that it was given: a stream whose stop failed is
/// stopped once more, by flag 0, and then left alone.
enum class StreamDuty { none, running, stop_failed };

}  // namespace orvo::simulator

struct ot_device {
  std::optional<orvo::simulator::Device> device;  // empty: closed
  std::string last_error;
  orvo::simulator::StreamDuty duty = orvo::simulator::StreamDuty::none;
};

struct ot_discovery_list {
  struct Entry {
    std::string port;
    ot_identity identity;
  };
  std::vector<Entry> entries;
  bool freed = false;
};

namespace orvo::simulator {

class Driver {
 public:
  static Driver& instance();
  ~Driver();
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;

  /// Reads ORVO_SIM if it has changed; settings stay while an instrument is open. Bad ones are
  /// told on standard error.
  void load_settings();
  [[nodiscard]] const Settings& settings() const { return settings_; }

  Outcome discover(ot_discovery_list*& out);
  Outcome open(ot_device*& out, std::string_view port);
  static void close(ot_device& device) { device.device.reset(); }
  /// Says on standard error, once a process, that results are those of a simulation.
  void say_simulated();

  [[nodiscard]] bool knows(const ot_device* device) const;
  [[nodiscard]] bool knows(const ot_discovery_list* list) const;

  std::mutex mutex;
  Ledger ledger;
  std::array<std::uint64_t, kOperations.size()> calls{};
  std::vector<std::thread::id> threads;  // in the order of their first calls

 private:
  Driver() = default;

  [[nodiscard]] bool any_open() const;
  [[nodiscard]] std::vector<ot_discovery_list::Entry> attached() const;

  Settings settings_;
  std::optional<std::string> loaded_text_;
  bool settings_good_ = false;
  bool said_simulated_ = false;
  InstrumentClock clock_{0, true};
  std::vector<std::unique_ptr<ot_device>> devices_;
  std::vector<std::unique_ptr<ot_discovery_list>> lists_;
};

}  // namespace orvo::simulator
