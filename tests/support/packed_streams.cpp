#include "support/packed_streams.h"

#include <algorithm>
#include <array>
#include <bit>
#include <iterator>
#include <utility>

#include "support/record_writer.h"

namespace orvo::tests {
namespace {

constexpr std::uint64_t kWrapPs = 0xD0500000000;
constexpr std::uint64_t kTickMask = (std::uint64_t{1} << 41) - 1;

class Writer : public RecordWriter {
 public:
  Writer(const timing::StreamFileHeader& header, PackedStreams& random)
      : RecordWriter(header.delta_bits == 0 ? 16 : std::min<unsigned>(header.delta_bits, 31)),
        random_(random),
        shift_(header.quantum_ps == 0 ? 3U
                                      : static_cast<unsigned>(std::countr_zero(header.quantum_ps))),
        sync_interval_(8U << random.below(5)),
        step_(std::uint64_t{2} << random.below(payload_bits + 3)) {
    const std::uint64_t start = random.one_in(8) ? 0 : random.below(kTickMask) >> random.below(40);
    channels_.fill({.ticks = start});
    if (header.mode == timing::Mode::external) {
      if (random.one_in(2)) channels_[1 + random.below(2)].first_sync = random.below(2000);
    }
    bits(random.below(1U << 20), static_cast<unsigned>(random.below(20)));  // the cut-off record
  }

  void event(unsigned c) {
    const std::uint64_t step = step_ + random_.below(step_);
    const std::uint64_t number = channels_[c].events++;
    const bool syncs = number >= channels_[c].first_sync && number % sync_interval_ == 0;
    syncs ? sync_by(c, step) : step_by(c, step);
  }

  void fault(unsigned c) {
    const std::uint64_t some = random_.below(ones + 1);
    const auto other = static_cast<unsigned>(random_.below(4));
    const bool flag = random_.one_in(2);
    switch (random_.below(8)) {
      case 0:
        return record(other, flag, some);
      case 1:  // a sync broken off
        record(c, true, ones);
        return record(flag ? c : other, flag, some);
      case 2:  // its data record comes later, if ever
        return sync(c, channels_[c].ticks + random_.below(1000));
      case 3:
        return sync_by(c, critical_ticks());
      case 4:
        return sync_by(c, 0 - critical_ticks());
      case 5:
        return step_by(c, payload_bits < 14 ? some : critical_ticks() & kTickMask);
      case 6:  // a step of any size, also beyond 64 bits
        for (std::uint64_t k = random_.below(12); k > 0; --k) record(c, true, ones - (ones > 1));
        return record(c, false, some);
      default:  // off the record grid
        return bits(some, static_cast<unsigned>(random_.below(payload_bits + 3)));
    }
  }

 private:
  struct Channel {
    std::uint64_t ticks = 0, events = 0, first_sync = 0;
  };

  void sync_by(unsigned c, std::uint64_t ticks) {
    channels_[c].ticks = (channels_[c].ticks + ticks) & kTickMask;
    sync(c, channels_[c].ticks);
    record(c, false, 0);
  }
  void step_by(unsigned c, std::uint64_t ticks) {
    if (ones == 1 && ticks > 1) return sync_by(c, ticks);  // overflow records hold nothing
    channels_[c].ticks = (channels_[c].ticks + ticks) & kTickMask;
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

  PackedStreams& random_;
  unsigned shift_;
  std::uint64_t sync_interval_, step_;
  std::array<Channel, 4> channels_;
};

}  // namespace

timing::StreamFileHeader PackedStreams::header() {
  timing::StreamFileHeader header;
  header.mode = one_in(3) ? timing::Mode::external : timing::Mode::internal;
  header.channel_mask = static_cast<std::uint8_t>(one_in(2) ? 15 : below(16));
  header.delta_bits = static_cast<std::uint8_t>(one_in(3) ? 16 : one_in(20) ? 0 : 1 + below(31));
  header.quantum_ps =
      static_cast<std::uint16_t>(one_in(3) ? 8 : below(1U << 16) >> below(17) << below(16));
  return header;
}

std::vector<std::uint8_t> PackedStreams::stream(const timing::StreamFileHeader& header,
                                                std::size_t bytes, std::uint64_t fault_interval) {
  Writer writer(header, *this);
  const bool in_turn = !one_in(3);
  for (unsigned c = 0; writer.bytes.size() < bytes;
       c = static_cast<unsigned>(in_turn ? c + 1 : below(4)) % 4) {
    if (header.channel_mask != 0 && (header.channel_mask >> c & 1) == 0) continue;
    if (fault_interval != 0 && one_in(fault_interval)) writer.fault(c);
    writer.event(c);
  }
  return std::move(writer.bytes);
}

}  // namespace orvo::tests
