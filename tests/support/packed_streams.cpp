#include "support/packed_streams.h"

#include <algorithm>
#include <array>
#include <bit>

namespace orvo::tests {
namespace {

constexpr std::uint64_t kWrapPs = 0xD0500000000;
constexpr std::uint64_t kTickMask = (std::uint64_t{1} << 41) - 1;
constexpr std::uint64_t kMaxOverflowRecords = 120;  // more than a wrap takes at 16 bits

class Writer {
 public:
  Writer(const timing::StreamFileHeader& header, PackedStreams& random)
      : random_(random),
        bits_(header.delta_bits == 0 ? 16 : std::min<unsigned>(header.delta_bits, 31)),
        ones_((std::uint64_t{1} << bits_) - 1),
        shift_(header.quantum_ps == 0 ? 3U
                                      : static_cast<unsigned>(std::countr_zero(header.quantum_ps))),
        mask_(header.channel_mask == 0 ? 0xFU : header.channel_mask & 0xFU),
        sync_interval_(8U << random.below(5)) {
    const std::uint64_t period_ps = std::uint64_t{64}
                                    << (shift_ + random.below(std::min(bits_ + 8, 24U)));
    const std::uint64_t start_ps = random.one_in(8)   ? 0
                                   : random.one_in(2) ? kWrapPs - random.below(2000 * period_ps)
                                                      : random.below(kWrapPs) >> random.below(44);
    const bool same_rates = !random.one_in(3);
    const bool some_late = header.mode == timing::Mode::external && random.one_in(2);
    for (unsigned c = 0, active = 0; c < 4; ++c) {
      active += mask_ >> c & 1;
      if (some_late && active > 2) channels_[c].first_sync = random.below(1U << random.below(22));
      channels_[c].time_ps = start_ps + c * period_ps / 4;
      channels_[c].period_ps = period_ps * (same_rates ? 4 : 4 + random.below(5)) / 4;
    }
    put(random.below(1U << 20), static_cast<unsigned>(random.below(20)));  // the cut-off record
  }

  /// The next event of the channel that is due first.
  void event(bool faulty) {
    unsigned c = 4;
    for (unsigned k = 0; k < 4; ++k) {
      if ((mask_ >> k & 1) != 0 && (c == 4 || channels_[k].time_ps < channels_[c].time_ps)) c = k;
    }
    if (c == 4 || faulty) return fault(c % 4);
    move(c, channels_[c].period_ps + random_.below(channels_[c].period_ps / 32));
  }

  /// Channel 0 sends rarely from now on, or no more.
  void slow_down() {
    channels_[0].period_ps *= random_.one_in(3) ? 1U << 16 : 6 + random_.below(6);
  }

  [[nodiscard]] std::size_t size() const { return bytes_.size(); }
  std::vector<std::uint8_t> take() { return std::move(bytes_); }

 private:
  struct Channel {
    std::uint64_t time_ps, period_ps, events = 0, first_sync = 0;
  };

  [[nodiscard]] std::uint64_t tick(std::uint64_t time_ps) const {
    return time_ps % kWrapPs >> shift_ & kTickMask;
  }

  void put(std::uint64_t value, unsigned bits) {
    for (unsigned k = bits; k-- > 0;) {
      if (used_bits_ % 8 == 0) bytes_.push_back(0);
      if ((value >> k & 1) != 0) {
        bytes_.back() = static_cast<std::uint8_t>(bytes_.back() | 0x80U >> used_bits_ % 8);
      }
      ++used_bits_;
    }
  }
  void record(unsigned c, bool flag, std::uint64_t payload) {
    put(std::uint64_t{c} << (bits_ + 1) | std::uint64_t{flag} << bits_ | payload, bits_ + 3);
  }

  void sync(unsigned c, std::uint64_t ticks, bool anchor_data = true) {
    record(c, true, ones_);
    for (unsigned sent = 0; sent < 41; sent += bits_) record(c, false, ticks >> sent & ones_);
    if (anchor_data) record(c, false, 0);
  }
  void data(unsigned c, std::uint64_t ticks) {
    for (std::uint64_t left = ticks >> bits_; left > 0;) {
      const std::uint64_t payload = std::min(left, ones_ - 1);
      record(c, true, payload);
      left -= payload;
    }
    record(c, false, ticks & ones_);
  }
  // Sends the channel's next event; a step that takes too many overflow records goes as a sync.
  void move(unsigned c, std::uint64_t by_ps, bool may_sync = true) {
    Channel& channel = channels_[c];
    const std::uint64_t before = tick(channel.time_ps);
    channel.time_ps += by_ps;
    const std::uint64_t step = (tick(channel.time_ps) - before) & kTickMask;
    const bool too_far =
        bits_ == 1 ? step > 1 : (step >> bits_) / (ones_ - 1) >= kMaxOverflowRecords;
    const bool due = channel.events >= channel.first_sync && channel.events % sync_interval_ == 0;
    ++channel.events;
    too_far || (due && may_sync) ? sync(c, tick(channel.time_ps)) : data(c, step);
  }

  // Near one of the steps at which a decoder decides something.
  std::uint64_t critical_ps() {
    const std::uint64_t period = std::uint64_t{1} << (41 + shift_);
    const std::uint64_t excess = (0 - kWrapPs) & (period - 1);
    const std::array<std::uint64_t, 8> critical = {
        0,      excess,     excess + 10'000'000'000,      1'000'000'000'000, period - 1'000'000,
        period, period / 2, std::min(period, kWrapPs) / 2};
    const std::uint64_t near = random_.below(64) << random_.below(28);
    const std::uint64_t value = critical[random_.below(critical.size())];
    return random_.one_in(2) ? value + near : value - std::min(near, value);
  }

  void fault(unsigned c) {
    const std::uint64_t time_ps = channels_[c].time_ps;
    const std::uint64_t some = random_.below(ones_ + 1);
    const auto other = static_cast<unsigned>(random_.below(4));
    const bool flag = random_.one_in(2);
    switch (random_.below(10)) {
      case 0:
        return record(other, flag, some);
      case 1:  // a sync broken off
        record(c, true, ones_);
        return record(flag ? c : other, flag, some);
      case 2:  // its data record comes later, if ever
        return sync(c, tick(time_ps) + random_.below(1000), false);
      case 3:
        return sync(c, tick(time_ps + critical_ps()));
      case 4:
        return sync(c, tick(time_ps + 6000 * kWrapPs - critical_ps()));
      case 5:
        return move(c, random_.below(kWrapPs / 2), flag);
      case 6:  // a step across the clock wrap
        return move(c, kWrapPs - time_ps % kWrapPs + (some >> random_.below(32)), false);
      case 7:
        return data(c, bits_ < 14 ? some : critical_ps() >> shift_);
      case 8:  // a step of any size, also beyond 64 bits
        for (std::uint64_t k = random_.below(12); k > 0; --k) record(c, true, ones_ - (ones_ > 1));
        return record(c, false, some);
      default:  // off the record grid
        return put(some, static_cast<unsigned>(random_.below(bits_ + 3)));
    }
  }

  PackedStreams& random_;
  unsigned bits_;
  std::uint64_t ones_;
  unsigned shift_;
  unsigned mask_;
  std::uint64_t sync_interval_;
  std::array<Channel, 4> channels_{};
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
  while (writer.size() < bytes) {
    writer.event(fault_interval != 0 && one_in(fault_interval));
    if (slows_down && writer.size() > bytes / 2) {
      writer.slow_down();
      slows_down = false;
    }
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
