#include "support/plain_decoder.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <tuple>
#include <utility>

namespace orvo::tests {
namespace {

constexpr std::uint64_t kWrapPs = 0xD0500000000;  // the instrument's time wraps to 0: 3333 * 2^32
constexpr std::uint64_t kTickMask = (std::uint64_t{1} << 41) - 1;
constexpr std::uint64_t kUncheckedStepPs = 10'000'000'000;
constexpr std::uint64_t kPlausibleStepPs = 1'000'000'000'000;
constexpr std::uint64_t kBackwardTolerancePs = 1'000'000;

// Sums and differences of times count modulo 2^64.
std::uint64_t as_unsigned(std::int64_t value) { return static_cast<std::uint64_t>(value); }
std::uint64_t not_below_zero(std::int64_t value) { return value < 0 ? 0 : as_unsigned(value); }

template <typename... Parts>
std::string text(const Parts&... parts) {
  std::ostringstream out;
  (out << ... << parts);
  return out.str();
}

}  // namespace

PlainDecoder::PlainDecoder(timing::StreamFileHeader header)
    : internal_(header.mode == timing::Mode::internal),
      active_mask_(header.channel_mask == 0 ? 0x0FU : header.channel_mask & 0x0FU),
      active_channels_(static_cast<unsigned>(std::popcount(active_mask_))),
      bits_(header.delta_bits == 0 ? 16 : header.delta_bits),
      width_(bits_ + 3),
      sync_length_(static_cast<std::int32_t>((bits_ + 40) / bits_)),
      all_ones_(bits_ > 31 ? 0 : (std::uint64_t{1} << bits_) - 1),
      quantum_shift_(
          header.quantum_ps == 0 ? 3 : static_cast<unsigned>(std::countr_zero(header.quantum_ps))),
      period_ps_(std::uint64_t{1} << 41 << std::min(quantum_shift_, 22U)),
      excess_ps_((kWrapPs + period_ps_ - 1) / period_ps_ * period_ps_ - kWrapPs),
      modulus_ps_(std::min(period_ps_, kWrapPs)) {}

template <typename... Parts>
bool PlainDecoder::drop(const Parts&... parts) {
  log.push_back(text(parts...));
  return false;
}

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

PlainDecoder::Tally PlainDecoder::tally(const std::array<std::uint64_t, 4>& counts) const {
  Tally tally{~std::uint64_t{0}, 0, 0};
  for (unsigned c = 0; c < 4; ++c) {
    if (!active(c)) continue;
    tally.min = std::min(tally.min, counts[c]);
    tally.max = std::max(tally.max, counts[c]);
    tally.total += counts[c];
  }
  return tally;
}

PlainDecoder::Parse PlainDecoder::simulate(std::uint64_t first_bit, std::uint64_t n) const {
  Parse parse;
  std::int32_t countdown = 0;
  unsigned channel_in_sync = 0;
  int pending_channel = -1;
  std::uint64_t bit = first_bit;
  for (std::uint64_t i = 0; i < n; ++i, bit += width_) {
    const Record record = read_record(bit);
    const unsigned c = record.channel;
    if (!active(c) || (countdown > 0 && (c != channel_in_sync || record.flag))) {
      parse = {};
      parse.restart = i + 1;
      countdown = 0;
      pending_channel = -1;
    } else if (countdown > 0) {
      if (--countdown == 0) pending_channel = static_cast<int>(c);
    } else if (record.flag) {
      if (record.payload != all_ones_) continue;
      countdown = sync_length_;
      channel_in_sync = c;
    } else if (pending_channel == static_cast<int>(c)) {
      ++parse.counts[c];
      parse.synced[c] = true;
      pending_channel = -1;
    } else if (parse.synced[c]) {
      ++parse.counts[c];
    }
  }
  return parse;
}

PlainDecoder::Alignment PlainDecoder::probe_packed_alignment() {
  using Rank = std::tuple<unsigned, std::uint64_t, std::uint64_t>;
  ++searches;
  if (input_buffer.empty()) return {};
  const std::uint64_t last_byte =
      std::min<std::uint64_t>(active_channels_ == 1 ? 16 : 64, input_buffer.size() - 1);
  Alignment best, rejected;
  Rank best_rank, rejected_rank;
  std::string reject_message;
  for (std::uint64_t b = 0; b <= last_byte; ++b) {
    const std::uint64_t span_bits = 8 * std::min<std::uint64_t>(input_buffer.size() - b, 65'536);
    for (std::uint64_t s = 0; s < std::min<std::uint64_t>(span_bits, width_); ++s) {
      if (span_bits - s < width_) continue;
      const std::uint64_t n = (span_bits - s) / width_;
      const Parse parse = simulate(8 * b + s, n);
      steps_searched += n;
      const auto synced =
          static_cast<unsigned>(std::count(parse.synced.begin(), parse.synced.end(), true));
      const auto [min, max, total] = tally(parse.counts);
      if (synced == 0 || total == 0) continue;
      const std::uint64_t start_bit = parse.restart * width_ + s;
      const Alignment start{b + start_bit / 8, start_bit % 8, true};
      if (active_channels_ > 1 && synced < (internal_ ? active_channels_ : 2)) continue;
      if (active_channels_ > 1 && internal_ && (min == 0 || 2 * min < max)) {
        const Rank rank{synced, total, 0};
        if (rejected.found && rank <= rejected_rank) continue;
        rejected = start;
        rejected_rank = rank;
        reject_message = text("reject internal alignment drop_bytes=", start.drop_bytes,
                              " bit_offset=", start.bit_offset, " synced=", synced, "/",
                              active_channels_, " min=", min, " max=", max, " total=", total);
      } else {
        const Rank rank{synced, active_channels_ > 1 ? min : 0, total};
        if (best.found && rank <= best_rank) continue;
        best = start;
        best_rank = rank;
      }
    }
  }
  if (!best.found && rejected.found) log.push_back(reject_message);
  return best;
}

bool PlainDecoder::take_lock() {
  const Alignment alignment = probe_packed_alignment();
  if (!alignment.found) {
    if (input_buffer.size() < 4096) return false;
    log.push_back(
        text("no alignment bits=", bits_, " width=", width_, " raw_bytes=", input_buffer.size()));
    if (input_buffer.size() > 65'536) {
      input_buffer.erase(input_buffer.begin(), input_buffer.end() - 4096);
      bit_offset = 0;
    }
    return false;
  }
  input_buffer.erase(input_buffer.begin(),
                     input_buffer.begin() + static_cast<std::ptrdiff_t>(alignment.drop_bytes));
  locked = true;
  bit_offset = alignment.bit_offset;
  log.push_back(text("locked bits=", bits_, " drop_bytes=", alignment.drop_bytes,
                     " bit_offset=", bit_offset, " raw_bytes=", input_buffer.size()));
  return true;
}

std::vector<timing::TimeTag> PlainDecoder::feed_packed_delta() {
  tags_.clear();
  if (bits_ > 31) return {};
  if (!locked && !take_lock()) return {};
  const std::uint64_t stream_bits = 8 * input_buffer.size();
  if (stream_bits < bit_offset + width_) return {};
  const std::uint64_t n = (stream_bits - bit_offset) / width_;
  batch_counts_ = {};
  tags_.reserve(n);
  for (std::uint64_t i = 0; i < n; ++i) {
    if (decode_record(read_record(bit_offset + i * width_), i, n)) continue;
    consume_packed_records(i + 1);
    static_cast<PlainLock&>(*this) = {};
    return std::move(tags_);
  }
  consume_packed_records(n);
  const auto [min, max, total] = tally(batch_counts_);
  if (internal_ && active_channels_ >= 2 && total > 4095 && (min == 0 || 8 * min < max)) {
    drop("drop internal imbalanced lock min=", min, " max=", max, " total=", total, " records=", n);
    static_cast<PlainLock&>(*this) = {};
    return {};
  }
  return std::move(tags_);
}

bool PlainDecoder::decode_record(const Record& record, std::uint64_t i, std::uint64_t n) {
  const unsigned c = record.channel;
  if (!active(c)) {
    return drop("drop inactive ch=", c, " active_mask=0x", std::hex, active_mask_, std::dec,
                " record=", i, " records=", n);
  }
  if (sync_chunks_left > 0) {
    if (static_cast<std::int32_t>(c) != sync_channel) {
      return drop("drop sync channel mismatch ch=", c, " expected=", sync_channel, " record=", i,
                  " chunks_left=", sync_chunks_left);
    }
    if (record.flag) {
      return drop("drop ovf in sync ch=", c, " record=", i, " chunks_left=", sync_chunks_left);
    }
    sync_value |= record.payload << sync_bits;
    sync_bits += bits_;
    if (--sync_chunks_left == 0) complete_sync();
    return true;
  }
  if (record.flag && record.payload == all_ones_) {
    sync_chunks_left = sync_length_;
    sync_channel = static_cast<std::int32_t>(c);
    sync_value = sync_bits = 0;
    pk_overflow[c] = 0;
    return true;
  }
  if (record.flag) {
    pk_overflow[c] += record.payload;
    return true;
  }
  const std::uint64_t step_ps = ((pk_overflow[c] << bits_) + record.payload) << quantum_shift_;
  pk_overflow[c] = 0;
  if (pending_sync_channel == static_cast<std::int32_t>(c)) return synced_data(c, step_ps, i);
  return plain_data(c, step_ps, i);
}

void PlainDecoder::complete_sync() {
  const auto c = static_cast<std::size_t>(sync_channel);
  pending_sync_channel = sync_channel;
  std::uint64_t anchor = ((sync_value & kTickMask) << quantum_shift_) % modulus_ps_;
  if (pk_have_time[c] || pk_have_emitted[c]) {
    const std::uint64_t last =
        not_below_zero(pk_have_time[c] ? pk_last_time[c] : pk_last_emitted[c]);
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

bool PlainDecoder::synced_data(unsigned c, std::uint64_t step_ps, std::uint64_t i) {
  const auto next = static_cast<std::int64_t>(step_ps + pending_sync_time);
  if (pk_have_time[c]) {
    const std::int64_t prev = pk_last_time[c];
    const std::uint64_t ahead = as_unsigned(next) - as_unsigned(prev);
    if (next < prev && std::uint64_t{0} - ahead > kBackwardTolerancePs) {
      return drop("drop nonmonotonic sync ch=", c, " next=", next, " prev=", prev, " record=", i);
    }
    if (next == prev || (internal_ && (next < prev || ahead > kPlausibleStepPs))) {
      return drop("drop implausible sync delta ch=", c, " delta=", static_cast<std::int64_t>(ahead),
                  " next=", next, " prev=", prev, " record=", i);
    }
  }
  pending_sync_channel = -1;
  pending_sync_time = 0;
  return emit(c, as_unsigned(next));
}

bool PlainDecoder::plain_data(unsigned c, std::uint64_t step_ps, std::uint64_t i) {
  if (!pk_have_time[c]) return true;
  const std::uint64_t prev = as_unsigned(pk_last_time[c]);
  if (period_ps_ / 2 < step_ps && step_ps <= period_ps_ &&
      period_ps_ - step_ps <= kBackwardTolerancePs) {
    return emit(c, prev + (step_ps - period_ps_));
  }
  if (step_ps > excess_ps_) {
    const std::uint64_t shorter = step_ps - excess_ps_;
    if (shorter <= kUncheckedStepPs) return emit(c, prev + shorter);
    if (not_below_zero(pk_last_time[c]) % kWrapPs + shorter >= kWrapPs) step_ps = shorter;
  }
  if (internal_ && step_ps > kPlausibleStepPs) {
    return drop("drop implausible delta ch=", c, " delta=", step_ps, " prev=", pk_last_time[c],
                " record=", i);
  }
  return emit(c, prev + step_ps);
}

bool PlainDecoder::emit(unsigned c, std::uint64_t time_ps) {
  pk_last_time[c] = static_cast<std::int64_t>(time_ps);
  tags_.push_back({static_cast<std::uint8_t>(c), pk_last_time[c]});
  ++batch_counts_[c];
  pk_last_emitted[c] = pk_last_time[c];
  pk_have_time[c] = pk_have_emitted[c] = true;
  return true;
}

void PlainDecoder::consume_packed_records(std::uint64_t count) {
  records_decoded += count;
  const std::uint64_t position = width_ * count + bit_offset;
  bit_offset = position % 8;
  input_buffer.erase(input_buffer.begin(),
                     input_buffer.begin() + static_cast<std::ptrdiff_t>(position / 8));
}

}  // namespace orvo::tests
