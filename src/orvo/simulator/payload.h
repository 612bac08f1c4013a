// Where the bytes of one stream come from: encoded events, or a recording.
//
// Threads: a payload belongs to one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "orvo/simulator/event_source.h"
#include "orvo/simulator/packed_encoder.h"
#include "orvo/simulator/settings.h"
#include "orvo/timing/stream_header.h"

namespace orvo::simulator {

class Payload {
 public:
  virtual ~Payload() = default;

  /// About `wanted` more bytes of what has happened up to `until_ps`, at least one; empty when
  /// there are none. The caller may change them; they are valid until the next call.
  virtual std::span<std::uint8_t> next(std::size_t wanted, std::uint64_t until_ps) = 0;

  /// When the last event happened that is in the bytes handed out.
  [[nodiscard]] virtual std::uint64_t time_ps() const = 0;
};

struct StreamConfig {
  timing::Format format = timing::Format::packed_delta;
  std::uint8_t delta_bits = 16;  ///< 1 to 31
  std::uint16_t quantum_ps = 8;  ///< not 0
  SourceConfig source;
};

/// Events as commanded, in the format wanted.
[[nodiscard]] std::unique_ptr<Payload> generate_payload(const Settings& settings,
                                                        const StreamConfig& config);

}  // namespace orvo::simulator
