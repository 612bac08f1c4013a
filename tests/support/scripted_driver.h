// A driver library inside the test program: it does what a script says and writes down every call.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "orvo/timing/device/ot_api.h"

namespace orvo::tests {

struct ScriptedRead {
  ot_status status = OT_OK;
  std::string bytes;  // copied as far as they fit; the count reported is that of all, on any status
  std::uint64_t claimed = 0;  // more bytes, reported and not written
};

struct ScriptedInstrument {
  std::optional<std::string> port;
  std::optional<ot_identity> identity;
};

/// Installs itself as what the ot_ operations do, for as long as it lives; one at a time.
///
/// A call is recorded as its name without "ot_" and its inputs, then, where it has outputs, "/" and
/// what they held on entry ("set_calibration_freq 1000/0"), followed by "; ". A call on a wrong
/// handle or list, or from a thread other than the one that made the script, is marked with "!".
class ScriptedDriver {
 public:
  ScriptedDriver() { current = this; }
  ~ScriptedDriver() { current = nullptr; }
  ScriptedDriver(const ScriptedDriver&) = delete;
  ScriptedDriver& operator=(const ScriptedDriver&) = delete;

  std::vector<ScriptedInstrument> instruments;
  std::string failing = "-";  // beginning of the recorded calls that fail
  ot_status failure = OT_ERR_IO;
  std::optional<std::string> status_text = "status text";
  std::optional<std::string> detail_text = "detail";
  std::optional<std::uint8_t> effective_bits;  // nothing: the output is left as it was
  std::optional<std::uint16_t> effective_quantum_ps;
  std::vector<ScriptedRead> reads;  // one a call, oldest first; later ones are not written down

  /// The calls since the last time.
  std::string take_calls() { return std::exchange(calls_, {}); }

  /// What the call returns, unless it has its own status.
  ot_status record(const std::string& call, bool valid = true);

  static inline ScriptedDriver* current = nullptr;

 private:
  const std::thread::id owner_ = std::this_thread::get_id();
  std::string calls_;
};

}  // namespace orvo::tests
