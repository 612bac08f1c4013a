// Packed-delta records to bytes, most significant bit first.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace orvo::tests {

struct RecordWriter {
  explicit RecordWriter(unsigned width = 16)
      : payload_bits(width), ones((std::uint64_t{1} << width) - 1) {}

  void bits(std::uint64_t value, unsigned count) {
    for (; count-- > 0; ++used_bits) {
      if (used_bits % 8 == 0) bytes.push_back(0);
      const std::uint64_t bit = (value >> count & 1) << (7 - used_bits % 8);
      bytes.back() = static_cast<std::uint8_t>(bytes.back() | bit);
    }
  }
  void record(unsigned channel, bool flag, std::uint64_t payload) {
    bits(channel, 2);
    bits(flag ? 1 : 0, 1);
    bits(payload & ones, payload_bits);
  }
  /// Without the data record that it anchors.
  void sync(unsigned channel, std::uint64_t tick) {
    record(channel, true, ones);
    for (unsigned sent = 0; sent < 41; sent += payload_bits) record(channel, false, tick >> sent);
  }
  /// A step of so many ticks, with the overflow records that it needs.
  void data(unsigned channel, std::uint64_t ticks) {
    for (std::uint64_t left = ticks >> payload_bits; left > 0;) {
      const std::uint64_t payload = std::min(left, ones - 1);
      record(channel, true, payload);
      left -= payload;
    }
    record(channel, false, ticks);
  }

  unsigned payload_bits;
  std::uint64_t ones;
  std::vector<std::uint8_t> bytes;
  std::uint64_t used_bits = 0;
};

}  // namespace orvo::tests
