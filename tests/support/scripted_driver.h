// A driver library inside the test program: it does what a script says and writes down every call.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "orvo/timing/device/ot_api.h"

namespace orvo::tests {

/// What the ot_ operations do. A call is written down as its name without "ot_" and its inputs,
/// then, where it has outputs, "/" and what they held on entry ("set_calibration_freq 1000/0").
struct ScriptedDriver {
  struct Instrument {
    const char* port = nullptr;
    const ot_identity* identity = nullptr;
  };
  struct Read {
    ot_status status = OT_OK;
    std::string bytes;          // copied as far as they fit; the count reported is that of all
    std::uint64_t claimed = 0;  // more bytes, reported and not written
  };

  std::vector<Instrument> instruments;
  std::string failing = "-";  // beginning of the calls that fail
  const char* status_text = "status text";
  const char* detail_text = "detail";
  std::optional<std::uint8_t> effective_bits;  // nothing: the output is left as it was
  std::optional<std::uint16_t> effective_quantum_ps;
  std::vector<Read> reads;  // one a call, oldest first; later ones are not written down

  std::string calls;
  std::string take_calls() { return std::exchange(calls, {}); }
};

extern ScriptedDriver driver;  // a test begins with driver = {}

}  // namespace orvo::tests
