#include "streams.h"

#include <array>
#include <cmath>
#include <map>
#include <stdexcept>

#include "kernels.h"
#include "orvo/simulator/stream.h"
#include "orvo/timing/byte_order.h"
#include "orvo/timing/stream_files.h"

namespace orvo::benchmarks {
namespace {

using simulator::kChannels;
using simulator::kWrapPs;

constexpr double kCalibrationBaseHz = 712500000.0 / 23.0;
constexpr double kRealSeconds = 0.9999;  // the instrument's clock counts this in a second
constexpr double kPsPerSecond = 1e12;

using Rates = std::array<std::uint64_t, kChannels>;
constexpr Rates kIrregularHz = {1'000'000, 700'000, 400'000, 130'000};

std::uint32_t divider_of(double hz) {
  return static_cast<std::uint32_t>(std::lround(kCalibrationBaseHz / hz));
}

std::vector<std::uint8_t> generate(const simulator::Settings& settings,
                                   const simulator::StreamConfig& config, std::size_t bytes) {
  const auto payload = simulator::generate_payload(settings, config);
  std::vector<std::uint8_t> result;
  while (result.size() < bytes) {
    const auto next = payload->next(bytes - result.size(), simulator::kNever - 1);
    if (next.empty()) {
      break;
    }
    result.insert(result.end(), next.begin(), next.end());
  }
  if (result.size() > bytes) {
    result.resize(bytes);
  }
  return result;
}

double period_ps_of(const simulator::StreamConfig& config, std::uint64_t external_hz) {
  const simulator::Period period = config.source.mode == timing::Mode::internal
                                       ? simulator::calibration_period(config.source.divider, 0)
                                       : simulator::input_period(external_hz, 0);
  return static_cast<double>(period.whole_ps) +
         static_cast<double>(period.remainder) / static_cast<double>(period.divisor);
}

/// Lets every channel lose its events but for `live_ps` of each wrap of the clock, in gaps short
/// enough to decode as steps.
void make_chunks_wrap(simulator::Settings& settings, const simulator::StreamConfig& config,
                      double live_ps) {
  constexpr double kGaps = 16;
  for (unsigned channel = 0; channel < kChannels; ++channel) {
    const double period_ps = period_ps_of(config, settings.external_hz[channel]);
    const double cycle = static_cast<double>(kWrapPs) / period_ps;  // all in events
    const double live = live_ps / period_ps;
    const double gap = (cycle - live) / kGaps;
    for (std::size_t k = 0; k <= kChunks + 1; ++k) {
      for (double j = 0; j < kGaps; ++j) {
        const double first = static_cast<double>(k) * cycle + live + j * gap;
        settings.losses.push_back(
            {channel, static_cast<std::uint64_t>(gap) - 1, static_cast<std::uint64_t>(first)});
      }
    }
  }
}

/// For how long the channels fire until a chunk is full.
double live_ps_of(const simulator::Settings& settings, const simulator::StreamConfig& config) {
  constexpr double kRecordsOfGaps = 2200;  // of the wrap too
  constexpr double kSyncRecords = 5;
  double records_per_ps = 0;
  for (const std::uint64_t hz : settings.external_hz) {
    const double period_ps = period_ps_of(config, hz);
    const double ticks = period_ps / config.quantum_ps;
    const double records = ticks < (1U << kDeltaBits) ? 1 : 2;
    const double synced = (kSyncRecords - records) / static_cast<double>(settings.sync_interval);
    records_per_ps += (records + synced) / period_ps;
  }
  return (kRecordsPerChunk - kRecordsOfGaps) / records_per_ps;
}

/// Counts the tags. Throws unless every chunk decodes and has its wrap.
void examine(PackedStream& stream) {
  FastDecoder decoder(stream.header);
  decoder.append(stream.warm_up());
  std::int64_t wraps = decoder.feed_packed_delta().back().time_ps / std::int64_t{kWrapPs};
  std::size_t tags = 0;
  for (std::size_t k = 0; k < kChunks; ++k) {
    decoder.append(stream.chunk(k));
    const auto batch = decoder.feed_packed_delta();
    if (!decoder.locked() || batch.back().time_ps / std::int64_t{kWrapPs} != ++wraps) {
      throw std::logic_error("a stream is not as it should be");
    }
    tags += batch.size();
  }
  stream.tags_per_chunk = tags / kChunks;
}

PackedStream make_stream(timing::Mode mode, double hz) {
  simulator::Settings settings;
  settings.bit_phase = 0;
  settings.external_hz = kIrregularHz;
  simulator::StreamConfig config;
  config.source.mode = mode;
  config.source.divider = divider_of(hz);
  const double live_ps = live_ps_of(settings, config);
  make_chunks_wrap(settings, config, live_ps);
  config.source.start_ps = kWrapPs - static_cast<std::uint64_t>(live_ps / 2);

  PackedStream stream;
  stream.header.mode = mode;
  stream.bytes = generate(settings, config, (1 + kChunks) * kChunkBytes);
  examine(stream);
  return stream;
}

/// After the first sync record from bit `position` on, moves the sync to another channel.
void damage_sync(std::vector<std::uint8_t>& bytes, std::uint64_t position) {
  constexpr unsigned kWidth = kDeltaBits + 3;
  constexpr std::uint64_t kSyncStart = (std::uint64_t{2} << kDeltaBits) - 1;  // of any channel
  position -= position % kWidth;
  while ((timing::detail::record_at(bytes.data(), position, kWidth) & kSyncStart) != kSyncStart) {
    position += kWidth;
  }
  position += kWidth;
  bytes[position / 8] = static_cast<std::uint8_t>(bytes[position / 8] ^ 0x80U >> position % 8);
}

PackedStream make(StreamKind kind) {
  switch (kind) {
    case StreamKind::khz100:
      return make_stream(timing::Mode::internal, 100'000);
    case StreamKind::mhz1:
      return make_stream(timing::Mode::internal, 1'000'000);
    case StreamKind::mhz2:
      return make_stream(timing::Mode::internal, 2'000'000);
    case StreamKind::irregular:
      return make_stream(timing::Mode::external, 1);
    case StreamKind::damaged:
      break;
  }
  PackedStream stream = packed_stream(StreamKind::mhz1);
  for (std::size_t k = 1; k <= kChunks; ++k) {
    damage_sync(stream.bytes, 8 * (k * kChunkBytes + kChunkBytes / 2));
  }
  return stream;
}

}  // namespace

const PackedStream& packed_stream(StreamKind kind) {
  static std::map<StreamKind, PackedStream> streams;
  const auto found = streams.find(kind);
  return found != streams.end() ? found->second : streams.emplace(kind, make(kind)).first->second;
}

std::vector<std::uint8_t> clean_bytes(unsigned delta_bits, std::size_t bytes) {
  simulator::Settings settings;
  settings.bit_phase = 7;
  simulator::StreamConfig config;
  config.delta_bits = static_cast<std::uint8_t>(delta_bits);
  config.source.divider = divider_of(1'000'000);
  return generate(settings, config, bytes);
}

std::vector<std::uint8_t> captured_bytes(double hz, double seconds, std::uint64_t jitter_ps) {
  simulator::Settings settings;
  settings.jitter_ps = jitter_ps;
  settings.bit_phase = 7;
  settings.pace = simulator::Pace::unpaced_ps;
  settings.end = static_cast<std::uint64_t>(seconds * kRealSeconds * kPsPerSecond);
  simulator::StreamConfig config;
  config.source.divider = divider_of(hz);
  return generate(settings, config, SIZE_MAX / 4);
}

void write_recording(const std::string& path, std::span<const std::uint8_t> payload) {
  timing::StreamFileHeader header;
  header.mode = timing::Mode::internal;
  timing::StreamFileWriter writer;
  writer.open(path, header);
  writer.write(payload.data(), payload.size());
  writer.close();
}

}  // namespace orvo::benchmarks
