// Recordings judged again: `verify`.
#include <gtest/gtest.h>

#include <cmath>
#include <iostream>
#include <sstream>

#include "orvo/inspection/verify.h"
#include "orvo/timing/stream_files.h"
#include "orvo/verification/evaluation.h"
#include "orvo/verification/reports.h"
#include "support/decoding.h"
#include "support/error_of.h"
#include "support/scratch.h"

namespace orvo::tests {
namespace {

namespace fs = std::filesystem;

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
    verification::write_json_report(scratch.path() / "overflow_frequency.json", {}, {run},
                                    run.pass);
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
  int verify(const inspection::VerifyOptions& options) {
    std::ostringstream to_out, to_err;
    std::streambuf* const previous_out = std::cout.rdbuf(to_out.rdbuf());
    std::streambuf* const previous_err = std::cerr.rdbuf(to_err.rdbuf());
    const int status = inspection::verify(options);
    std::cout.rdbuf(previous_out);
    std::cerr.rdbuf(previous_err);
    out = to_out.str();
    err = to_err.str();
    return status;
  }

  ScratchDirectory scratch;
  const std::string file = scratch.file("a.ortime");
  verification::RunResult run;
  std::string out, err;
};

TEST_F(Verify, JudgesAStreamFile) {
  const std::string by_divider =
      "tolerance_ppm=25\nmin_tags_per_channel=64\nchannel_mask=0x03\n"
      "run effective_hz=30978.261 expected_decoded_hz=30981.359 divider=1000 "
      "overflow_required=false payload_bytes=2400 decoded_tags=300 pass=true\n  stream_file=";
  const std::string by_rate =
      "tolerance_ppm=4.56\nmin_tags_per_channel=64\nchannel_mask=0x03\n"
      "run effective_hz=30978.402 expected_decoded_hz=30981.500 overflow_required=false ";
  const std::string silent_channel =
      "\n  ch3 count=0 first_ps=0 last_ps=0 measured_hz=0.000000000 ppm_error=0.000000 pass=false";
  const struct {
    inspection::VerifyOptions options;
    int status;
    std::string start, end;  // of what is printed
  } cases[] = {
      // Channels 0 and 1 count, by the header.
      {{file, kDivider, {}, {}, {}, {}},
       0,
       by_divider,
       silent_channel + " judged=false\npass=true\n"},
      {{file, kDivider, {}, {}, {}, 15}, 2, "", silent_channel + "\npass=false\n"},
      {{file, kDivider, {}, {}, {}, 7}, 2, "", "\npass=false\n"},
      {{file, kDivider, {}, 101, {}, 7}, 0, "", "\npass=true\n"},
      {{file, kDivider, {}, {}, 101, {}}, 2, "", "\npass=false\n"},
      {{file, kDivider + 1, {}, {}, {}, {}}, 2, "", "\npass=false\n"},
      {{file, {}, 30981.5, 4.56, {}, {}}, 0, by_rate, "\npass=true\n"},
      {{file, {}, 30981.5, 4.54, {}, {}}, 2, "", "\npass=false\n"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(verify(c.options), c.status);
    EXPECT_EQ(out.substr(0, c.start.size()), c.start);
    EXPECT_TRUE(out.ends_with(c.end)) << out;
    EXPECT_EQ(err, "");
  }
}

TEST_F(Verify, TellsWhereTheReportSaysOtherwise) {
  const fs::path path = scratch.path();
  EXPECT_EQ(verify({path, {}, {}, {}, {}, {}}), 2);  // for channels 2 and 3
  EXPECT_EQ(err, "");
  EXPECT_EQ(verify({path, {}, {}, {}, {}, 3}), 0);
  EXPECT_EQ(err, "");  // another judgement was asked for
  write_recording(99);
  EXPECT_EQ(verify({path, {}, {}, {}, 100, {}}), 2);
  EXPECT_TRUE(
      err.starts_with("ortime: run 1: payload_bytes=2376 differs from the report: 2400\n"
                      "ortime: run 1: decoded_tags=297 differs from the report: 300\n"
                      "ortime: run 1: ch0 count=99 differs from the report: 100\n"
                      "ortime: run 1: ch0 last_ps="))
      << err;
  EXPECT_NE(err.find("ch1 pass=false differs from the report: true\n"), std::string::npos);
  EXPECT_TRUE(err.ends_with(" --min-tags-per-channel, digits of --tolerance-ppm?\n"));
}

TEST_F(Verify, RefusesWhatCannotBeJudged) {
  const std::string text = scratch.file("text");
  write_file(text, "plain text");
  fs::rename(file, scratch.file("other"));
  const struct {
    inspection::VerifyOptions options;
    const char *message, *status;
  } cases[] = {
      {{text, 1, {}, {}, {}, {}}, "text: not an Orvo timing stream file", "[-4]"},
      {{file, {}, {}, {}, {}, {}}, "a.ortime: No such file or directory", "[-2]"},
      {{scratch.path(), {}, {}, {}, {}, {}}, "a.ortime nor a file of that name in ", "[-2]"},
  };
  for (const auto& c : cases) {
    const std::string error = error_of([&] { (void)inspection::verify(c.options); });
    EXPECT_NE(error.find(c.message), std::string::npos) << error;
    EXPECT_TRUE(error.ends_with(c.status)) << error;
  }
}

}  // namespace
}  // namespace orvo::tests
