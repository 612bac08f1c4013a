// Recordings judged again: `verify`.
#include <gtest/gtest.h>

#include <cmath>
#include <iostream>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>

#include "orvo/inspection/commands.h"
#include "orvo/timing/stream_files.h"
#include "orvo/verification/evaluation.h"
#include "orvo/verification/reports.h"
#include "support/decoding.h"
#include "support/error_of.h"
#include "support/scratch.h"

namespace orvo::tests {
namespace {

namespace fs = std::filesystem;
using inspection::VerifyOptions;

constexpr std::uint32_t kDivider = 1000;
constexpr double kPeriodPs = 1e12 / (verification::kCalibrationBaseHz / kDivider / 0.9999);

class Verify : public testing::Test {
 protected:
  Verify() {
    write_recording(100);
    // As the tool reports it, all channels judged.
    run = judge(verification::read_tag_statistics(file, 1 << 20),
                verification::derive_rates(kDivider, {}), {});
    run.stream_file = file;
    run.payload_bytes = 2400;
    verification::write_json_report(report, {}, {run}, run.pass);
  }

  /// `events` on each of the channels 0 to 2; those of channel 2 come 100 ppm too late.
  void write_recording(unsigned events) const {
    Bytes payload;
    for (unsigned i = 0; i < 3 * events; ++i) {
      const std::uint64_t channel = i % 3;
      const double time_ps = 1000 + i / 3 * kPeriodPs * (channel == 2 ? 1.0001 : 1);
      put_big_endian(payload, channel << 61 | static_cast<std::uint64_t>(std::llround(time_ps)), 8);
    }
    timing::StreamFileHeader header;
    header.stream_format = timing::Format::raw64;
    header.channel_mask = 3;
    timing::StreamFileWriter writer;
    writer.open(file, header);
    writer.write(payload.data(), payload.size());
  }

  /// `out` and `err` get what is printed.
  int verify(const VerifyOptions& options) {
    std::ostringstream to_out, to_err;
    std::streambuf* const previous_out = std::cout.rdbuf(to_out.rdbuf());
    std::streambuf* const previous_err = std::cerr.rdbuf(to_err.rdbuf());
    const int status = inspection::run(options);
    std::cout.rdbuf(previous_out);
    std::cerr.rdbuf(previous_err);
    out = to_out.str();
    err = to_err.str();
    return status;
  }

  ScratchDirectory scratch;
  const std::string file = scratch.file("a.ortime");
  const std::string report = scratch.file("overflow_frequency.json");
  verification::RunResult run;
  std::string out, err;
};

TEST_F(Verify, JudgesAStreamFile) {
  const std::string by_divider =
      "tolerance_ppm=25\nmin_tags_per_channel=64\nchannel_mask=0x03\n"
      "run effective_hz=30978.261 expected_decoded_hz=30981.359 divider=1000 "
      "overflow_required=false payload_bytes=2400 decoded_tags=300 pass=true\n  stream_file=\"";
  const std::string by_rate =
      "tolerance_ppm=25\nmin_tags_per_channel=64\nchannel_mask=0x03\n"
      "run requested_hz=30970.000 effective_hz=30978.261 expected_decoded_hz=30981.359 "
      "divider=1000 overflow_required=false ";
  const std::string silent_channel =
      "\n  ch3 count=0 first_ps=0 last_ps=0 measured_hz=0.000000000 ppm_error=0.000000 pass=false";
  const std::optional<std::uint32_t> none;
  constexpr double kInfinite = std::numeric_limits<double>::infinity();
  const struct {
    VerifyOptions options;
    int status;
    std::string start, end;  // of what is printed
  } cases[] = {
      // Channels 0 and 1 count, by the header.
      {{file, kDivider}, 0, by_divider, silent_channel + " judged=false\npass=true\n"},
      {{file, kDivider, {}, {}, {}, 15}, 2, "", silent_channel + "\npass=false\n"},
      {{file, kDivider, {}, 101, {}, 7}, 0, "", "\npass=true\n"},
      {{file, kDivider + 5, {}, kInfinite}, 0, "tolerance_ppm=inf\n", "\npass=true\n"},
      {{file, kDivider, {}, {}, 101}, 2, "", "\npass=false\n"},
      {{file, kDivider + 1}, 2, "", "\npass=false\n"},
      {{file, none, 30970}, 0, by_rate, "\npass=true\n"},  // 1000.27 times
      {{file, none, 30960}, 2, "", "\npass=false\n"},      // 1000.59 times
      {{file, none, 1e300}, 2, "", "\npass=false\n"},      // no less than 1
      {{file, none, 1e-300}, 2, "", "\npass=false\n"},     // no more than 32 bits
  };
  for (const auto& c : cases) {
    EXPECT_EQ(verify(c.options), c.status);
    EXPECT_EQ(out.substr(0, c.start.size()), c.start);
    EXPECT_TRUE(out.ends_with(c.end)) << out;
    EXPECT_EQ(err, "");
  }
}

TEST_F(Verify, NoPassWhereRecordingsAndReportDisagree) {
  const fs::path path = scratch.path();
  EXPECT_EQ(verify({path}), 2);  // for channels 2 and 3
  EXPECT_EQ(err, "");
  EXPECT_TRUE(out.ends_with("\npass=false\n"));
  EXPECT_EQ(verify({path, {}, {}, {}, {}, 3}), 0);
  EXPECT_EQ(err, "");  // another judgement was asked for
  write_recording(99);
  EXPECT_EQ(verify({path}), 3);
  EXPECT_TRUE(
      err.starts_with("ortime: run 1: payload_bytes=2376 differs from the report: 2400\n"
                      "ortime: run 1: decoded_tags=297 differs from the report: 300\n"
                      "ortime: run 1: ch0 count=99 differs from the report: 100\n"
                      "ortime: run 1: ch0 last_ps="))
      << err;
  EXPECT_NE(err.find("\nortime: recordings and report disagree in 14 numbers: "), std::string::npos)
      << err;
  EXPECT_TRUE(out.ends_with("\npass=false disagreements=14\n")) << out;
  EXPECT_EQ(verify({path, {}, {}, {}, {}, 3}), 3);  // although all that counts has passed
  EXPECT_TRUE(out.ends_with(" disagreements=14\n")) << out;
  write_recording(10);
  EXPECT_EQ(verify({path}), 3);
  EXPECT_NE(err.find("ch1 pass=false differs from the report: true\n"), std::string::npos);

  write_recording(100);
  run.channels[2].pass = run.channels[3].pass = run.pass = true;
  verification::write_json_report(report, {}, {run}, true);
  EXPECT_EQ(verify({path}), 3);
  for (const char* const channel : {"2", "3"}) {
    EXPECT_NE(err.find("run 1: ch" + std::string(channel) +
                       " pass=false differs from the report: true\n"),
              std::string::npos);
  }
  EXPECT_NE(err.find("ortime: pass=false differs from the report: true\n"), std::string::npos);
}

TEST_F(Verify, JudgesWhatIsThereAndNamesWhatIsMissing) {
  verification::RunResult lost = run, damaged = run;
  lost.stream_file = scratch.file("lost.ortime");
  damaged.stream_file = scratch.file("damaged.ortime");
  write_file(damaged.stream_file.string(), "plain text");
  verification::write_json_report(report, {}, {lost, run, damaged}, false);
  EXPECT_EQ(verify({scratch.path(), {}, {}, {}, {}, 3}), 1);
  EXPECT_TRUE(err.starts_with("ortime: run 1: recording \"lost.ortime\" is missing: ")) << err;
  EXPECT_NE(err.find("\nortime: run 3: \"" + damaged.stream_file.string() + "\": "),
            std::string::npos)
      << err;
  EXPECT_NE(out.find("\n  ch0 count=100 "), std::string::npos);
  EXPECT_TRUE(out.ends_with("\npass=false unjudged=2\n")) << out;

  VerifyOptions options = {scratch.path(), {}, {}, {}, {}, 3};
  options.json = true;
  EXPECT_EQ(verify(options), 1);
  const auto document = nlohmann::json::parse(out);
  EXPECT_EQ(document["channel_mask"], 3);
  EXPECT_EQ(document["min_tags_per_channel"], 64);
  EXPECT_EQ(document["unjudged"], 2);
  EXPECT_EQ(document["pass"], false);
  ASSERT_EQ(document["runs"].size(), 3U);
  EXPECT_TRUE(document["runs"][0].contains("error"));
  EXPECT_EQ(document["runs"][1]["stream_file"], file);
  EXPECT_EQ(document["runs"][1]["decoded_tags"], 300);
  EXPECT_EQ(document["runs"][1]["pass"], true);
  EXPECT_EQ(document["runs"][1]["channels"][2]["judged"], false);
  EXPECT_EQ(document["runs"][1]["channels"][2]["pass"], false);
  EXPECT_EQ(document["runs"][1]["differences"].size(), 0U);
}

TEST_F(Verify, SaysWhatWasTakenForAnOddHeader) {
  const std::string whole = read_file(file);
  const std::string header = whole.substr(12, whole.find("}}") + 2 - 12);
  const struct {
    std::string from, to, warning;
  } cases[] = {
      {header, "", "is empty; taken: "},
      {header, "[7]", "is no JSON object; taken: "},
      {"orvo_timing_raw_stream_capture", "other",
       "is that of another kind of file; read all the same"},
      {"\"schema_version\":1", "\"schema_version\":2",
       "has schema_version 2, not 1; read all the same"},
      {"\"channel_mask\"", "\"mask\"", "is incomplete; taken: channel_mask="},
  };
  for (const auto& [from, to, warning] : cases) {
    std::string changed = whole;
    ASSERT_NE(changed.find(from), std::string::npos) << from;
    changed.replace(changed.find(from), from.size(), to);
    const std::size_t bytes = header.size() - from.size() + to.size();
    changed[8] = static_cast<char>(bytes & 0xFF);
    changed[9] = static_cast<char>(bytes >> 8);
    write_file(file, changed);
    const int status = verify({file, kDivider, {}, 101, {}, 7});
    EXPECT_NE(err.find("ortime: \"" + file + "\": its header " + warning), std::string::npos)
        << err;
    EXPECT_EQ(status, out.ends_with("\npass=true\n") ? 0 : 2);
  }
  write_file(file, whole);
  EXPECT_EQ(verify({file, kDivider}), 0);
  EXPECT_EQ(err, "");
}

TEST_F(Verify, RefusesWhatCannotBeJudged) {
  const std::string text = scratch.file("text");
  write_file(text, "plain text");
  timing::StreamFileHeader wide;
  wide.delta_bits = 99;
  const std::string undecodable = scratch.file("undecodable");
  timing::StreamFileWriter().open(undecodable, wide);
  const fs::path unended = scratch.path() / "unended";
  fs::create_directories(unended);
  fs::rename(file, unended / "overflow_frequency_01.ortime");
  const struct {
    VerifyOptions options;
    const char *message, *status;
  } cases[] = {
      {{text, 1}, "text\": not an Orvo timing stream file", "[-4]"},
      {{file}, "a.ortime\": No such file or directory", "[-2]"},
      {{undecodable, 1}, "records that cannot be decoded: packed_delta of 99 bits", "[-4]"},
      {{unended}, "unended\" has no report, because an error ended the run: judge its", "[-5]"},
  };
  for (const auto& c : cases) {
    const std::string error = error_of([&] { (void)inspection::run(c.options); });
    EXPECT_NE(error.find(c.message), std::string::npos) << error;
    EXPECT_TRUE(error.ends_with(c.status)) << error;
  }
}

}  // namespace
}  // namespace orvo::tests
