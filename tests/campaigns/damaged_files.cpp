// Recordings as anything may have left them: cut at every length, every single bit flipped, the
// payload cut into chunks at will.
//
// ORVO_DAMAGE_FACTOR multiplies the length of the recordings (default 1: seconds; the work grows
// with its square). Each test prints what it has seen.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "orvo/timing/error.h"
#include "orvo/timing/stream_files.h"
#include "support/decoding.h"
#include "support/instrument.h"
#include "support/scratch.h"

namespace {
std::size_t largest_request_bytes = 0;
}

// Every request of memory passes here, to tell what a damaged length has asked for. Not inlined:
// g++ would take one of the pair for the library's own.
[[gnu::noinline]] void* operator new(std::size_t bytes) {
  largest_request_bytes = std::max(largest_request_bytes, bytes);
  if (void* memory = std::malloc(bytes)) return memory;
  throw std::bad_alloc();
}
void* operator new[](std::size_t bytes) { return operator new(bytes); }
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept { return std::malloc(bytes); }
void operator delete[](void* memory) noexcept { operator delete(memory); }
void operator delete[](void* memory, std::size_t) noexcept { operator delete(memory); }
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace orvo::tests {
namespace {

using timing::Format;
using timing::Mode;

constexpr std::uint64_t kWrapPs = std::uint64_t{3333} << 32;
/// Of the packed recordings made here each chunk has syncs of all channels.
constexpr std::size_t kChunkBytes = 256;
constexpr std::size_t kChunks = 7;
constexpr std::size_t kMaxRequestBytes = 256 * 1024;

std::size_t factor() {
  const char* text = std::getenv("ORVO_DAMAGE_FACTOR");
  return text != nullptr ? std::strtoull(text, nullptr, 10) : 1;
}

struct Kind {
  const char* name;
  Format format;
  Mode mode;
  std::uint8_t delta_bits = 16;
  std::uint16_t quantum_ps = 8;
  std::uint32_t divider = 15;  // of the calibration source: 2 MHz
};

constexpr Kind kKinds[] = {
    {"raw64 in picoseconds", Format::raw64, Mode::external},
    {"raw64 in counts", Format::raw64, Mode::internal},
    {"delta32", Format::delta32, Mode::internal},
    {"packed", Format::packed_delta, Mode::internal},
    {"packed with overflows", Format::packed_delta, Mode::internal, 16, 8, 310},
    {"packed, 9 bits", Format::packed_delta, Mode::internal, 9, 1, 15},
    {"packed of inputs", Format::packed_delta, Mode::external},
};

struct Recording {
  timing::StreamFileHeader header;
  Bytes payload;
  std::string path;
  std::size_t payload_start = 0;
};

Recording record(const Kind& kind, std::uint64_t start_ps, const std::string& path = "") {
  Instrument instrument;
  instrument.settings.sync_interval = 4;
  instrument.settings.external_hz = {2'000'000, 1'800'000, 1'500'000, 1'200'000};
  instrument.settings.clock_ps = start_ps;
  instrument.divider = kind.divider;
  instrument.header.stream_format = kind.format;
  instrument.header.mode = kind.mode;
  instrument.header.delta_bits = kind.delta_bits;
  instrument.header.quantum_ps = kind.quantum_ps;
  if (kind.mode == Mode::internal) instrument.header.raw64_tag_format = "raw_cf";
  Recording recording;
  recording.header = instrument.header;
  const std::size_t size = kChunks * kChunkBytes * factor();
  const auto payload = instrument.payload();
  while (recording.payload.size() < size) {
    const auto some = payload->next(size, simulator::kNever - 1);
    recording.payload.insert(recording.payload.end(), some.begin(), some.end());
  }
  recording.payload.resize(size);
  if (!path.empty()) {
    timing::StreamFileWriter writer;
    writer.open(path, recording.header);
    writer.write(recording.payload.data(), size);
    writer.close();
    recording.path = path;
    recording.payload_start = std::filesystem::file_size(path) - size;
  }
  return recording;
}

Tags read(const std::string& path, std::size_t chunk_bytes) {
  timing::StreamFileReader reader;
  reader.open(path);
  Tags tags;
  for (;;) {
    const auto some = reader.next_tags(1000, chunk_bytes);
    if (some.empty()) return tags;
    tags.insert(tags.end(), some.begin(), some.end());
  }
}

TEST(DamagedFiles, CutAtAnyLength) {
  const ScratchDirectory scratch;
  for (const Kind& kind : kKinds) {
    // The clock wraps early in the recording.
    const Recording whole = record(kind, kWrapPs - 5'000'000, scratch.file("cut"));
    const std::size_t size = whole.payload_start + whole.payload.size();
    const Tags tags = read(whole.path, size);
    std::size_t sum = 0;
    for (std::size_t length = size; length-- > 0;) {
      std::filesystem::resize_file(whole.path, length);
      try {
        const Tags some = read(whole.path, size);
        ASSERT_TRUE(some.size() <= tags.size() &&
                    std::equal(some.begin(), some.end(), tags.begin()))
            << kind.name << ", " << length << " bytes";
        ASSERT_GE(length, whole.payload_start);
        sum += some.size();
      } catch (const timing::Error& error) {
        ASSERT_TRUE(length < whole.payload_start && error.status() == OT_ERR_IO) << length;
      }
    }
    std::cout << kind.name << ": " << size << " lengths, " << tags.size() << " tags, in the mean "
              << sum / whole.payload.size() << "\n";
    // Near half of all, but for what comes before the lock and for the clock's wrap.
    EXPECT_GT(sum / whole.payload.size(), tags.size() / 5);
  }
}

bool earlier(const timing::TimeTag& a, const timing::TimeTag& b) {
  return a.time_ps != b.time_ps ? a.time_ps < b.time_ps : a.channel < b.channel;
}

/// In an order of their own, so that two decodings can be told apart as sets.
Tags sorted(Tags tags, std::int64_t modulus = INT64_MAX) {
  for (timing::TimeTag& tag : tags) tag.time_ps %= modulus;
  std::sort(tags.begin(), tags.end(), earlier);
  return tags;
}

/// How many of the sorted `tags` the sorted `others` do not have.
std::size_t missing(const Tags& tags, const Tags& others) {
  Tags rest;
  std::set_difference(tags.begin(), tags.end(), others.begin(), others.end(),
                      std::back_inserter(rest), earlier);
  return rest.size();
}

struct Cost {
  std::size_t flips = 0, refused = 0, lost = 0, lost_at = 0, lost_sum = 0, astray = 0, turned = 0;
};

class FlippedBits {
 public:
  FlippedBits(const Kind& kind, const std::string& path)
      : kind_(kind), recording_(record(kind, 1'000'000'000'000, path)) {
    timing::StreamDecoder decoder(recording_.header);
    for (Bytes rest = recording_.payload; !rest.empty();) {
      const Tags some = feed(decoder, std::span(rest).first(kChunkBytes));
      tags_.insert(tags_.end(), some.begin(), some.end());
      chunk_ends_.push_back(tags_.size());
      rest.erase(rest.begin(), rest.begin() + kChunkBytes);
    }
    sorted_ = sorted(tags_);
    turns_ = sorted(tags_, kWrapPs);
  }

  void flip(std::size_t byte, unsigned bit) {
    std::fstream file(recording_.path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekg(static_cast<std::streamoff>(byte));
    const int value = file.get() ^ (1 << bit);
    file.seekp(static_cast<std::streamoff>(byte));
    file.put(static_cast<char>(value));
  }

  void look_at(std::size_t byte) {
    ++cost_.flips;
    try {
      const Tags tags = read(recording_.path, kChunkBytes);
      if (byte < recording_.payload_start) return;
      weigh(tags, byte);
      if (recording_.header.stream_format == Format::packed_delta) {
        expect_lock_again(tags, (byte - recording_.payload_start) / kChunkBytes);
      }
    } catch (const timing::Error& error) {
      ++cost_.refused;
      ASSERT_TRUE(error.status() == OT_ERR_IO || error.status() == OT_ERR_FORMAT);
    }
  }

  [[nodiscard]] std::size_t size() const {
    return recording_.payload_start + recording_.payload.size();
  }

  void print() const {
    std::cout << kind_.name << ", " << tags_.size() << " tags: " << cost_.flips << " flips, "
              << cost_.refused << " refused; tags lost at the most " << cost_.lost << " (byte "
              << cost_.lost_at << " of the file), in the mean "
              << static_cast<double>(cost_.lost_sum) / static_cast<double>(8 * size())
              << "; false ones at the most " << cost_.astray
              << "; lost at the most, turns of the clock aside, " << cost_.turned << "\n";
  }

 private:
  void weigh(const Tags& tags, std::size_t byte) {
    const std::size_t lost = missing(sorted_, sorted(tags));
    if (lost > cost_.lost) cost_.lost_at = byte;
    cost_.lost = std::max(cost_.lost, lost);
    cost_.lost_sum += lost;
    cost_.astray = std::max(cost_.astray, missing(sorted(tags), sorted_));
    cost_.turned = std::max(cost_.turned, missing(turns_, sorted(tags, kWrapPs)));
  }

  /// The fault shows with the next syncs, one chunk later at the latest; the chunk after that
  /// brings the lock; from then on all tags come, turns of the clock aside.
  void expect_lock_again(const Tags& tags, std::size_t chunk) {
    if (chunk + 2 >= chunk_ends_.size()) return;
    const std::size_t rest = tags_.size() - chunk_ends_[chunk + 2];
    ASSERT_GE(tags.size(), rest);
    ASSERT_TRUE(std::equal(tags_.end() - static_cast<std::ptrdiff_t>(rest), tags_.end(),
                           tags.end() - static_cast<std::ptrdiff_t>(rest),
                           [](const timing::TimeTag& a, const timing::TimeTag& b) {
                             return a.channel == b.channel &&
                                    (b.time_ps - a.time_ps) % static_cast<std::int64_t>(kWrapPs) ==
                                        0;
                           }));
  }

  Kind kind_;
  Recording recording_;
  Tags tags_, sorted_, turns_;
  std::vector<std::size_t> chunk_ends_;
  Cost cost_;
};

TEST(DamagedFiles, AnyBitFlipped) {
  const ScratchDirectory scratch;
  for (const Kind& kind : kKinds) {
    FlippedBits recording(kind, scratch.file("flip"));
    largest_request_bytes = 0;
    for (std::size_t byte = 0; byte < recording.size(); ++byte) {
      for (unsigned bit = 0; bit < 8; ++bit) {
        recording.flip(byte, bit);
        recording.look_at(byte);
        ASSERT_FALSE(HasFailure()) << kind.name << ", bit " << bit << " of byte " << byte;
        recording.flip(byte, bit);
      }
    }
    recording.print();
    EXPECT_LE(largest_request_bytes, kMaxRequestBytes * factor()) << kind.name;
  }
}

TEST(DamagedFiles, AnyChunks) {
  std::mt19937_64 random(1);
  for (const Kind& kind : kKinds) {
    const Recording recording = record(kind, kWrapPs - 5'000'000);
    const auto decode = [&](auto next_bytes) {
      timing::StreamDecoder decoder(recording.header);
      Tags tags;
      for (std::span<const std::uint8_t> rest = recording.payload; !rest.empty();) {
        const std::size_t count = std::min<std::size_t>(next_bytes(), rest.size());
        const Tags some = feed(decoder, rest.first(count));
        tags.insert(tags.end(), some.begin(), some.end());
        rest = rest.subspan(count);
        for (const timing::LockEvent& event : decoder.lock_events()) {
          EXPECT_FALSE(timing::drops_lock(event.kind)) << kind.name;
        }
      }
      return tags;
    };
    const Tags whole = decode([&] { return recording.payload.size(); });
    ASSERT_GT(whole.size(), recording.payload.size() / 20) << kind.name;
    for (std::size_t bytes = 1; bytes <= 300; ++bytes) {
      ASSERT_EQ(decode([&] { return bytes; }), whole) << kind.name << ", " << bytes;
    }
    for (std::size_t split = 0; split < 300 * factor(); ++split) {
      const std::size_t most = 1 + random() % 600;
      ASSERT_EQ(decode([&] { return 1 + random() % most; }), whole) << kind.name << ", " << split;
    }
  }
}

}  // namespace
}  // namespace orvo::tests
