#include "support/plain_decoder.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <tuple>
#include <utility>

namespace orvo::tests {
namespace {

using Kind = timing::LockEvent::Kind;

constexpr std::uint64_t kTickMask = (std::uint64_t{1} << 41) - 1;
constexpr std::uint64_t kUncheckedStepPs = 10'000'000'000;
constexpr std::uint64_t kPlausibleStepPs = 1'000'000'000'000;
constexpr std::uint64_t kBackwardTolerancePs = 1'000'000;

std::int64_t as_signed(std::uint64_t value) { return static_cast<std::int64_t>(value); }
std::uint64_t not_below_zero(std::uint64_t value) { return as_signed(value) < 0 ? 0 : value; }

}  // namespace

PlainDecoder::Record PlainDecoder::read_record(std::uint64_t bit) const {
  const std::size_t first = bit / 8;
  std::uint64_t window = 0;
  if (first + 8 <= input_buffer.size()) {
    std::memcpy(&window, input_buffer.data() + first, 8);
    if constexpr (std::endian::native == std::endian::little) window = __builtin_bswap64(window);
  } else {
    for (std::size_t k = first; k < first + 8; ++k) {
      window = window << 8 | (k < input_buffer.size() ? input_buffer[k] : 0U);
    }
  }
  const std::uint64_t record = window << (bit % 8) >> (64 - width_);
  return {static_cast<unsigned>(record >> (bits_ + 1)), (record >> bits_ & 1) != 0,
          record & all_ones_};
}

PlainDecoder::Event PlainDecoder::tally(Kind kind, const Counts& counts) const {
  Event event{.kind = kind};
  event.min = ~std::uint64_t{0};
  for (unsigned c = 0; c < 4; ++c) {
    if (!active(c)) continue;
    if (counts[c] > 0) ++event.synced;
    event.min = std::min(event.min, counts[c]);
    event.max = std::max(event.max, counts[c]);
    event.total += counts[c];
  }
  return event;
}

/// What `n` records from this bit on hold; begins after the last of them that no stream has.
PlainDecoder::Event PlainDecoder::parse_from(std::uint64_t byte, std::uint64_t shift,
                                             std::uint64_t n) const {
  Counts counts{};
  std::uint64_t begin = 0;
  unsigned countdown = 0, channel_in_sync = 0;
  int pending_channel = -1;
  std::uint64_t bit = 8 * byte + shift;
  for (std::uint64_t i = 0; i < n; ++i, bit += width_) {
    const Record record = read_record(bit);
    const unsigned c = record.channel;
    if (!active(c) || (countdown > 0 && (c != channel_in_sync || record.flag))) {
      counts = {};
      begin = i + 1;
      countdown = 0;
      pending_channel = -1;
    } else if (countdown > 0) {
      if (--countdown == 0) pending_channel = static_cast<int>(c);
    } else if (record.flag) {
      if (record.payload != all_ones_) continue;
      countdown = sync_length_;
      channel_in_sync = c;
    } else if (pending_channel == static_cast<int>(c)) {
      ++counts[c];
      pending_channel = -1;
    } else if (counts[c] > 0) {
      ++counts[c];
    }
  }
  Event event = tally(Kind::locked, counts);
  if (internal_ && active_channels_ > 1 && 2 * event.min < event.max) {
    event.kind = Kind::rejected_alignment;
  }
  event.drop_bytes = byte + (begin * width_ + shift) / 8;
  event.bit_offset = (begin * width_ + shift) % 8;
  return event;
}

std::optional<PlainDecoder::Event> PlainDecoder::probe_packed_alignment() const {
  std::optional<Event> best, rejected;
  if (input_buffer.empty()) return {};
  const std::uint64_t last_byte =
      std::min<std::uint64_t>(active_channels_ == 1 ? 16 : 64, input_buffer.size() - 1);
  const unsigned needed =
      std::max(internal_ ? active_channels_ : std::min(active_channels_, 2U), 1U);
  const auto rank = [this](const Event& e) {
    const bool refused = e.kind == Kind::rejected_alignment;
    return std::tuple(e.synced, active_channels_ > 1 && !refused ? e.min : 0, e.total);
  };
  for (std::uint64_t b = 0; b <= last_byte; ++b) {
    const std::uint64_t span_bits = 8 * std::min<std::uint64_t>(input_buffer.size() - b, 65'536);
    for (std::uint64_t s = 0; s < width_ && s + width_ <= span_bits; ++s) {
      const Event event = parse_from(b, s, (span_bits - s) / width_);
      if (event.synced < needed) continue;
      std::optional<Event>& kept = event.kind == Kind::locked ? best : rejected;
      if (!kept || rank(event) > rank(*kept)) kept = event;
    }
  }
  return best ? best : rejected;
}

bool PlainDecoder::take_lock() {
  std::optional<Event> found = probe_packed_alignment();
  locked = found && found->kind == Kind::locked;
  if (locked) {
    bit_offset = found->bit_offset;
    remove_front(found->drop_bytes);
    found->buffer_bytes = input_buffer.size();
  }
  if (found) report(*found);
  if (locked) return true;
  const std::uint64_t size = input_buffer.size();
  if (size < 4096) return false;
  const std::uint64_t given_up = size > 65'536 ? size - 4096 : 0;
  remove_front(given_up);
  report({.kind = Kind::no_alignment, .drop_bytes = given_up, .buffer_bytes = size});
  return false;
}

std::vector<timing::TimeTag> PlainDecoder::feed_packed_delta() {
  tags_.clear();
  if (bits_ > 31 || !(locked || take_lock())) return {};
  const std::uint64_t stream_bits = 8 * input_buffer.size();
  if (stream_bits < bit_offset + width_) return {};
  const std::uint64_t n = (stream_bits - bit_offset) / width_;
  batch_counts_ = {};
  tags_.reserve(n);
  bool holds = true;
  std::uint64_t taken = 0;
  for (; taken < n && holds; ++taken) {
    holds = decode_record(read_record(bit_offset + taken * width_));
  }
  records_decoded += taken;
  const std::uint64_t position = width_ * taken + bit_offset;
  bit_offset = position % 8;
  remove_front(position / 8);
  if (!holds) {
    drop_.record = taken - 1;
  } else if (internal_ && active_channels_ >= 2) {
    const Event event = tally(Kind::imbalanced, batch_counts_);
    if (event.total >= 4096 && 8 * event.min < event.max) {
      holds = false;
      drop_ = event;
      tags_.clear();
    }
  }
  returned_tags_ += tags_.size();
  if (!holds) {
    drop_.records = n;
    report(drop_);
    static_cast<PlainLock&>(*this) = {};
  }
  return std::move(tags_);
}

bool PlainDecoder::decode_record(const Record& record) {
  const unsigned c = record.channel;
  if (!active(c)) return drop(Kind::inactive_channel, c);
  if (sync_chunks_left > 0) {
    if (c != sync_channel) return drop(Kind::sync_channel_mismatch, c);
    if (record.flag) return drop(Kind::overflow_in_sync, c);
    sync_value |= record.payload << sync_bits;
    sync_bits += bits_;
    if (--sync_chunks_left == 0) complete_sync();
    return true;
  }
  if (record.flag && record.payload == all_ones_) {
    sync_chunks_left = sync_length_;
    sync_channel = c;
    sync_value = sync_bits = overflow[c] = 0;
    return true;
  }
  if (record.flag) {
    overflow[c] += record.payload;
    return true;
  }
  const std::uint64_t step_ps = ((overflow[c] << bits_) + record.payload) << quantum_shift_;
  overflow[c] = 0;
  return pending_sync_channel == static_cast<int>(c) ? synced_data(c, step_ps)
                                                     : plain_data(c, step_ps);
}

void PlainDecoder::complete_sync() {
  const unsigned c = sync_channel;
  pending_sync_channel = static_cast<int>(c);
  std::uint64_t anchor = ((sync_value & kTickMask) << quantum_shift_) % modulus_ps_;
  if (pk_have_time[c]) {
    const std::uint64_t last = not_below_zero(last_time[c]);
    anchor += last - last % modulus_ps_;
    if (anchor + modulus_ps_ / 2 < last) anchor += modulus_ps_;
    if (period_ps_ <= kWrapPs && last < anchor && anchor - last > excess_ps_) {
      const std::uint64_t shorter = anchor - last - excess_ps_;
      if (shorter <= kUncheckedStepPs || last % kWrapPs + shorter >= kWrapPs) {
        anchor = last + shorter;
      }
    }
  }
  pending_sync_time = anchor;
  sync_value = sync_bits = 0;
}

bool PlainDecoder::synced_data(unsigned c, std::uint64_t step_ps) {
  const std::uint64_t next = step_ps + pending_sync_time, prev = last_time[c];
  if (pk_have_time[c]) {
    const bool back = as_signed(next) < as_signed(prev);
    if (back && prev - next > kBackwardTolerancePs) {
      return drop(Kind::nonmonotonic_sync, c, next, prev);
    }
    if (next == prev || (internal_ && (back || next - prev > kPlausibleStepPs))) {
      return drop(Kind::implausible_sync_delta, c, next, prev);
    }
  }
  pending_sync_channel = -1;
  pending_sync_time = 0;
  return emit(c, next);
}

bool PlainDecoder::plain_data(unsigned c, std::uint64_t step_ps) {
  if (!pk_have_time[c]) return true;
  const std::uint64_t prev = last_time[c];
  if (period_ps_ / 2 < step_ps && step_ps <= period_ps_ &&
      period_ps_ - step_ps <= kBackwardTolerancePs) {
    return emit(c, prev + (step_ps - period_ps_));
  }
  if (step_ps > excess_ps_) {
    const std::uint64_t shorter = step_ps - excess_ps_;
    if (shorter <= kUncheckedStepPs) return emit(c, prev + shorter);
    if (not_below_zero(prev) % kWrapPs + shorter >= kWrapPs) step_ps = shorter;
  }
  if (internal_ && step_ps > kPlausibleStepPs) {
    return drop(Kind::implausible_delta, c, prev + step_ps, prev);
  }
  return emit(c, prev + step_ps);
}

bool PlainDecoder::emit(unsigned c, std::uint64_t time_ps) {
  last_time[c] = time_ps;
  pk_have_time[c] = true;
  tags_.push_back({static_cast<std::uint8_t>(c), as_signed(time_ps)});
  ++batch_counts_[c];
  return true;
}

bool PlainDecoder::drop(Kind kind, unsigned c, std::uint64_t next_ps, std::uint64_t prev_ps) {
  drop_ = {.kind = kind,
           .channel = c,
           .sync_channel = sync_channel,
           .sync_chunks_left = kind == Kind::inactive_channel ? 0 : sync_chunks_left,
           .delta_ps = as_signed(next_ps - prev_ps),
           .next_ps = as_signed(next_ps),
           .prev_ps = as_signed(prev_ps)};
  return false;
}

void PlainDecoder::remove_front(std::uint64_t bytes) {
  input_buffer.erase(input_buffer.begin(),
                     input_buffer.begin() + static_cast<std::ptrdiff_t>(bytes));
  removed_bytes_ += bytes;
}

void PlainDecoder::report(Event event) {
  event.payload_offset_bytes = removed_bytes_;
  event.tags_before = returned_tags_;
  log.push_back(event);
}

}  // namespace orvo::tests
