#include "orvo/timing/stream_decoder.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "orvo/timing/delta32.h"
#include "orvo/timing/packed/packed_delta.h"
#include "orvo/timing/raw64.h"

namespace orvo::timing {

std::span<std::uint8_t> InputBuffer::prepare(std::size_t count) {
  const std::size_t used = size();
  if (count > SIZE_MAX / 4 - used) {
    throw std::bad_alloc();
  }
  const std::size_t needed = used + count + kSlackBytes;
  if (head_ > 0 && head_ >= used) {
    // Moves no more bytes than were consumed since the last move: linear in the bytes received.
    std::memmove(storage_.get(), data(), used);
    head_ = 0;
    tail_ = used;
  }
  if (capacity_ - head_ < needed) {
    grow(head_ + needed + std::max(needed / 8, used));
  }
  return {storage_.get() + tail_, count};
}

/// The system moves pages of a large block, so that two of them are never filled at once.
void InputBuffer::grow(std::size_t capacity) {
  void* const grown = std::realloc(storage_.get(), capacity);  // not filled
  if (grown == nullptr) {
    throw std::bad_alloc();
  }
  static_cast<void>(storage_.release());
  storage_.reset(static_cast<std::uint8_t*>(grown));
  capacity_ = capacity;
}

void InputBuffer::append(std::span<const std::uint8_t> bytes) {
  const std::span<std::uint8_t> room = prepare(bytes.size());
  std::copy(bytes.begin(), bytes.end(), room.begin());
  commit(bytes.size());
}

TimeTag* TagBuffer::room_for(std::size_t count) {
  if (count > capacity_) {
    capacity_ = count + count / 8;        // chunks of one size differ by a record or two
    tags_.reset(new TimeTag[capacity_]);  // not filled
  }
  return tags_.get();
}

std::unique_ptr<StreamDecoder> StreamDecoder::make(const StreamFileHeader& header) {
  switch (header.stream_format) {
    case Format::raw64:
      return std::make_unique<Raw64Decoder>(header);
    case Format::delta32:
      return std::make_unique<Delta32Decoder>();
    case Format::packed_delta:
      return detail::PackedFormat(header).valid() ? std::make_unique<PackedDeltaDecoder>(header)
                                                  : nullptr;
  }
  return nullptr;
}

}  // namespace orvo::timing
