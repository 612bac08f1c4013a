// The bytes of one stream: what the instrument encodes, and what of it the host receives.
//
// Threads: an object belongs to one thread. Errors: none.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "orvo/simulator/event_source.h"
#include "orvo/simulator/settings.h"
#include "orvo/timing/stream_header.h"

namespace orvo::simulator {

/// The encoded events of one stream.
class Payload {
 public:
  virtual ~Payload() = default;

  /// About `wanted` more bytes of what has happened up to `until_ps`, at least one; empty when
  /// there is none. The caller may change them; they are valid until the next call.
  virtual std::span<std::uint8_t> next(std::size_t wanted, std::uint64_t until_ps) = 0;

  /// The time of the last event in the bytes returned so far.
  [[nodiscard]] virtual std::uint64_t time_ps() const = 0;
};

[[nodiscard]] std::unique_ptr<Payload> generate_payload(const Settings& settings,
                                                        const StreamConfig& config);

/// A stream as the host receives it: noise, the payload with its damage, the end. Owns its payload.
class Stream {
 public:
  Stream(const Settings& settings, std::unique_ptr<Payload> payload);

  /// Fills `out` with what has happened up to `until_ps` and was not read yet; returns the number
  /// of bytes. What does not fit is kept for the next call.
  std::size_t read(std::span<std::uint8_t> out, std::uint64_t until_ps);

  /// The time of the last event in the bytes taken from the payload.
  [[nodiscard]] std::uint64_t time_ps() const { return payload_->time_ps(); }

 private:
  std::size_t deliver(std::span<std::uint8_t> out);
  void damage_next_byte();

  std::unique_ptr<Payload> payload_;
  std::vector<std::uint8_t> noise_;
  std::span<std::uint8_t> pending_;  // in noise_ or in the payload's own storage
  std::uint64_t offset_ = 0;         // of pending_ in the undamaged stream
  std::vector<Damage> damage_;
  std::size_t next_damage_ = 0;
  std::uint64_t bytes_left_;
};

}  // namespace orvo::simulator
