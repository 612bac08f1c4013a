// The packed-delta decoder against the plain one, whose lock search wants short inputs.
#include <algorithm>
#include <cstdint>

#include "check.h"
#include "orvo/timing/stream_decoder.h"
#include "support/plain_decoder.h"

namespace orvo::fuzz {
namespace {

void check(const DecoderInput& input) {
  timing::StreamDecoder fast(input.header);
  tests::PlainDecoder plain(input.header);
  for (Bytes rest = input.payload; !rest.empty();) {
    const Bytes chunk = rest.first(std::min(input.chunk_bytes, rest.size()));
    rest = rest.subspan(chunk.size());
    fast.input_buffer.append(chunk);
    plain.input_buffer.insert(plain.input_buffer.end(), chunk.begin(), chunk.end());
    const auto tags = fast.feed_packed_delta();
    const auto plain_tags = plain.feed_packed_delta();
    require(std::equal(tags.begin(), tags.end(), plain_tags.begin(), plain_tags.end(),
                       [](const timing::TimeTag& a, const timing::TimeTag& b) {
                         return a.channel == b.channel && a.time_ps == b.time_ps;
                       }));
    require(fast.locked() == plain.locked && fast.bit_offset() == plain.bit_offset);
    require(fast.input_buffer.size() == plain.input_buffer.size());
  }
}

}  // namespace
}  // namespace orvo::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto input = orvo::fuzz::decoder_input({data, size});
  if (input && input->header.stream_format == orvo::timing::Format::packed_delta) {
    orvo::fuzz::check(*input);
  }
  return 0;
}
