// The bytes of one stream as the host receives them: noise, the payload with its damage, the end.
//
// Threads: a stream belongs to one thread. Ownership: owns its payload.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "orvo/simulator/payload.h"
#include "orvo/simulator/settings.h"

namespace orvo::simulator {

class Stream {
 public:
  Stream(const Settings& settings, std::unique_ptr<Payload> payload);

  /// Fills `out` with what has happened up to `until_ps` and was not read yet; returns the number
  /// of bytes. What does not fit is kept for the next call.
  std::size_t read(std::span<std::uint8_t> out, std::uint64_t until_ps);

  /// When the last event happened that is in the bytes read.
  [[nodiscard]] std::uint64_t time_ps() const { return payload_->time_ps(); }

 private:
  std::size_t deliver(std::span<std::uint8_t> out);
  std::size_t deliver_whole(std::span<std::uint8_t> out);
  void consume(std::size_t count);

  std::unique_ptr<Payload> payload_;
  std::vector<std::uint8_t> noise_;
  std::span<std::uint8_t> pending_;  // in noise_ or in the payload's own storage
  std::uint64_t offset_ = 0;         // of pending_ in the undamaged stream
  std::vector<Damage> damage_;
  std::size_t next_damage_ = 0;
  std::uint64_t bytes_left_;
};

}  // namespace orvo::simulator
