#include "orvo/simulator/stream.h"

#include <algorithm>
#include <utility>

namespace orvo::simulator {

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
    if (pending_.empty()) pending_ = payload_->next(out.size() - done, until_ps);
    if (pending_.empty()) break;
    done += deliver(out.subspan(done));
  }
  bytes_left_ -= done;
  return done;
}

std::size_t Stream::deliver(std::span<std::uint8_t> out) {
  if (next_damage_ == damage_.size() || damage_[next_damage_].offset != offset_) {
    return deliver_whole(out);
  }
  if (damage_[next_damage_++].kind == DamageKind::flip) {
    pending_.front() = static_cast<std::uint8_t>(~pending_.front());
    return 0;
  }
  // All that else is to happen to this byte is gone with it.
  while (next_damage_ < damage_.size() && damage_[next_damage_].offset == offset_) ++next_damage_;
  consume(1);
  return 0;
}

std::size_t Stream::deliver_whole(std::span<std::uint8_t> out) {
  std::size_t count = std::min(out.size(), pending_.size());
  if (next_damage_ < damage_.size()) {
    const std::uint64_t whole = damage_[next_damage_].offset - offset_;
    count = static_cast<std::size_t>(std::min<std::uint64_t>(count, whole));
  }
  std::copy_n(pending_.begin(), count, out.begin());
  consume(count);
  return count;
}

void Stream::consume(std::size_t count) {
  pending_ = pending_.subspan(count);
  offset_ += count;
}

}  // namespace orvo::simulator
