// Delta32 records: four bytes, big-endian, each with the time since the channel's previous event.
// A marker word and the two halves of a base time anchor the next event. Where a word does not fit,
// the synchronisation is lost and the next marker searched.
//
// Threads: a decoder belongs to the one thread that feeds it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "orvo/timing/stream_decoder.h"

namespace orvo::timing {

class Delta32Decoder final : public StreamDecoder {
 public:
  std::span<const TimeTag> feed() override;

 private:
  enum class Sync { searching, time_low, time_high, running };  // the word that comes next

  [[nodiscard]] bool find_marker(std::size_t from);
  void expect_base_time();
  [[nodiscard]] bool handle_word(std::uint32_t word, TimeTag*& tags);
  [[nodiscard]] bool handle_running(std::uint32_t word, TimeTag*& tags);
  [[nodiscard]] bool handle_event(std::size_t channel, std::uint64_t payload, TimeTag*& tags);

  Sync sync_ = Sync::searching;
  std::uint32_t time_low_ = 0;                 // of the base time being assembled
  std::optional<std::uint64_t> base_time_ps_;  // anchors the next event
  std::uint64_t overflow_ = 0;                 // periods of 2^25 ps since the last event
  std::array<std::optional<std::int64_t>, kChannels> last_time_ps_;  // of each channel
};

}  // namespace orvo::timing
