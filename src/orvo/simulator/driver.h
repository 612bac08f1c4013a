// What the driver library holds: settings, ledger, the attached instruments, and every handle that
// it gave out. Closed handles stay known, so that a call after the close is recognised.
//
// Threads: `mutex` guards a driver; each call holds it to its end (call.h).
#pragma once

#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "orvo/simulator/device.h"
#include "orvo/simulator/settings.h"
#include "orvo/timing/device/ot_api.h"

namespace orvo::simulator {

/// The protocol ledger: a line for each call, and one that begins with "misuse" for each breach of
/// the protocol. A line is in the file before the call returns, however the process ends. The first
/// write that fails ends the ledger and is reported on standard error.
class Ledger {
 public:
  /// Begins a new file, or continues the one that is open already; "" records nothing. Returns
  /// whether that worked.
  [[nodiscard]] bool open(const std::string& path);

  void call(const std::string& line) { write(line); }
  void misuse(const std::string& line);
  /// The last line of a process that ends in order.
  void end() { write("end misuses=" + std::to_string(misuses_)); }

 private:
  void write(const std::string& line);

  std::ofstream file_;
  std::string path_;
  unsigned misuses_ = 0;
};

/// The state of a device's stream by the statuses that the caller got. A stop that failed is to be
/// repeated once, with flag 0; the stream then counts as stopped, also if that fails.
enum class StreamState { idle, running, stop_failed };

}  // namespace orvo::simulator

struct ot_device {
  std::optional<orvo::simulator::Device> device;  // empty: closed
  std::string last_error;
  orvo::simulator::StreamState stream = orvo::simulator::StreamState::idle;
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
  Driver() = default;
  ~Driver();
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;

  /// Reads ORVO_SIM if it has changed and no instrument is open. Reports bad settings on standard
  /// error.
  void load_settings();
  [[nodiscard]] const Settings& settings() const { return settings_; }

  Outcome discover(ot_discovery_list*& out);
  Outcome open(ot_device*& out, std::string_view port);
  /// Says on standard error, once a process, that results are those of a simulation.
  void say_simulated();

  /// The device or list itself; null for one that this driver did not give out.
  [[nodiscard]] ot_device* find(const ot_device* handle) const;
  [[nodiscard]] ot_discovery_list* find(const ot_discovery_list* list) const;

  std::mutex mutex;
  Ledger ledger;
  std::map<std::string_view, std::uint64_t> calls;  ///< by operation
  std::vector<std::thread::id> threads;             ///< in the order of first calls

 private:
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
