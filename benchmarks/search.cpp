// The search for a lock, on clean streams and on the worst input.

#include <random>
#include <utility>

#include "orvo/timing/packed/alignment.h"
#include "orvo/timing/stream_decoder.h"
#include "streams.h"
#include "support/plain_decoder.h"
#include "topics.h"

namespace orvo::benchmarks {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kSearchedBytes = timing::detail::kSearchedBytes;

Figures measure(const Bytes& bytes, unsigned delta_bits, unsigned channel_mask) {
  timing::StreamFileHeader header;
  header.mode = timing::Mode::internal;
  header.delta_bits = static_cast<std::uint8_t>(delta_bits);
  header.channel_mask = static_cast<std::uint8_t>(channel_mask);

  timing::InputBuffer buffer;
  buffer.append(bytes);
  const timing::detail::PackedFormat format(header);
  const auto search = [&] {
    benchmark::DoNotOptimize(timing::detail::probe_packed_alignment(buffer, format));
  };
  tests::PlainDecoder plain(header);
  plain.input_buffer = bytes;
  search();
  return {{"search", seconds_per_call(search)},
          {"plain",
           seconds_per_call([&] { benchmark::DoNotOptimize(plain.probe_packed_alignment()); })}};
}

Bytes random_bytes(unsigned ones) {
  std::mt19937 random(1);
  Bytes bytes(kSearchedBytes);
  for (std::uint8_t& byte : bytes) {
    auto bits = random();
    for (unsigned k = 0; k < ones; ++k) {
      bits |= random();
    }
    byte = static_cast<std::uint8_t>(bits >> 24);
  }
  return bytes;
}

Ratio add(const std::string& name, Bytes bytes, unsigned delta_bits, unsigned channel_mask) {
  add_benchmark(name, [bytes = std::move(bytes), delta_bits, channel_mask] {
    return measure(bytes, delta_bits, channel_mask);
  });
  return {name, "plain", "search"};
}

std::vector<Ratio> add_worst_inputs() {
  const std::vector<std::pair<std::string, Bytes>> inputs = {
      {"ones", Bytes(kSearchedBytes, 0xFF)},
      {"bytes DF", Bytes(kSearchedBytes, 0xDF)},  // found by trying patterns
      {"noise", random_bytes(0)},
      {"noise, mostly ones", random_bytes(3)},
      {"stream of another width", clean_bytes(17, kSearchedBytes)},
  };
  const std::vector<std::pair<std::string, std::size_t>> sizes = {{"", kSearchedBytes},
                                                                  {", 4 KiB", 4096}};
  std::vector<Ratio> ratios;
  for (const auto& [input, bytes] : inputs) {
    for (const auto& [size, length] : sizes) {
      const Bytes part(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
      for (const unsigned delta_bits : {1U, 2U, 3U, 8U, 16U, 31U}) {
        for (const unsigned mask : {0x0FU, 0x08U}) {
          const std::string name = "search/" + input + size + ", D=" + std::to_string(delta_bits) +
                                   (mask == 0x08U ? ", one channel" : "");
          ratios.push_back(add(name, part, delta_bits, mask));
        }
      }
    }
  }
  return ratios;
}

}  // namespace

void add_lock_search(Table& table) {
  const std::string against = "plain search";
  constexpr double kSpeedup = 300;
  constexpr double kSpeedupAnyWidth = 40;
  constexpr double kSpeedupAnyInput = 4;
  table.add(Row{"lock search, clean, D=16, 64 KiB: speed",
                against,
                {add("search/64 KiB", clean_bytes(kDeltaBits, kSearchedBytes), kDeltaBits, 0x0F)},
                at_least(kSpeedup)});
  table.add(Row{"lock search, clean, D=16, 1 MiB: speed",
                against,
                {add("search/1 MiB", clean_bytes(kDeltaBits, 1 << 20), kDeltaBits, 0x0F)},
                at_least(kSpeedup)});
  table.add(Absolute{"plain lock search, D=16, 64 KiB", "search/64 KiB", "plain", 1e3, "ms"});
  table.add(Absolute{"lock search, D=16, 64 KiB", "search/64 KiB", "search", 1e6, "us"});

  std::vector<Ratio> widths;
  for (unsigned delta_bits = 1; delta_bits <= 31; ++delta_bits) {
    widths.push_back(add("search/clean, D=" + std::to_string(delta_bits),
                         clean_bytes(delta_bits, kSearchedBytes), delta_bits, 0x0F));
  }
  table.add(Row{"lock search, clean, the worst width of 1 to 31: speed", against, widths,
                at_least(kSpeedupAnyWidth)});
  table.add(Row{"lock search, the worst input: speed", against, add_worst_inputs(),
                at_least(kSpeedupAnyInput)});
}

}  // namespace orvo::benchmarks
