// The page about a run directory: `report`.
#include <gtest/gtest.h>

#include <cmath>
#include <regex>
#include <string>
#include <vector>

#include "orvo/inspection/report/report.h"
#include "orvo/timing/stream_files.h"
#include "orvo/verification/evaluation.h"
#include "orvo/verification/reports.h"
#include "support/decoding.h"
#include "support/error_of.h"
#include "support/scratch.h"

namespace orvo::tests {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kDivider = 1'000;
constexpr double kPeriodPs = 1e12 / (verification::kCalibrationBaseHz / kDivider / 0.9999);

class Report : public testing::Test {
 protected:
  /// Four channels at 31 kHz in two runs; those of channel 2 are 100 ppm late. The second run's
  /// recording is missing.
  Report() {
    Bytes payload;
    for (unsigned i = 0; i < 400; ++i) {
      const unsigned event = i / 4;
      const double time_ps = event * kPeriodPs * (i % 4 == 2 ? 1.0001 : 1);
      put_big_endian(payload, std::uint64_t{i % 4} << 61 | std::uint64_t(std::llround(time_ps)), 8);
    }
    timing::StreamFileHeader header;
    header.stream_format = timing::Format::raw64;
    header.device_product = "<script>\"O'Neill\" \xFF";
    timing::StreamFileWriter writer;
    writer.open(file, header);
    writer.write(payload.data(), payload.size());
    writer.close();
    verification::RunResult run = judge(verification::read_tag_statistics(file, 1 << 20),
                                        verification::derive_rates(kDivider, {}), {});
    run.requested_hz = 31'000;
    run.stream_file = file;
    verification::RunResult gone = run;
    gone.stream_file = scratch.file("gone.ortime");
    verification::write_json_report(json, {}, {run, gone}, false);
  }

  ScratchDirectory scratch;
  const std::string file = scratch.file("overflow_frequency_01.ortime");
  const std::string json = scratch.file("overflow_frequency.json");
  const std::string page = scratch.file("page.html");
};

TEST_F(Report, IsOneWellFormedPageThatTellsWhatFailed) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(inspection::report({scratch.path(), page}), 0);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("gone.ortime"), std::string::npos);
  const std::string html = read_file(page);
  for (const char* const wanted :
       {"✗ FAIL</p>", "2 of 2 runs failed", "channel 2: 100.0 ppm slow, tolerance 25 ppm",
        "&lt;script&gt;&quot;O&#39;Neill&quot; \\xff", "No charts: "}) {
    EXPECT_NE(html.find(wanted), std::string::npos) << wanted;
  }
  EXPECT_FALSE(std::regex_search(html, std::regex("<script|https?:|[^a-z](nan|inf)[^a-z]")));
  std::vector<std::string> open;
  const std::regex tag("<(/?)([a-z0-9]+)(?:\\s[^<>]*?)?(/?)>");
  for (std::sregex_iterator it(html.begin(), html.end(), tag), end; it != end; ++it) {
    if (it->str(1) == "/") {
      ASSERT_FALSE(open.empty());
      EXPECT_EQ(open.back(), it->str(2));
      open.pop_back();
    } else if (it->str(3).empty() && it->str(2) != "meta" && it->str(2) != "br") {
      open.push_back(it->str(2));
    }
  }
  EXPECT_TRUE(open.empty());
}

TEST_F(Report, SaysWhenTheRecordingHasChanged) {
  fs::resize_file(file, fs::file_size(file) - 32);
  testing::internal::CaptureStderr();
  EXPECT_EQ(inspection::report({scratch.path(), page}), 0);
  testing::internal::GetCapturedStderr();
  EXPECT_NE(read_file(page).find("channel 0: 100 ("), std::string::npos);
  EXPECT_NE(read_file(page).find("reported, 99 ("), std::string::npos);
}

TEST_F(Report, NeverReplacesWhatItIsMadeFrom) {
  fs::create_symlink(file, page);
  for (const std::string& output : {file, json, page}) {
    const std::string before = read_file(output);
    EXPECT_EQ(error_of([&] {
                (void)inspection::report({scratch.path(), output});
              }),
              '"' + output + "\" is an input file: name another one for the output [-1]");
    EXPECT_EQ(read_file(output), before);
  }
}

}  // namespace
}  // namespace orvo::tests
