#include "orvo/simulator/stream.h"

#include <algorithm>
#include <utility>

#include "orvo/simulator/encoders.h"

namespace orvo::simulator {
namespace {

// Small enough to be copied out of the cache.
constexpr std::size_t kBlockBytes = 64 * 1024;

template <typename Encoder>
class GeneratedPayload final : public Payload {
 public:
  GeneratedPayload(const Settings& settings, const StreamConfig& config)
      : source_(settings, config.source),
        encoder_(settings, config),
        time_ps_(config.source.start_ps),
        block_(kBlockBytes + Encoder::kMaxEventBytes + BitWriter::kSlackBytes) {
    if (settings.pace == Pace::unpaced_ps) {
      end_ps_ = std::min(time_ps_ + settings.end, kTimeLineEndPs);
    }
  }

  std::span<std::uint8_t> next(std::size_t wanted, std::uint64_t until_ps) override {
    std::uint8_t* const begin = block_.data();
    const std::uint8_t* const full = begin + std::min(wanted, kBlockBytes);
    const std::uint64_t last_ps = std::min(until_ps, end_ps_ - 1);
    std::uint8_t* out = begin;
    while (out < full && source_.front().time_ps <= last_ps) {
      time_ps_ = source_.front().time_ps;
      out = encoder_.encode(source_.front(), out);
      source_.pop();
    }
    if (out < full && until_ps >= end_ps_) {
      out = encoder_.finish(out);
    }
    return {begin, out};
  }

  [[nodiscard]] std::uint64_t time_ps() const override { return time_ps_; }

 private:
  EventSource source_;
  Encoder encoder_;
  std::uint64_t time_ps_;
  std::uint64_t end_ps_ = kTimeLineEndPs;
  std::vector<std::uint8_t> block_;
};

}  // namespace

std::unique_ptr<Payload> generate_payload(const Settings& settings, const StreamConfig& config) {
  switch (config.format) {
    case timing::Format::raw64:
      return std::make_unique<GeneratedPayload<Raw64Encoder>>(settings, config);
    case timing::Format::delta32:
      return std::make_unique<GeneratedPayload<Delta32Encoder>>(settings, config);
    case timing::Format::packed_delta:
      break;
  }
  return std::make_unique<GeneratedPayload<PackedEncoder>>(settings, config);
}

Stream::Stream(const Settings& settings, std::unique_ptr<Payload> payload)
    : payload_(std::move(payload)),
      noise_(settings.noise_bytes),
      damage_(settings.damage),
      bytes_left_(settings.pace == Pace::unpaced_bytes ? settings.end : kNever) {
  std::uint64_t counter = 0;
  for (std::uint8_t& byte : noise_) {
    byte = static_cast<std::uint8_t>(random_at(settings.seed ^ 0x401E, counter++) >> 56);
  }
  pending_ = noise_;
}

std::size_t Stream::read(std::span<std::uint8_t> out, std::uint64_t until_ps) {
  out = out.first(static_cast<std::size_t>(std::min<std::uint64_t>(out.size(), bytes_left_)));
  std::size_t done = 0;
  while (done < out.size()) {
    if (pending_.empty()) {
      pending_ = payload_->next(out.size() - done, until_ps);
    }
    if (pending_.empty()) {
      break;
    }
    done += deliver(out.subspan(done));
  }
  bytes_left_ -= done;
  return done;
}

/// Damages the next pending byte, or copies pending bytes up to the next one to damage.
std::size_t Stream::deliver(std::span<std::uint8_t> out) {
  const std::uint64_t damaged =
      next_damage_ < damage_.size() ? damage_[next_damage_].offset : kNever;
  if (damaged == offset_) {
    damage_next_byte();
    return 0;
  }
  const std::uint64_t count =
      std::min<std::uint64_t>({out.size(), pending_.size(), damaged - offset_});
  std::copy_n(pending_.begin(), count, out.begin());
  pending_ = pending_.subspan(count);
  offset_ += count;
  return count;
}

void Stream::damage_next_byte() {
  if (damage_[next_damage_++].kind == Damage::Kind::flip) {
    pending_.front() = static_cast<std::uint8_t>(~pending_.front());
    return;
  }
  pending_ = pending_.subspan(1);
  // No later damage of a byte that is dropped.
  while (next_damage_ < damage_.size() && damage_[next_damage_].offset == offset_) {
    ++next_damage_;
  }
  ++offset_;
}

}  // namespace orvo::simulator
