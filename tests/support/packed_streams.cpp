#include "support/packed_streams.h"

#include <algorithm>
#include <array>
#include <bit>

namespace orvo::tests {
namespace {

constexpr std::uint64_t kWrapPs = 0xD0500000000;
constexpr std::uint64_t kTickMask = (std::uint64_t{1} << 41) - 1;

class Writer {
 public:
  Writer(const timing::StreamFileHeader& header, PackedStreams& random)
      : random_(random),
        bits_(header.delta_bits == 0 ? 16 : std::min<unsigned>(header.delta_bits, 31)),
        ones_((std::uint64_t{1} << bits_) - 1),
        shift_(header.quantum_ps == 0 ? 3U
                                      : static_cast<unsigned>(std::countr_zero(header.quantum_ps))),
        sync_interval_(8U << random.below(5)),
        step_(std::uint64_t{2} << random.below(bits_ + 3)) {
    const std::uint64_t start = random.one_in(8) ? 0 : random.below(kTickMask) >> random.below(40);
    ticks_.fill(start);
    for (std::uint64_t& first : first_syncs_) {
      first = header.mode == timing::Mode::external && random.one_in(2) ? random.below(2000) : 0;
    }
    first_syncs_[static_cast<unsigned>(std::countr_zero(header.channel_mask)) % 4] =
        first_syncs_[3] = 0;
    put(random.below(1U << 20), static_cast<unsigned>(random.below(20)));  // the cut-off record
  }

  /// The next event of channel `c`.
  void event(unsigned c) {
    const std::uint64_t step = step_ + random_.below(step_);
    const std::uint64_t number = events_[c]++;
    number >= first_syncs_[c] && number % sync_interval_ == 0 ? sync(c, ticks_[c] + step)
                                                              : data(c, step);
  }

  void fault(unsigned c) {
    const std::uint64_t some = random_.below(ones_ + 1);
    const auto other = static_cast<unsigned>(random_.below(4));
    const bool flag = random_.one_in(2);
    switch (random_.below(8)) {
      case 0:
        return record(other, flag, some);
      case 1:  // a sync broken off
        record(c, true, ones_);
        return record(flag ? c : other, flag, some);
      case 2:  // its data record comes later, if ever
        return sync(c, ticks_[c] + random_.below(1000), false);
      case 3:
        return sync(c, ticks_[c] + critical_ticks());
      case 4:
        return sync(c, ticks_[c] - critical_ticks());
      case 5:
        return data(c, bits_ < 14 ? some : critical_ticks() & kTickMask);
      case 6:  // a step of any size, also beyond 64 bits
        for (std::uint64_t k = random_.below(12); k > 0; --k) record(c, true, ones_ - (ones_ > 1));
        return record(c, false, some);
      default:  // off the record grid
        return put(some, static_cast<unsigned>(random_.below(bits_ + 3)));
    }
  }

  [[nodiscard]] std::size_t size() const { return bytes_.size(); }
  std::vector<std::uint8_t> take() { return std::move(bytes_); }

 private:
  void put(std::uint64_t value, unsigned bits) {
    for (; bits-- > 0; ++used_bits_) {
      if (used_bits_ % 8 == 0) bytes_.push_back(0);
      const std::uint64_t bit = (value >> bits & 1) << (7 - used_bits_ % 8);
      bytes_.back() = static_cast<std::uint8_t>(bytes_.back() | bit);
    }
  }
  void record(unsigned c, bool flag, std::uint64_t payload) {
    put(std::uint64_t{c} << (bits_ + 1) | std::uint64_t{flag} << bits_ | payload, bits_ + 3);
  }
  void sync(unsigned c, std::uint64_t ticks, bool anchor_data = true) {
    ticks_[c] = ticks & kTickMask;
    record(c, true, ones_);
    for (unsigned sent = 0; sent < 41; sent += bits_) record(c, false, ticks_[c] >> sent & ones_);
    if (anchor_data) record(c, false, 0);
  }
  void data(unsigned c, std::uint64_t ticks) {
    if (bits_ == 1 && ticks > 1)
      return sync(c, ticks_[c] + ticks);  // overflow records hold nothing
    ticks_[c] = (ticks_[c] + ticks) & kTickMask;
    for (std::uint64_t left = ticks >> bits_; left > 0;) {
      const std::uint64_t payload = std::min(left, ones_ - 1);
      record(c, true, payload);
      left -= payload;
    }
    record(c, false, ticks & ones_);
  }

  /// Near one of the steps at which a decoder decides something, or the step itself.
  std::uint64_t critical_ticks() {
    const std::uint64_t period = std::uint64_t{1} << (41 + shift_);
    const std::uint64_t excess = (0 - kWrapPs) & (period - 1);
    const std::array<std::uint64_t, 9> critical = {0,
                                                   1'000'000,
                                                   excess,
                                                   excess + 10'000'000'000,
                                                   1'000'000'000'000,
                                                   period - 1'000'000,
                                                   period,
                                                   period / 2,
                                                   std::min(period, kWrapPs) / 2};
    const std::uint64_t near = random_.one_in(3) ? 0 : random_.below(64) << random_.below(28);
    const std::uint64_t value = critical[random_.below(critical.size())];
    return (random_.one_in(2) ? value + near : value - std::min(near, value)) >> shift_;
  }

  PackedStreams& random_;
  unsigned bits_;
  std::uint64_t ones_;
  unsigned shift_;
  std::uint64_t sync_interval_, step_;
  std::array<std::uint64_t, 4> ticks_{}, events_{}, first_syncs_{};
  std::vector<std::uint8_t> bytes_;
  std::uint64_t used_bits_ = 0;
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
                                                std::size_t bytes, std::uint64_t fault_interval,
                                                bool slows_down) {
  Writer writer(header, *this);
  const std::uint64_t rarely = slows_down ? 2 + below(12) : 1;  // channel 0 sends, at last
  const bool in_turn = !one_in(3);
  for (unsigned c = 0; writer.size() < bytes;
       c = static_cast<unsigned>(in_turn ? c + 1 : below(4)) % 4) {
    if (header.channel_mask != 0 && (header.channel_mask >> c & 1) == 0) continue;
    if (fault_interval != 0 && one_in(fault_interval)) writer.fault(c);
    if (c != 0 || writer.size() < bytes / 2 || one_in(rarely)) writer.event(c);
  }
  return writer.take();
}

std::vector<std::uint8_t> PackedStreams::noise(std::size_t bytes) {
  std::vector<std::uint8_t> noise(bytes);
  const std::uint64_t ones = below(4);
  for (std::uint8_t& byte : noise) {
    std::uint64_t r = random_();
    for (std::uint64_t k = 0; k < 2 * ones; ++k) r |= r >> 8;
    byte = static_cast<std::uint8_t>(r);
  }
  return noise;
}

void PackedStreams::damage(std::vector<std::uint8_t>& bytes) {
  const auto at = bytes.begin() + static_cast<std::ptrdiff_t>(below(bytes.size()));
  const auto end =
      at + std::min<std::ptrdiff_t>(bytes.end() - at, static_cast<std::ptrdiff_t>(below(40)));
  const std::vector<std::uint8_t> some(at, end);
  switch (below(3)) {
    case 0:
      *at = static_cast<std::uint8_t>(*at ^ 1U << below(8));
      return;
    case 1:
      bytes.erase(at, end);
      return;
    default:
      bytes.insert(at, some.begin(), some.end());
  }
}

}  // namespace orvo::tests
