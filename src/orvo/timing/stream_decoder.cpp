#include "orvo/timing/stream_decoder.h"

#include "orvo/timing/delta32.h"
#include "orvo/timing/packed/packed_delta.h"
#include "orvo/timing/raw64.h"
#include "orvo/timing/record_decoder.h"

namespace orvo::timing {

std::unique_ptr<RecordDecoder> make_record_decoder(const StreamFileHeader& header) {
  switch (header.stream_format) {
    case Format::raw64:
      return std::make_unique<Raw64Decoder>(header);
    case Format::delta32:
      return std::make_unique<Delta32Decoder>();
    case Format::packed_delta:
      return PackedDeltaDecoder::decodes(header) ? std::make_unique<PackedDeltaDecoder>(header)
                                                 : nullptr;
  }
  return nullptr;
}

bool StreamDecoder::decodes(const StreamFileHeader& header) {
  return make_record_decoder(header) != nullptr;
}

StreamDecoder::StreamDecoder(const StreamFileHeader& header)
    : input_(std::make_unique<InputBuffer>()), records_(make_record_decoder(header)) {}

StreamDecoder::~StreamDecoder() = default;
StreamDecoder::StreamDecoder(StreamDecoder&&) noexcept = default;
StreamDecoder& StreamDecoder::operator=(StreamDecoder&&) noexcept = default;

void StreamDecoder::append(std::span<const std::uint8_t> bytes) { input_->append(bytes); }

std::span<std::uint8_t> StreamDecoder::prepare(std::size_t count) { return input_->prepare(count); }

void StreamDecoder::commit(std::size_t count) noexcept { input_->commit(count); }

std::span<const TimeTag> StreamDecoder::feed() {
  if (records_ == nullptr) {
    return {};
  }
  return records_->feed(*input_);
}

std::span<const LockEvent> StreamDecoder::lock_events() const noexcept {
  if (records_ == nullptr) {
    return {};
  }
  return records_->lock_events();
}

std::uint64_t StreamDecoder::buffered_bytes() const noexcept { return input_->size(); }

}  // namespace orvo::timing
