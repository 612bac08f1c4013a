// The header of a stream file as text: exact when written, tolerant when read.
#include "orvo/timing/stream_header.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

namespace orvo::tests {
namespace {

using timing::Format;
using timing::Mode;
using timing::StreamFileHeader;
using timing::Transport;
using timing::detail::json_find_string;
using timing::detail::json_find_uint;
using timing::detail::stream_header_from_json;
using timing::detail::stream_header_to_json;

auto fields(const StreamFileHeader& h) {
  return std::make_tuple(h.stream_format, h.mode, h.stream_transport, h.channel_mask, h.tdl_index,
                         h.delta_bits, h.quantum_ps, h.raw64_tag_format, h.created_utc,
                         h.application, h.device_product, h.device_serial, h.device_port);
}

StreamFileHeader full_header() {
  StreamFileHeader header;
  header.stream_format = Format::delta32;
  header.mode = Mode::internal;
  header.stream_transport = Transport::usb_async;
  header.channel_mask = 5;
  header.tdl_index = 255;
  header.delta_bits = 31;
  header.quantum_ps = 65535;
  header.raw64_tag_format = "Raw_CF";
  header.created_utc = "2026-03-14T09:26:53.058979Z";
  header.application = "a\tb\"c\\d\ne\rf \xC3\xA9";
  header.device_product = "product";
  header.device_serial = "s/n 1";
  header.device_port = "/dev/ttyUSB0";
  return header;
}

TEST(StreamHeader, TextHasAFixedForm) {
  EXPECT_EQ(stream_header_to_json(full_header()),
            R"({"file_type":"orvo_timing_raw_stream_capture","schema_version":1,)"
            R"("created_utc":"2026-03-14T09:26:53.058979Z",)"
            R"("application":"a\tb\"c\\d\ne\rf )"
            "\xC3\xA9\","
            R"("device_product":"product","device_serial":"s/n 1",)"
            R"("device_port":"/dev/ttyUSB0","stream_format":"delta32","mode":"internal",)"
            R"("stream_transport":"usb_async","raw64_tag_format":"Raw_CF","channel_mask":5,)"
            R"("tdl_index":255,"packed_delta_config":{"delta_bits":31,"quantum_ps":65535}})");
}

TEST(StreamHeader, ReadsBackWhatWasWritten) {
  EXPECT_EQ(fields(stream_header_from_json(stream_header_to_json(full_header()))),
            fields(full_header()));
  for (const Format format : {Format::raw64, Format::delta32, Format::packed_delta}) {
    for (const Transport transport : {Transport::uart, Transport::usb, Transport::usb_async}) {
      StreamFileHeader header = full_header();
      header.stream_format = format;
      header.stream_transport = transport;
      header.mode = Mode::external;
      EXPECT_EQ(fields(stream_header_from_json(stream_header_to_json(header))), fields(header));
    }
  }
}

TEST(StreamHeader, EmptyTextsAreFilledInWhenWritten) {
  for (const auto& [mode, tag_format] :
       {std::pair(Mode::internal, "raw_cf"), std::pair(Mode::external, "ps")}) {
    StreamFileHeader header;
    header.mode = mode;
    header.raw64_tag_format.clear();
    const StreamFileHeader read = stream_header_from_json(stream_header_to_json(header));
    EXPECT_EQ(read.raw64_tag_format, tag_format);
    std::string form = read.created_utc;
    std::replace_if(
        form.begin(), form.end(), [](char c) { return c >= '0' && c <= '9'; }, '0');
    EXPECT_EQ(form, "0000-00-00T00:00:00.000000Z") << read.created_utc;
  }
}

TEST(StreamHeader, ValuesOutOfRangeAreWrittenAsTheNearestName) {
  StreamFileHeader header = full_header();
  header.stream_format = static_cast<Format>(7);
  header.mode = static_cast<Mode>(2);
  header.stream_transport = static_cast<Transport>(5);
  header.channel_mask = 0xFF;
  header.application = "\x01\x1F\x7F";
  const std::string text = stream_header_to_json(header);
  for (const char* member :
       {R"("stream_format":"raw64")", R"("mode":"external")", R"("stream_transport":"uart")",
        R"("channel_mask":15)", "\"application\":\"??\x7F\""}) {
    EXPECT_NE(text.find(member), std::string::npos) << member;
  }
}

TEST(StreamHeader, AnyTextIsReadTolerantly) {
  const struct {
    const char* text;
    void (*expect)(StreamFileHeader&);
  } cases[] = {
      {"", [](StreamFileHeader&) {}},
      {"\"mode\"", [](StreamFileHeader&) {}},
      {"\"mode\":\"inter", [](StreamFileHeader&) {}},
      {"\"tdl_index\":\"9\"", [](StreamFileHeader&) {}},
      {"\"stream_format\":\"PackedDelta\"", [](StreamFileHeader&) {}},
      {"\"stream_format\":\"raw_cf\"",
       [](StreamFileHeader& h) { h.stream_format = Format::raw64; }},
      {"\"stream_format\":\"DELTA32\"",
       [](StreamFileHeader& h) { h.stream_format = Format::delta32; }},
      {"\"mode\" : \"Internal\"", [](StreamFileHeader& h) { h.mode = Mode::internal; }},
      {"\"mode\":1,\"x\":\"internal\"", [](StreamFileHeader&) {}},  // the next quoted text is x
      {"\"mode\":1,\"internal\"", [](StreamFileHeader& h) { h.mode = Mode::internal; }},
      {"\"stream_transport\":\"USB-Async\"",
       [](StreamFileHeader& h) { h.stream_transport = Transport::usb_async; }},
      {"\"stream_transport\":\"usbasync\"",
       [](StreamFileHeader& h) { h.stream_transport = Transport::usb_async; }},
      {"\"stream_transport\":\"serial\"",
       [](StreamFileHeader& h) { h.stream_transport = Transport::uart; }},
      {"\"channel_mask\":31,\"tdl_index\":257,\"delta_bits\":258,\"quantum_ps\":65539",
       [](StreamFileHeader& h) {
         h.tdl_index = 1;
         h.delta_bits = 2;
         h.quantum_ps = 3;
       }},
      {"\"channel_mask\":16", [](StreamFileHeader& h) { h.channel_mask = 0; }},
      {"\"raw64_tag_format\":\"\",\"mode\":\"internal\"",
       [](StreamFileHeader& h) {
         h.mode = Mode::internal;
         h.raw64_tag_format = "raw_cf";
       }},
      {"\"application\":\"first\",\"application\":\"second\"",
       [](StreamFileHeader& h) { h.application = "first"; }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    StreamFileHeader expected;
    c.expect(expected);
    EXPECT_EQ(fields(stream_header_from_json(c.text)), fields(expected));
  }
}

TEST(StreamHeader, StringSearch) {
  using Found = std::optional<std::string>;
  const std::pair<const char*, Found> cases[] = {
      {R"("k":"v")", "v"},
      {R"({"a":{"k" x : 7 "v"}})", "v"},
      {R"("k":"\r\t\n\"\\\/\u00e9")", "\r\t\n\"\\/u00e9"},
      {R"("k":"")", ""},
      {R"("a":"k":"v")", "v"},
      {R"("k")", std::nullopt},
      {R"("k":)", std::nullopt},
      {R"("k":7)", std::nullopt},
      {R"("k":")", std::nullopt},
      {R"("k":"v)", std::nullopt},
      {R"("k":"v\)", std::nullopt},
      {R"("k":"v\")", std::nullopt},
      {R"(k:"v")", std::nullopt},
  };
  for (const auto& [text, found] : cases) {
    EXPECT_EQ(json_find_string(text, "k"), found) << text;
  }
}

TEST(StreamHeader, NumberSearch) {
  using Found = std::optional<std::uint64_t>;
  const std::pair<const char*, Found> cases[] = {
      {R"("k":7)", 7},
      {"\"k\": \t\n\v\f\r007}", 7},
      {R"("k":1.5)", 1},
      {R"("k":0x10)", 0},
      {R"("k":18446744073709551618)", 2},  // modulo 2^64
      {R"("k":-7)", std::nullopt},
      {R"("k":"7")", std::nullopt},
      {R"("k": )", std::nullopt},
      {R"("k":)", std::nullopt},
  };
  for (const auto& [text, found] : cases) {
    EXPECT_EQ(json_find_uint(text, "k"), found) << text;
  }
}

}  // namespace
}  // namespace orvo::tests
