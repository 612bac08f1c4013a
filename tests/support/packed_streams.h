// Packed-delta streams out of a seed: records as an instrument sends them, with others among them
// that a decoder has to notice. One seed and one compiler give the same streams again.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <iterator>
#include <random>

#include "orvo/timing/stream_header.h"
#include "support/record_writer.h"

namespace orvo::tests {

class Random {
 public:
  explicit Random(std::uint64_t seed) : random_(seed) {}

  std::uint64_t below(std::uint64_t end) { return random_() % end; }
  bool one_in(std::uint64_t n) { return below(n) == 0; }

 private:
  std::mt19937_64 random_;
};

inline timing::StreamFileHeader some_header(Random& random) {
  timing::StreamFileHeader header;
  header.mode = random.one_in(3) ? timing::Mode::external : timing::Mode::internal;
  header.channel_mask = static_cast<std::uint8_t>(random.one_in(40)  ? 0x30  // none is active
                                                  : random.one_in(2) ? 15
                                                                     : random.below(16));
  header.delta_bits = static_cast<std::uint8_t>(random.one_in(3)    ? 16
                                                : random.one_in(20) ? 0
                                                                    : 1 + random.below(31));
  const std::uint64_t quantum_ps = random.below(1U << 16) >> random.below(17) << random.below(16);
  header.quantum_ps = static_cast<std::uint16_t>(random.one_in(3) ? 8 : quantum_ps);
  return header;
}

/// About `size` bytes that start in mid-record. One record in `fault_interval` is not as an
/// instrument sends it; 0 for none. In external mode channels past the first two may have no sync
/// for long.
class PackedStream : public RecordWriter {
 public:
  PackedStream(Random& random, const timing::StreamFileHeader& header, std::size_t size,
               std::uint64_t fault_interval)
      : RecordWriter(header.delta_bits == 0 ? 16 : std::min<unsigned>(header.delta_bits, 31)),
        random_(random),
        shift_(header.quantum_ps == 0 ? 3U
                                      : static_cast<unsigned>(std::countr_zero(header.quantum_ps))),
        sync_interval_(8U << random.below(5)),
        step_(std::uint64_t{2} << random.below(payload_bits + 3)) {
    const std::uint64_t start = random.one_in(8) ? 0 : random.below(kTickMask) >> random.below(40);
    channels_.fill({.ticks = start});
    if (header.mode == timing::Mode::external && random.one_in(2)) {
      channels_[1 + random.below(2)].first_sync = random.below(2000);
    }
    bits(random.below(1U << 20), static_cast<unsigned>(random.below(20)));  // the cut-off record
    const unsigned active = (header.channel_mask & 15) == 0 ? 15 : header.channel_mask;
    const bool in_turn = !random.one_in(3);
    for (unsigned c = 0; bytes.size() < size;
         c = static_cast<unsigned>(in_turn ? c + 1 : random.below(4)) % 4) {
      if ((active >> c & 1) == 0) continue;
      if (fault_interval != 0 && random.one_in(fault_interval)) fault(c);
      event(c);
    }
  }

 private:
  static constexpr std::uint64_t kWrapPs = 0xD0500000000;
  static constexpr std::uint64_t kTickMask = (std::uint64_t{1} << 41) - 1;

  struct Channel {
    std::uint64_t ticks = 0, events = 0, first_sync = 0;
  };

  void event(unsigned c) {
    const std::uint64_t number = channels_[c].events++;
    const bool syncs = number >= channels_[c].first_sync && number % sync_interval_ == 0;
    step(c, step_ + random_.below(step_), syncs);
  }

  void fault(unsigned c) {
    const std::uint64_t some = random_.below(ones + 1);
    const auto other = static_cast<unsigned>(random_.below(4));
    const bool flag = random_.one_in(2);
    switch (random_.below(7)) {
      case 0:
        return record(other, flag, some);
      case 1:  // a sync broken off
        record(c, true, ones);
        return record(flag ? c : other, flag, some);
      case 2:  // its data record comes later, if ever
        return sync(c, channels_[c].ticks + random_.below(1000));
      case 3:  // ahead or back
        return step(c, flag ? critical_ticks() : 0 - critical_ticks(), true);
      case 4:
        return step(c, payload_bits < 14 ? some : critical_ticks() & kTickMask, false);
      case 5:  // a step of any size, also beyond 64 bits
        for (std::uint64_t k = random_.below(12); k > 0; --k) record(c, true, ones - (ones > 1));
        return record(c, false, some);
      default:  // off the record grid
        return bits(some, static_cast<unsigned>(random_.below(payload_bits + 3)));
    }
  }

  void step(unsigned c, std::uint64_t ticks, bool syncs) {
    std::uint64_t& now = channels_[c].ticks;
    now = (now + ticks) & kTickMask;
    if (syncs || (ones == 1 && ticks > 1)) {  // overflow records of one bit hold nothing
      sync(c, now);
      ticks = 0;
    }
    data(c, ticks);
  }

  /// One of the steps at which a decoder decides something, or near it.
  std::uint64_t critical_ticks() {
    const std::uint64_t period = std::uint64_t{1} << (41 + shift_);
    const std::uint64_t excess = (0 - kWrapPs) & (period - 1);
    const std::uint64_t critical[] = {
        0,          1'000'000,          excess, excess + 10'000'000'000,      1'000'000'000'000,
        period / 2, period - 1'000'000, period, std::min(period, kWrapPs) / 2};
    const std::uint64_t near = random_.one_in(3) ? 0 : random_.below(64) << random_.below(28);
    const std::uint64_t value = critical[random_.below(std::size(critical))];
    return (random_.one_in(2) ? value + near : value - std::min(near, value)) >> shift_;
  }

  Random& random_;
  unsigned shift_;
  std::uint64_t sync_interval_, step_;
  std::array<Channel, 4> channels_;
};

}  // namespace orvo::tests
