// The packed-delta decoder against the plain one, whose lock search wants short inputs.
#include <cstdint>

#include "check.h"
#include "support/decoder_pair.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace orvo;
  const auto input = fuzz::decoder_input({data, size});
  if (input && input->header.stream_format == timing::Format::packed_delta) {
    tests::DecoderPair pair(input->header);
    fuzz::require(pair.feed_in_chunks(input->payload, [&] { return input->chunk_bytes; }) == "");
  }
  return 0;
}
