#include "orvo/timing/stream_decoder.h"

#include <utility>

#include "orvo/timing/fine_table.h"
#include "orvo/timing/packed/record_groups.h"

namespace orvo::timing {

StreamDecoder::StreamDecoder(StreamFileHeader header)
    : header_(std::move(header)),
      fine_table_(detail::default_fine_table()),
      packed_format_(header_),
      packed_groups_(detail::RecordGroups::make(packed_format_)) {}

StreamDecoder::~StreamDecoder() = default;

bool StreamDecoder::decodes() const noexcept {
  switch (header_.stream_format) {
    case Format::raw64:
    case Format::delta32:
      return true;
    case Format::packed_delta:
      return packed_format_.valid();
  }
  return false;
}

std::span<const TimeTag> StreamDecoder::feed() {
  switch (header_.stream_format) {
    case Format::raw64:
      return feed_raw64();
    case Format::delta32:
      return feed_delta32();
    case Format::packed_delta:
      return feed_packed_delta();
  }
  return {};
}

}  // namespace orvo::timing
