// Recordings judged again: `verify`.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "support/recordings.h"

namespace orvo::tests {
namespace {

class Verify : public Ortime {
 protected:
  /// By the header channels 0 to 2 count; channel 2 is slow. The report judges all four.
  Verify() {
    header.channel_mask = 0b0111;
    add_run(100, kSlow);
    save_report();
  }
  static constexpr const char* kSlow = "rate_error_ppm=2:-100";
};

TEST_F(Verify, JudgesAStreamFile) {
  EXPECT_EQ(ortime("verify overflow_frequency_01.ortime --divider 01000 --channel_mask 0B11"), 0);
  EXPECT_EQ(out, R"(tolerance_ppm=25
min_tags_per_channel=64
channel_mask=0x03
run effective_hz=30978.261 expected_decoded_hz=30981.359 divider=1000 overflow_required=true payload_bytes=1449 decoded_tags=300 pass=true
  stream_file="overflow_frequency_01.ortime"
  ch0 count=100 first_ps=1000000000160 last_ps=1003195470056 measured_hz=30981.358993219 ppm_error=-0.000395 pass=true
  ch1 count=100 first_ps=1000000000416 last_ps=1003195470304 measured_hz=30981.359070782 ppm_error=0.002108 pass=true
  ch2 count=100 first_ps=1000000000600 last_ps=1003195790072 measured_hz=30978.260885891 ppm_error=-99.999473 pass=false judged=false
  ch3 count=0 first_ps=0 last_ps=0 measured_hz=0.000000000 ppm_error=0.000000 pass=false judged=false
pass=true
)");
  const struct {
    const char* options;
    int status;
    const char* said;
  } cases[] = {
      {"--divider 1000", 2, "channel_mask=0x07\n"},
      {"--divider 1000 --tolerance-ppm 101", 0, "tolerance_ppm=101\n"},
      {"--divider 1005 --tolerance-ppm inf", 0, "tolerance_ppm=inf\n"},
      {"--divider 1000 --channel-mask 3 --min-tags-per-channel 101", 2, "channel=101\n"},
      {"--divider 1000 --min-tags-per-channel 18446744073709551615", 2, "=18446744073709551615\n"},
      {"--divider 1001 --channel-mask 3", 2, " ppm_error=999.999604 pass=false\n"},
      {"--requested-hz 30970 --channel-mask 3", 0, "run requested_hz=30970.000 "},  // 1000.27 times
      {"--requested-hz 30960 --channel-mask 3", 2, " divider=1001 "},               // 1000.59 times
      {"--requested-hz 1e300", 2, " divider=1 "},
      {"--requested-hz 1e-300", 2, " divider=4294967295 "},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ortime("verify overflow_frequency_01.ortime " + std::string(c.options)), c.status);
    EXPECT_TRUE(has(out, c.said)) << c.options << '\n' << out;
    EXPECT_EQ(err, "");
  }
}

TEST_F(Verify, NoPassWhereRecordingsAndReportDisagree) {
  EXPECT_EQ(ortime("verify ."), 2);  // for channels 2 and 3
  EXPECT_EQ(err, "");
  EXPECT_TRUE(out.ends_with("\npass=false\n"));
  EXPECT_EQ(ortime("verify . --channel-mask 3"), 0);
  EXPECT_EQ(err, "");  // another judgement was asked for
  record(recording(1), 99, kSlow);
  for (const char* const mask : {"", " --channel-mask 3"}) {  // although all that counts has passed
    EXPECT_EQ(ortime("verify ." + std::string(mask)), 3);
    EXPECT_TRUE(
        err.starts_with("ortime: run 1: payload_bytes=1435 differs from the report: 1449\n"
                        "ortime: run 1: decoded_tags=297 differs from the report: 300\n"
                        "ortime: run 1: ch0 count=99 differs from the report: 100\n"))
        << err;
    EXPECT_TRUE(has(err, "\nortime: recordings and report disagree in 14 numbers: ")) << err;
    EXPECT_TRUE(out.ends_with("\npass=false disagreements=14\n")) << out;
  }
  record(recording(1), 100, kSlow);
  runs[0].channels[2].pass = runs[0].channels[3].pass = runs[0].pass = true;
  save_report();
  EXPECT_EQ(ortime("verify ."), 3);
  EXPECT_TRUE(
      err.starts_with("ortime: run 1: pass=false differs from the report: true\n"
                      "ortime: run 1: ch2 pass=false differs from the report: true\n"
                      "ortime: run 1: ch3 pass=false differs from the report: true\n"
                      "ortime: pass=false differs from the report: true\n"))
      << err;
}

TEST_F(Verify, JudgesWhatIsThereAndNamesWhatIsMissing) {
  runs = {runs[0], runs[0], runs[0]};
  runs[0].stream_file = "lost.ortime";
  runs[2].stream_file = "damaged.ortime";
  write_file("damaged.ortime", "plain text");
  save_report();
  EXPECT_EQ(ortime("verify . --channel-mask 3"), 1);
  EXPECT_TRUE(err.starts_with("ortime: run 1: recording \"lost.ortime\" is missing: ")) << err;
  EXPECT_TRUE(has(err, "\nortime: run 3: \"./damaged.ortime\": not an Orvo timing stream file"));
  EXPECT_TRUE(has(out, "\n  ch0 count=100 ")) << out;
  EXPECT_TRUE(out.ends_with("\npass=false unjudged=2\n")) << out;

  EXPECT_EQ(ortime("verify . --channel-mask 3 --json"), 1);
  auto document = nlohmann::ordered_json::parse(out);
  const auto judged = document["runs"];
  ASSERT_EQ(judged.size(), 3U);
  EXPECT_TRUE(judged[0].contains("error"));
  EXPECT_EQ(judged[1]["pass"], true);
  EXPECT_EQ(judged[1]["differences"].size(), 0U);
  EXPECT_EQ(judged[1]["channels"][2].dump(),
            R"({"channel":2,"judged":false,"count":100,"first_ps":1000000000600,)"
            R"("last_ps":1003195790072,"measured_hz":30978.260885891,"ppm_error":-99.999473,)"
            R"("pass":false})");
  document.erase("runs");
  EXPECT_EQ(document.dump(),
            R"({"tolerance_ppm":25.0,"min_tags_per_channel":64,"channel_mask":3,"unjudged":2,)"
            R"("disagreements":0,"pass":false})");
}

TEST_F(Verify, SaysWhatWasTakenForAnOddHeader) {
  const std::string whole = read_file(recording(1));
  const std::string json = whole.substr(12, whole.find("}}") + 2 - 12);
  const struct {
    std::string from, to, warning;
  } cases[] = {
      {json, "", "is empty; taken: channel_mask=15 delta_bits=16 "},
      {json, "[7]", "is no JSON object; taken: channel_mask=15 delta_bits=16 "},
      {"orvo_timing_raw_stream_capture", "other",
       "is that of another kind of file; read all the same"},
      {"\"schema_version\":1", "\"schema_version\":2",
       "has schema_version 2, not 1; read all the same"},
      {"\"channel_mask\"", "\"mask\"", "is incomplete; taken: channel_mask="},
  };
  for (const auto& [from, to, warning] : cases) {
    std::string changed = whole;
    changed.replace(changed.find(from), from.size(), to);
    const std::size_t bytes = json.size() - from.size() + to.size();
    changed[8] = static_cast<char>(bytes & 0xFF);
    changed[9] = static_cast<char>(bytes >> 8);
    write_file("odd", changed);
    const int status = ortime("verify odd --divider 1000 --tolerance-ppm 101");
    EXPECT_TRUE(err.starts_with("ortime: \"odd\": its header " + warning)) << err;
    EXPECT_EQ(status, out.ends_with("\npass=true\n") ? 0 : 2);
  }
}

TEST_F(Verify, RefusesWhatCannotBeJudged) {
  header.delta_bits = 99;
  timing::StreamFileWriter().open("undecodable", header);
  std::filesystem::remove("overflow_frequency.json");
  const struct {
    const char *words, *error;
  } cases[] = {
      {"missing --divider 1", "cannot open \"missing\": No such file or directory"},
      {"undecodable --divider 1", "records that cannot be decoded: packed_delta of 99 bits"},
      {".", "\".\" has no report, because an error ended the run: judge its recordings with"},
  };
  for (const auto& [words, error] : cases) {
    EXPECT_EQ(ortime("verify " + std::string(words)), 1);
    EXPECT_TRUE(has(err, error)) << err;
    EXPECT_EQ(out, "");
  }
}

}  // namespace
}  // namespace orvo::tests
