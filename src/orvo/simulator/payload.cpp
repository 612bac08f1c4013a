#include "orvo/simulator/payload.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "orvo/simulator/bit_writer.h"
#include "orvo/simulator/delta32_encoder.h"
#include "orvo/simulator/raw64_encoder.h"

namespace orvo::simulator {
namespace {

// Small enough to be copied out of the cache.
constexpr std::size_t kBlockBytes = 64 * 1024;

template <typename Encoder>
class GeneratedPayload final : public Payload {
 public:
  GeneratedPayload(EventSource source, Encoder encoder, std::uint64_t start_ps,
                   std::uint64_t end_ps)
      : source_(std::move(source)),
        encoder_(std::move(encoder)),
        time_ps_(start_ps),
        end_ps_(end_ps),
        block_(kBlockBytes + Encoder::kMaxEventBytes + BitWriter::kSlackBytes) {}

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
    if (out < full && until_ps >= end_ps_) out = encoder_.finish(out);
    return {begin, out};
  }

  [[nodiscard]] std::uint64_t time_ps() const override { return time_ps_; }

 private:
  EventSource source_;
  Encoder encoder_;
  std::uint64_t time_ps_;
  std::uint64_t end_ps_;
  std::vector<std::uint8_t> block_;
};

PackedConfig packed_config(const Settings& settings, const StreamConfig& config) {
  PackedConfig packed;
  packed.delta_bits = config.delta_bits;
  packed.quantum_ps = config.quantum_ps;
  packed.sync_interval = settings.sync_interval;
  packed.seed = random_at(settings.seed, config.source.start_ps);
  packed.bit_phase = settings.bit_phase.value_or(packed.seed >> 32);
  packed.start_ps = config.source.start_ps;
  return packed;
}

}  // namespace

std::unique_ptr<Payload> generate_payload(const Settings& settings, const StreamConfig& config) {
  const std::uint64_t start_ps = config.source.start_ps;
  const bool ends = settings.pace == Pace::unpaced_ps;
  const std::uint64_t end_ps =
      ends ? std::min(start_ps + settings.end, kTimeLineEndPs) : kTimeLineEndPs;
  EventSource source(settings, config.source);
  const auto make = [&](auto encoder) -> std::unique_ptr<Payload> {
    using Encoder = decltype(encoder);
    return std::make_unique<GeneratedPayload<Encoder>>(std::move(source), std::move(encoder),
                                                       start_ps, end_ps);
  };
  switch (config.format) {
    case timing::Format::raw64:
      return make(Raw64Encoder(config.source.mode, start_ps));
    case timing::Format::delta32:
      return make(Delta32Encoder(start_ps));
    case timing::Format::packed_delta:
      break;
  }
  return make(PackedEncoder(packed_config(settings, config)));
}

}  // namespace orvo::simulator
