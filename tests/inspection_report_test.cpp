// The page about a run: `report`.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <vector>

#include "orvo/inspection/report/text.h"
#include "support/recordings.h"

namespace orvo::tests {
namespace {

constexpr unsigned kPeriods = 400;

/// What the pattern and its groups match, each time.
std::vector<std::vector<std::string>> matches_of(const std::string& text, const char* pattern) {
  const std::regex regex(pattern);
  std::vector<std::vector<std::string>> all;
  for (std::sregex_iterator it(text.begin(), text.end(), regex), end; it != end; ++it) {
    all.emplace_back(it->begin(), it->end());
  }
  return all;
}

std::string with_plain_spaces(const std::string& text) {
  return std::regex_replace(text, std::regex("\u00A0|\u202F"), " ");
}

/// The text of the page from `begin` to `end`, without tags and empty lines, with plain spaces.
std::string words_of(const std::string& page, const std::string& begin, const std::string& end) {
  const std::size_t from = page.find(begin);
  std::string text = page.substr(std::min(from, page.size()), page.find(end, from) - from);
  text = std::regex_replace(text, std::regex("<p class=\"verdict ([a-z]+)\">"), "$1: ");
  text = std::regex_replace(text, std::regex("<[^>]*>"), "");
  return with_plain_spaces(std::regex_replace(text, std::regex("\n+"), "\n"));
}

/// How the verdict looks, and all that is said before the results.
std::string findings_of(const std::string& page) {
  return words_of(page, "<p class=\"verdict ", "<dl>");
}

void expect_well_formed(const std::string& page) {
  std::vector<std::string> open;
  for (const auto& tag : matches_of(page, "<(/?)([a-z0-9]+)(?:\\s[^<>]*?)?(/?)>")) {
    if (tag[1] == "/") {
      ASSERT_FALSE(open.empty());
      ASSERT_EQ(open.back(), tag[2]) << tag[0];
      open.pop_back();
    } else if (tag[3].empty() && tag[2] != "meta" && tag[2] != "br") {
      open.push_back(tag[2]);
    }
  }
  EXPECT_TRUE(open.empty());
  EXPECT_FALSE(std::regex_search(page, std::regex("<script|https?:|\\{\\{|[^a-z](nan|inf)[^a-z]")));
}

class Report : public Ortime {
 protected:
  /// The page about the runs, whose captures took `periods` periods.
  std::string page(double periods = kPeriods, const std::string& options = "") {
    config.capture_s = periods * kPeriodPs / 1e12;
    save_report();
    return page_of_directory(options);
  }
  std::string page_of_directory(const std::string& options = "") {
    status = ortime("report . -o page.html --json page.json --chunk-bytes 4096 " + options);
    const std::string page = read_file("page.html");
    expect_well_formed(page);
    return page;
  }

  int status = -1;
};

TEST_F(Report, SaysWhatIsSo) {
  const char* const passed = R"(pass: PASS
The run passed. The largest rate error of a channel is 0.000000 ppm, tolerance 25 ppm: Run 1 at 31 kHz, channel 1.
)";
  const struct {
    const char* sim;
    unsigned periods;
    double capture_periods;
    const char* findings;
  } cases[] = {{"", 400, 400, passed},
               {"", 400, 133, passed},
               {"", 400, 2800, R"(doubt: PASS, but only 12.9 ms of 90.4 ms decoded
The run passed. The largest rate error of a channel is 0.000000 ppm, tolerance 25 ppm: Run 1 at 31 kHz, channel 1.
What the recordings show
Run 1 at 31 kHz: 12.91 ms of a capture of 90.38 ms decoded; the verdict knows nothing of the rest.
)"},
               {"lose=1:1@300,2:1@100,2:2@300", 400, 400, R"(fail: FAIL
The run failed:
Run 1 at 31 kHz, channel 1: 2 506.3 ppm slow, tolerance 25 ppm.
Run 1 at 31 kHz, channel 2: 7 518.8 ppm slow, tolerance 25 ppm.
What the recordings show
Run 1 at 31 kHz: channel 1 has 1 event missing in a gap ending at 9.716 ms; channel 2 has 3 events missing in 2 gaps, the longest ending at 9.748 ms.
)"},
               {"rate_error_ppm=2:40", 400, 400, R"(fail: FAIL
The run failed:
Run 1 at 31 kHz, channel 2: 40.0 ppm fast, tolerance 25 ppm.
)"},
               {"", 20, 20, R"(fail: FAIL
The run failed:
Run 1 at 31 kHz, channel 1: only 20 timestamps.
Run 1 at 31 kHz, channel 2: only 20 timestamps.
)"},
               {"silent=2", 800, 800, R"(fail: FAIL
The run failed:
Run 1 at 31 kHz: no timestamps decoded on any channel.
What the recordings show
Run 1 at 31 kHz: no place was found in the stream where its records could begin.
One silent channel is enough to hide all others: leave it out of channel_mask to see them.
)"},
               {"lose=0:28000@400,1:28000@400,2:28000@400,3:28000@400", 28402, 400, R"(fail: FAIL
The run failed:
Run 1 at 31 kHz, channel 1: 985 880.8 ppm slow, tolerance 25 ppm.
Run 1 at 31 kHz, channel 2: 985 880.8 ppm slow, tolerance 25 ppm.
What the recordings show
Run 1 at 31 kHz: 8 timestamps lie outside of what a capture of 12.91 ms can hold, decoded from damage.
)"}};
  config.channel_mask = 0b0110;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.findings);
    runs.clear();
    add_run(c.periods, c.sim);
    const std::string all = page(c.capture_periods);
    EXPECT_EQ(status, 0) << err;
    EXPECT_EQ(findings_of(all), c.findings);
    EXPECT_NE(has(all, "<figure>"), has(all, "No charts: no channel has two timestamps."));
  }
}

TEST_F(Report, LostLocksAreMarkedAndListed) {
  add_run(7'600, kLostLock);
  const std::string all = page(7'600);
  EXPECT_TRUE(has(findings_of(all),
                  ": the decoder lost its place 1 time; 26 bytes passed over in "
                  "search of it, 1 byte left over at the end.\n"));
  EXPECT_TRUE(has(all, "<title>lock lost, 115.7\u00A0ms<"));
  EXPECT_TRUE(has(all, "<title>lock taken again, 123.9\u00A0ms<"));
  EXPECT_EQ(words_of(all, "<figcaption>", "</figcaption>"), R"(
▼ lock lost
▲ lock taken again
○ farthest out, on a logarithmic scale
▮ dark: within a standard deviation of the mean
)");
  EXPECT_EQ(words_of(all, "<h3>Lock history", "</ul>"), R"(Lock history
Payload byte 2: locked bits=16 drop_bytes=2 bit_offset=2 raw_bytes=4094.
Payload byte 68 511, after the timestamp at 115.7 ms: drop sync channel mismatch ch=2 expected=0 record=1252 chunks_left=3.
Payload byte 68 535, after the timestamp at 115.7 ms: locked bits=16 drop_bytes=24 bit_offset=2 raw_bytes=5193.
)");
  EXPECT_EQ(ortime("verify . --chunk_bytes=4096"), 2);
  EXPECT_EQ(ortime("verify ."), 3);  // what follows a lost lock depends on the pieces that are read
  runs.clear();
  add_run(43'400, "lose=0:28000@7400,1:28000@7400,2:28000@7400,3:28000@7400;" + kLostLock);
  EXPECT_TRUE(has(page(7'400), "<p>1 of 1\u00A0lost lock not marked.</p>"));  // amid damage
}

TEST_F(Report, NumbersOfTheRecordings) {
  config.channel_mask = 0b1010;
  add_run(kPeriods, "lose=1:1@300");
  page();
  const auto document = nlohmann::json::parse(read_file("page.json"));
  EXPECT_EQ(document["headline"], "FAIL");
  EXPECT_EQ(document["runs"][0]["skew_reference"], 1);
  std::string numbers;
  for (const auto& channel : document["runs"][0]["channels"]) {
    EXPECT_NEAR(channel["deviation"]["mean_ps"], 0, 0.02);
    EXPECT_NEAR(channel["deviation"]["standard_deviation_ps"], 3.26, 0.01);  // of 8 ps ticks
    for (const char* const name : {"intervals", "with_overflow", "missing_events"}) {
      numbers += channel[name].dump() + ' ';
    }
    for (const char* const name : {"columns", "deviation_histogram"}) {
      int intervals = 0;
      for (const auto& row : channel[name]) intervals += row[1].get<int>();
      numbers += std::to_string(intervals) + ' ';
    }
    numbers += channel["deviation"]["count"].dump() + channel["skew_histogram"].dump() + '\n';
  }
  EXPECT_EQ(numbers,
            "399 399 0 399 399 399[[-256.0,210],[-248.0,189]]\n"
            "398 398 1 398 398 397[]\n"  // the gap is none of the deviations that are averaged
            "399 399 0 399 399 399[[184.0,357],[192.0,42]]\n"
            "399 399 0 399 399 399[[512.0,252],[520.0,147]]\n");
  const double gap_ps = document["runs"][0]["channels"][1]["deviation_histogram"].back()[0];
  EXPECT_NEAR(gap_ps / kPeriodPs, 1, 1.0 / 512);
}

TEST_F(Report, ChartsShowEarlierLeftAndLongerUp) {
  add_run(13, "lose=1:1@9");
  const std::string all = page(13);
  const std::string row = all.substr(all.find("Channel 1, "), 20'000);
  std::string drawn;
  for (const auto& line : matches_of(row.substr(0, row.find("aria-label")),
                                     ".* class=\"(most sparse|far|note|bar|channel)\".*\n")) {
    drawn += line[0];
  }
  // The lost event is late, at the top, with its name on the left of it; in the histogram larger
  // values are higher, and those of more intervals longer.
  EXPECT_EQ(with_plain_spaces(drawn),
            R"(<text class="channel" x="0%" y="15" dx="-64" text-anchor="start">channel 1</text>
<svg y="23" width="66%" height="72" viewBox="0 0 1000 72" preserveAspectRatio="none"><path class="most sparse" d="M84.42 49.5V49.5M165.6 49.5V49.5M249.6 49.5V49.5M333.5 49.5V49.5M417.4 32.0V32.0M501.3 49.5V49.5M582.5 49.5V49.5M666.5 49.5V49.5M834.3 4.4V4.4M915.5 49.5V49.5M999.4 49.5V49.5"/></svg>
<svg x="55%" y="27.364"><path class="far" d="M-4 0a4 4 0 1 0 8 0a4 4 0 1 0-8 0z"><title>+32.28 µs at 322.8 µs</title></path></svg>
<text class="note" x="55%" y="31.364" dx="-9" text-anchor="end">+32.28 µs at 322.8 µs</text>
<rect class="bar" x="69%" y="66.993" width="9.4705%" height="11"><title>−1.7 ps: 9 intervals</title></rect>
<rect class="bar" x="69%" y="49.538" width="2.7973%" height="11"><title>+6.3 ps: 1 interval</title></rect>
<rect class="bar" x="69%" y="21.864" width="2.7973%" height="11"><title>+32 276 478.3 ps: 1 interval</title></rect>
<text class="channel" x="86%" y="15" dx="0" text-anchor="start">+252 ps</text>
<rect class="bar" x="86%" y="72.045" width="8.2391%" height="11"><title>+248.0 ps: 6 events</title></rect>
<rect class="bar" x="86%" y="54.591" width="8.2391%" height="11"><title>+256.0 ps: 6 events</title></rect>
)");
  // The table's marks: channel 1 is slow, far beyond the left end of the tolerance.
  EXPECT_TRUE(has(all, "<td>1</td><td class=\"bad\">✗ FAIL</td>"));
  EXPECT_TRUE(has(all, "<svg x=\"0%\" y=\"8\"><path class=\"bad\" d=\"M9-5"));
  EXPECT_TRUE(has(words_of(all, "<tbody", "</tbody"), "12 of 13"));
  // Every class has its colours.
  const std::string style = all.substr(0, all.find("</style>"));
  for (const auto& m : matches_of(all, "<(?:path|line|rect|text) class=\"([a-z]+)")) {
    EXPECT_TRUE(has(style, '.' + m[1])) << m[1];
  }
}

TEST_F(Report, FoldsWhatPassed) {
  for (int i = 0; i < 14; ++i) add_run(kPeriods);
  add_run(kPeriods, "rate_error_ppm=2:-40");
  add_run(100);  // passes, but most is missing
  const std::string all = page();
  std::string open;
  for (const auto& m : matches_of(all, "<details( open)?>")) open += m[1].empty() ? '-' : 'O';
  EXPECT_EQ(open, "--------------OO");
  // Of many runs, one row for each that passed.
  EXPECT_EQ(matches_of(all, "<td class=\"(good|bad)\">").size(), 14U + 4U + 4U);
  EXPECT_TRUE(has(all, "<a href=\"#run-15\">Run 15 at 31\u00A0kHz</a>, channel 2"));
  EXPECT_TRUE(has(all, "id=\"run-16\""));
  // And wider columns, from the smallest to the largest deviation; of two of -1.7 ps and one of
  // +6.3 ps, dark up to a standard deviation above the mean.
  EXPECT_TRUE(has(all, "<path class=\"all\" d=\"M6.976 12.3V42.3M22.61 12.3V42.3M"));
  EXPECT_TRUE(has(all, "M17.4 42.3V42.3M22.61 18.2V42.3M"));
}

TEST_F(Report, KnownFactsAreSaidAndUnknownTextIsText) {
  config.packed_bits = 17;
  config.packed_quantum_ps = 16;
  header.device_product = "<b>\"O'Neill\" \xFF";
  add_run(kPeriods, "clock_ps=14315120000000");
  const std::string all = page(kPeriods, "--title=<script>bench&\"4\"</script>");
  for (const char* const wanted :
       {"<h1>&lt;script&gt;bench&amp;&quot;4&quot;&lt;/script&gt; <small>",
        "<title>PASS: &lt;script&gt;", "<dd>17 bits, quantum 16 ps</dd>", "<dd>±25 ppm</dd>",
        "<dd>&lt;b&gt;&quot;O&apos;Neill&quot; \uFFFD</dd>",
        "<title>clock returned to 0, 5.997\u00A0µs<"}) {
    EXPECT_TRUE(has(all, wanted)) << wanted;
  }
  EXPECT_TRUE(
      std::regex_search(all, std::regex("Made by ortime [0-9.]+ on 20[0-9-]+ [0-9:]+ UTC")));
}

TEST_F(Report, MissingAndForeignRecordings) {
  for (int i = 0; i < 3; ++i) add_run(kPeriods);
  std::filesystem::remove(recording(2));
  record(recording(3), kPeriods - 1);
  const std::string all = page();
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(has(err, "ortime: run 2: recording \"overflow_frequency_02.ortime\" is missing: "));
  const std::string findings = findings_of(all);
  EXPECT_TRUE(findings.starts_with("doubt: PASS, but the recordings say otherwise\n")) << findings;
  EXPECT_TRUE(has(findings, "Run 2 at 31 kHz: its recording is not shown: recording "));
  EXPECT_TRUE(has(findings,
                  "Run 3 at 31 kHz: the recording, which the charts show, does not decode to what "
                  "the report says: payload_bytes 7660 reported, 7641 now; "))
      << findings;
  EXPECT_EQ(matches_of(all, "class=\"advice\"").size(), 1U);
  EXPECT_EQ(matches_of(all, "<figure>").size(), 2U);
}

TEST_F(Report, WithoutAReportThereIsNoVerdict) {
  add_run(kPeriods);
  const std::string all = page_of_directory();
  EXPECT_EQ(status, 0) << err;
  EXPECT_TRUE(has(findings_of(all), "none: No verdict: the run did not end\n"));
  EXPECT_TRUE(has(all, "divider 1\u202F000, as the intervals suggest"));
  EXPECT_EQ(matches_of(all, "<figure>").size(), 1U);
  EXPECT_FALSE(std::regex_search(words_of(all, "<body>", "</body>"), std::regex("✓|✗|PASS|FAIL")));
}

TEST_F(Report, IsWholeOrAbsentAndNeverReplacesWhatItIsMadeFrom) {
  add_run(kPeriods);
  save_report();
  EXPECT_EQ(ortime("report . -o page.html --json missing/page.json"), 1);
  EXPECT_FALSE(std::filesystem::exists("page.html"));
  EXPECT_FALSE(std::filesystem::exists("page.html.part"));
  for (const char* const input :
       {"-o overflow_frequency_01.ortime", "--json overflow_frequency.json"}) {
    EXPECT_EQ(ortime("report . " + std::string(input)), 1);
    EXPECT_TRUE(has(err, "is an input file")) << err;
  }
  EXPECT_EQ(ortime("verify ."), 0) << err;  // they are as they were
}

TEST(Texts, Numbers) {
  using namespace inspection;
  EXPECT_EQ(grouped(std::int64_t{-1'234'567}), "−1\u202F234\u202F567");
  EXPECT_EQ(signed_text(-0.0000001, 6), "0.000000");
  EXPECT_EQ(signed_text(12.25, 1), "+12.2");
  EXPECT_EQ(fixed_text(std::nan(""), 2), "–");
  EXPECT_EQ(signed_time_text(10'006'015), "+10.01\u00A0µs");
  EXPECT_EQ(time_text(999'960), "1\u00A0µs");
}

}  // namespace
}  // namespace orvo::tests
