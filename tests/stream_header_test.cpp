// The header of a stream file as text: exact when written, tolerant when read.
#include "orvo/timing/stream_header.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace orvo::tests {
namespace {

using timing::StreamFileHeader;
using timing::detail::stream_header_from_json;
using timing::detail::stream_header_to_json;

/// The fixed form; every member differs from its default.
constexpr const char* kText =
    R"({"file_type":"orvo_timing_raw_stream_capture","schema_version":1,)"
    R"("created_utc":"now","application":"a\tb\"c\\d\ne\rf )"
    "\xC3\xA9\","
    R"("device_product":"product","device_serial":"s/n 1","device_port":"/dev/ttyUSB0",)"
    R"("stream_format":"delta32","mode":"internal","stream_transport":"usb_async",)"
    R"("raw64_tag_format":"Raw_CF","channel_mask":5,"tdl_index":255,)"
    R"("packed_delta_config":{"delta_bits":31,"quantum_ps":65535}})";

TEST(StreamHeader, ReadsAnyTextTolerantly) {
  const struct {
    const char *text, *member;  // as it is written again
  } cases[] = {
      {kText, kText},
      {"", R"("stream_format":"packed_delta","mode":"external","stream_transport":"usb")"},
      {R"("mode" : "Internal")", R"("mode":"internal")"},
      {R"("mode":1,"x":"internal")", R"("mode":"external")"},  // the next quoted text is x
      {R"("stream_format":"PackedDelta")", R"("stream_format":"packed_delta")"},
      {R"("stream_format":"raw_cf")", R"("stream_format":"raw64")"},
      {R"("stream_transport":"USB-Async")", R"("stream_transport":"usb_async")"},
      {R"("stream_transport":"serial")", R"("stream_transport":"uart")"},
      {R"("channel_mask":31,"tdl_index":257)", R"("channel_mask":15,"tdl_index":1)"},
      {R"("raw64_tag_format":"","mode":"internal")", R"("raw64_tag_format":"raw_cf")"},
      {R"("application":"\r\t\n\"\\\/\u00e9","application":"2")",
       R"("application":"\r\t\n\"\\/u00e9")"},
      {R"("application":"v\")", R"("application":"")"},
      {R"("application":)", R"("application":"")"},
      {"\"quantum_ps\": \t\n\v\f\r0075}", R"("quantum_ps":75)"},
      {R"("quantum_ps":18446744073709551618)", R"("quantum_ps":2)"},  // modulo 2^64
      {R"("quantum_ps":-7)", R"("quantum_ps":8)"},
  };
  for (const auto& c : cases) {
    const std::string written = stream_header_to_json(stream_header_from_json(c.text));
    EXPECT_NE(written.find(c.member), std::string::npos) << c.text << " became " << written;
  }
  EXPECT_EQ(stream_header_from_json(R"("channel_mask":31)").channel_mask, 15);
}

TEST(StreamHeader, ValuesThatCannotStandAreReplacedWhenWritten) {
  StreamFileHeader header;
  header.channel_mask = 0xFF;
  header.application = "\x01\x1F\x7F";
  header.raw64_tag_format.clear();
  const std::regex expected(
      R"(.*"created_utc":"\d{4}(-\d\d){2}T\d\d(:\d\d){2}\.\d{6}Z","application":"\?\?\x7F",.*)"
      R"("raw64_tag_format":"ps","channel_mask":15,.*)");
  const std::string text = stream_header_to_json(header);
  EXPECT_TRUE(std::regex_match(text, expected)) << text;
}

}  // namespace
}  // namespace orvo::tests
