// The settings of the simulated instrument: the text of ORVO_SIM as values.
//
// Threads: plain values and a function without state, for any thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orvo/simulator/instrument.h"
#include "orvo/timing/ot_status.h"

namespace orvo::simulator {

/// A channel loses `count` events, before they are encoded, from its event number `first` on.
struct Loss {
  unsigned channel = 0;
  std::uint64_t count = 0;
  std::uint64_t first = 0;
};

struct Damage {
  enum class Kind { flip, drop };
  Kind kind = Kind::flip;
  std::uint64_t offset = 0;  ///< byte of the undamaged stream
};

/// A call of the driver library that is to fail.
struct Failure {
  std::string operation;
  std::uint64_t call = 1;  ///< number of the operation's call, from 1 at the library's loading
  ot_status status = OT_ERR_IO;
  bool always = false;  ///< this call and all later ones
  bool effect = false;  ///< the call does its work before it reports the failure
  std::string detail;   ///< text for ot_last_error
};

enum class Pace { real_time, unpaced_bytes, unpaced_ps };

struct Settings {
  std::uint64_t seed = 1;
  std::uint64_t instruments = 1;
  std::array<std::int64_t, kChannels> rate_error_per_1e12{};  ///< millionths of a ppm
  std::uint64_t jitter_ps = 3;
  std::array<std::uint64_t, kChannels> external_hz{100'000, 80'000, 60'000, 40'000};
  std::array<bool, kChannels> silent{};
  std::vector<Loss> losses;
  std::optional<std::uint64_t> bit_phase;  ///< unset: from the seed
  std::uint64_t clock_ps = 1'000'000'000'000;
  std::uint64_t sync_interval = 256;
  std::uint64_t noise_bytes = 0;
  std::vector<Damage> damage;  ///< in the order of their offsets
  Pace pace = Pace::real_time;
  std::uint64_t end = kNever;  ///< of an unpaced stream, in bytes or picoseconds
  std::vector<Failure> failures;
  std::string ledger;  ///< path; empty: none
};

/// Reads "key=value;key=value". Throws std::invalid_argument with a text that names the key.
[[nodiscard]] Settings parse_settings(std::string_view text);

}  // namespace orvo::simulator
