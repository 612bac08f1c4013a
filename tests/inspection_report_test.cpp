// The page about a run: `report`.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "orvo/inspection/commands.h"
#include "orvo/verification/reports.h"
#include "support/error_of.h"
#include "support/recordings.h"
#include "support/scratch.h"

namespace orvo::tests {
namespace {

namespace fs = std::filesystem;
using verification::RunResult;

constexpr unsigned kEvents = 400;

class Report : public testing::Test {
 protected:
  /// Adds a run to the directory, recorded as `write` says and judged as it was.
  RunResult& add_run(const std::function<void(PackedWriter&)>& write, double tolerance_ppm = 25) {
    PackedWriter writer;
    writer.header.device_product = "<b>\"O'Neill\" \xFF";
    write(writer);
    const std::string file =
        scratch.file("overflow_frequency_0" + std::to_string(runs.size() + 1) + ".ortime");
    writer.save(file);
    config.tolerance_ppm = tolerance_ppm;
    verification::EvaluationSettings settings;
    settings.tolerance_ppm = tolerance_ppm;
    RunResult run = judge(verification::read_tag_statistics(file, 1 << 20),
                          verification::derive_rates(PackedWriter::kDivider, settings), settings);
    run.requested_hz = 31'000;
    run.stream_file = file;
    run.payload_bytes = payload_of(file).size();
    return runs.emplace_back(run);
  }
  RunResult& add_clean_run() {
    return add_run([](PackedWriter& writer) { writer.events(kEvents); });
  }

  /// The page about the runs, whose captures took `events` periods; "" without a report of theirs.
  std::string page(double events = kEvents, const std::string& title = "") {
    if (events > 0) {
      config.capture_s = events * PackedWriter::kPeriodPs / 1e12;
      const bool pass = std::all_of(runs.begin(), runs.end(), [](auto& run) { return run.pass; });
      verification::write_json_report(json, config, runs, pass);
    }
    testing::internal::CaptureStderr();
    status = inspection::run(inspection::ReportOptions{scratch.path(), html, data, title});
    errors = testing::internal::GetCapturedStderr();
    return read_file(html);
  }

  ScratchDirectory scratch;
  const std::string json = scratch.file("overflow_frequency.json");
  const std::string html = scratch.file("page.html");
  const std::string data = scratch.file("page.json");
  verification::Config config;
  std::vector<RunResult> runs;
  int status = -1;
  std::string errors;
};

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

/// What the pattern and its groups match, each time.
std::vector<std::vector<std::string>> matches_of(const std::string& text, const char* pattern) {
  const std::regex regex(pattern);
  std::vector<std::vector<std::string>> all;
  for (std::sregex_iterator it(text.begin(), text.end(), regex), end; it != end; ++it) {
    all.emplace_back(it->begin(), it->end());
  }
  return all;
}

/// Text between the tags of the page, with plain spaces.
std::string words_of(const std::string& page) {
  const std::string body = page.substr(page.find("<body>"));
  return std::regex_replace(std::regex_replace(body, std::regex("<[^>]*>"), ""),
                            std::regex("\u00A0|\u202F"), " ");
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
  EXPECT_FALSE(has(page, "{{"));
  EXPECT_FALSE(std::regex_search(page, std::regex("<script|https?:|[^a-z](nan|inf)[^a-z]")));
}

TEST_F(Report, SaysWhatIsSo) {
  struct Case {
    const char* name;
    std::function<void(PackedWriter&)> write;
    double capture_events;
    const char* look;
    std::vector<std::string> said;
    std::vector<std::string> unsaid;
  };
  const auto clean = [](PackedWriter& writer) { writer.events(kEvents); };
  const std::vector<Case> cases = {
      {"clean",
       clean,
       kEvents,
       "pass",
       {">PASS<", "<title>PASS: ", "The run passed."},
       {"What the recordings show", "class=\"advice\""}},
      {"incomplete",
       clean,
       7 * kEvents,
       "doubt",
       {">PASS, but only 12.9 ms of 90.4 ms decoded<", "<title>PASS, but only 12.9 ms of 90.4 ms",
        ": 12.91 ms of a capture of 90.38 ms decoded; the verdict knows nothing of the rest."},
       {}},
      {"a lost event",
       [](PackedWriter& writer) {
         writer.events(200);
         writer.events(1, 1);
         writer.events(199);
       },
       kEvents,
       "fail",
       {">FAIL<", "The run failed:", ", channel 1: 2 506.3 ppm slow, tolerance 25 ppm.",
        ": channel 1 has 1 event missing in a gap ending at 6.488 ms."},
       {"goes back", "lost its place", "Lock history"}},
      {"slow",
       [](PackedWriter& writer) { writer.events(kEvents, 4, 40); },
       kEvents,
       "fail",
       {", channel 2: 40.0 ppm slow, tolerance 25 ppm."},
       {", channel 1:", "What the recordings show"}},
      {"few",
       [](PackedWriter& writer) { writer.events(20); },
       20,
       "fail",
       {", channel 3: only 20 timestamps."},
       {"ppm slow"}},
      {"silent",
       [](PackedWriter& writer) {
         writer.events(kEvents, 2);
         for (int i = 0; i < 4'000; ++i) writer.put(0, 0, 1);
       },
       kEvents,
       "fail",
       {": no timestamps decoded on any channel.",
        ": no place was found in the stream where its records could begin.",
        "<p class=\"advice\">One silent channel", "No charts: no channel has two timestamps."},
       {"channel 0:", "<figure>"}},
      {"damage",
       [](PackedWriter& writer) {
         writer.events(kEvents);
         writer.jump(900'000'000'000);
         writer.events(2);
       },
       kEvents,
       "fail",
       {": 8 timestamps lie outside of what a capture of 12.91 ms can hold, decoded from damage."},
       {"missing in"}},
      {"a lock lost",  // after more than the search for it looks at
       [](PackedWriter& writer) {
         writer.events(3'600);
         writer.lose_lock();
         writer.events(100);
       },
       3'700,
       "pass",
       {": the decoder lost its place 1 time; ", "▼ lock lost",
        ", after the timestamp at 116.2 ms: drop sync channel mismatch ch=1 expected=0 record="},
       {"▲ lock taken again", "not marked", "◆"}},
      {"a lock lost among damage",
       [](PackedWriter& writer) {
         writer.events(3'600);
         writer.jump(900'000'000'000);
         writer.events(2);
         writer.lose_lock();
         writer.events(100);
       },
       3'600,
       "fail",
       {"1 of 1 lost lock not marked.", "decoded from damage."},
       {"▼ lock lost"}},
      {"no longer", clean, kEvents / 3.0, "pass", {">PASS<"}, {"timestamps span", "damage"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    runs.clear();
    add_run(c.write);
    const std::string whole = page(c.capture_events);
    const std::string text = std::regex_replace(whole, std::regex("\u00A0|\u202F"), " ");
    expect_well_formed(whole);
    EXPECT_EQ(status, inspection::kExitSuccess) << errors;
    EXPECT_TRUE(has(text, std::string("<p class=\"verdict ") + c.look + "\">"));
    for (const std::string& words : c.said) EXPECT_TRUE(has(text, words)) << words;
    for (const std::string& words : c.unsaid) EXPECT_FALSE(has(text, words)) << words;
  }
}

TEST_F(Report, NumbersOfTheRecordings) {
  add_run([](PackedWriter& writer) {
    writer.events(200);
    writer.events(1, 1);
    writer.events(200);
  });
  expect_well_formed(page());
  const auto document = nlohmann::json::parse(read_file(data));
  const nlohmann::json& run = document["runs"][0];
  EXPECT_EQ(document["headline"], "FAIL");
  EXPECT_EQ(run["locks_dropped"], 0);
  for (std::size_t c = 0; c < 4; ++c) {
    const nlohmann::json& channel = run["channels"][c];
    EXPECT_EQ(channel["count"], c == 1 ? 400 : 401);
    EXPECT_EQ(channel["missing_events"], c == 1 ? 1 : 0);
    std::uint64_t in_columns = 0;
    double last_ps = -1;
    for (const auto& column : channel["columns"]) {
      in_columns += column[1].get<std::uint64_t>();
      EXPECT_GT(column[0], last_ps);
      EXPECT_LE(column[2], column[4]);
      EXPECT_LE(column[4], column[3]);
      last_ps = column[0];
    }
    std::uint64_t in_histogram = 0;
    for (const auto& bin : channel["deviation_histogram"])
      in_histogram += bin[1].get<std::uint64_t>();
    EXPECT_EQ(in_columns, channel["intervals"]);
    EXPECT_EQ(in_histogram, channel["intervals"]);
    EXPECT_EQ(c == 0 ? 0.0 : channel["skew"]["median_ps"].get<double>(), PackedWriter::skew_ps(c));
  }
  const std::string words = words_of(read_file(html));
  EXPECT_TRUE(std::regex_search(words, std::regex("31 000\\.000\\s+0✓ pass")));
  EXPECT_TRUE(has(words, "400 of 400"));
}

TEST_F(Report, ChartsShowEarlierLeftAndLongerUp) {
  add_run([](PackedWriter& writer) {
    writer.events(300);
    writer.events(1, 1);
    writer.events(99);
  });
  const std::string all = page();
  const std::string row = all.substr(all.find("Channel 1, "), 20'000);
  const std::string chart = row.substr(0, row.find("aria-label"));

  // The lost event: three quarters of the time panel, at the top, with its name on the left of it.
  const auto far = matches_of(chart, "<svg x=\"([0-9.]+)%\" y=\"([0-9.]+)\"><path class=\"far\"");
  const auto zero = matches_of(chart, "class=\"zero\" x1=\"0%\" y1=\"([0-9.]+)\"");
  ASSERT_EQ(far.size(), 1U);
  ASSERT_EQ(zero.size(), 1U);
  const double far_x = std::stod(far[0][1]);
  EXPECT_NEAR(far_x, 66 * 0.755, 0.5);
  EXPECT_LT(std::stod(far[0][2]), std::stod(zero[0][1]) - 30);
  EXPECT_TRUE(std::regex_search(chart, std::regex("text-anchor=\"end\">\\+32.28..µs at 9.7")));
  // The column that reaches there is where it is marked, and the others stay near zero.
  const std::size_t columns = chart.find("class=\"most");
  double reaching = 0;
  double previous = -1;
  for (const auto& m : matches_of(chart.substr(columns, chart.find("/>", columns) - columns),
                                  "M([0-9.]+) ([0-9.]+)V")) {
    EXPECT_GE(std::stod(m[1]), previous);
    previous = std::stod(m[1]);
    if (std::stod(m[2]) < 20) reaching = previous;
  }
  EXPECT_NEAR(reaching / 1000 * 66, far_x, 0.3);
  EXPECT_GT(previous, 990);

  // Bars of larger values are higher, those of more intervals longer.
  std::vector<std::array<double, 4>> bars;  // value, count, y, width
  for (const auto& m :
       matches_of(chart,
                  "class=\"bar\" x=\"69%\" y=\"([0-9.]+)\" width=\"([0-9.]+)%\"[^>]*><title>"
                  "(\\+|−|)([0-9.]+) ps: ([0-9]+)")) {
    bars.push_back({std::stod(m[4]) * (m[3] == "−" ? -1 : 1), std::stod(m[5]), std::stod(m[1]),
                    std::stod(m[2])});
  }
  ASSERT_GE(bars.size(), 2U);
  for (std::size_t i = 1; i < bars.size(); ++i) {
    EXPECT_GT(bars[i][0], bars[i - 1][0]);
    EXPECT_LT(bars[i][2], bars[i - 1][2]);
    EXPECT_EQ(bars[i][1] > bars[i - 1][1], bars[i][3] > bars[i - 1][3]);
  }
  EXPECT_TRUE(std::regex_search(chart, std::regex("class=\"channel\" x=\"86%\"[^>]*>\\+248..ps<")));

  // The table's marks: channel 1 is slow, far beyond the left end of the tolerance.
  EXPECT_TRUE(std::regex_search(all, std::regex("<td>1</td><td class=\"bad\">✗ FAIL</td>")));
  EXPECT_TRUE(
      std::regex_search(all, std::regex("<svg x=\"0%\" y=\"8\"><path class=\"bad\" d=\"M9-5")));
  // Every class has its colours.
  const std::string style = all.substr(0, all.find("</style>"));
  std::set<std::string> classes;
  for (const auto& m : matches_of(all, "<(?:path|line|rect|text) class=\"([a-z ]+)\"")) {
    classes.insert(m[1].substr(0, m[1].find(' ')));
  }
  for (const std::string& name : classes) EXPECT_TRUE(has(style, '.' + name)) << name;
}

TEST_F(Report, FoldsWhatPassed) {
  for (int i = 0; i < 14; ++i) {
    add_clean_run();
  }
  add_run([](PackedWriter& writer) { writer.events(kEvents, 4, 40); });
  add_run([](PackedWriter& writer) { writer.events(100); });  // passes, but most is missing
  const std::string all = page();
  std::vector<bool> open;
  for (const auto& m : matches_of(all, "<details( open)?>")) {
    open.push_back(!m[1].empty());
  }
  ASSERT_EQ(open.size(), runs.size());
  for (std::size_t i = 0; i < open.size(); ++i) EXPECT_EQ(open[i], i >= 14) << i;
  // Of many runs, one row for each that passed.
  EXPECT_EQ(matches_of(all, "<td class=\"(good|bad)\">").size(), 14U + 4U + 4U);
  EXPECT_TRUE(has(all, "<a href=\"#run-15\">Run 15 at 31\u00A0kHz</a>, channel 2"));
  EXPECT_TRUE(has(all, "id=\"run-16\""));
}

TEST_F(Report, UnknownTextIsText) {
  add_clean_run();
  const std::string all = page(kEvents, "<script>bench 3 & \"4\"</script>");
  expect_well_formed(all);
  for (const char* const wanted :
       {"<h1>&lt;script&gt;bench 3 &amp; &quot;4&quot;&lt;/script&gt; <small>",
        "<title>PASS: &lt;script&gt;", "<dd>&lt;b&gt;&quot;O&apos;Neill&quot; \uFFFD</dd>"}) {
    EXPECT_TRUE(has(all, wanted)) << wanted;
  }
  EXPECT_TRUE(
      std::regex_search(all, std::regex("Made by ortime [0-9.]+ on 20[0-9-]+ [0-9:]+ UTC")));
}

TEST_F(Report, MissingAndForeignRecordings) {
  add_clean_run();
  add_clean_run();
  add_clean_run();
  fs::remove(runs[1].stream_file);
  PackedWriter other;
  other.events(kEvents - 1);
  other.save(runs[2].stream_file.string());
  const std::string all = page();
  expect_well_formed(all);
  EXPECT_EQ(status, inspection::kExitError);
  EXPECT_TRUE(has(errors, "run 2: ")) << errors;
  EXPECT_TRUE(has(all, "<p class=\"verdict doubt\">PASS, but the recordings say otherwise</p>"));
  EXPECT_TRUE(has(all, ">Run 2 at 31\u00A0kHz</a>: its recording is not shown: "));
  EXPECT_TRUE(has(all, "overflow_frequency_02.ortime"));
  EXPECT_TRUE(
      has(all, ">Run 3 at 31\u00A0kHz</a>: the recording, which the charts show, does not"));
  EXPECT_TRUE(has(all, "ch0 count 400 reported, 399 now"));
  EXPECT_EQ(matches_of(all, "class=\"advice\"").size(), 1U);
  EXPECT_EQ(matches_of(all, "<figure>").size(), 2U);
}

TEST_F(Report, WithoutAReportThereIsNoVerdict) {
  add_clean_run();
  const std::string all = page(0);
  expect_well_formed(all);
  EXPECT_EQ(status, inspection::kExitSuccess) << errors;
  EXPECT_TRUE(has(all, "<p class=\"verdict none\">No verdict: the run did not end</p>"));
  EXPECT_TRUE(has(all, "divider 1\u202F000, as the intervals suggest"));
  EXPECT_EQ(matches_of(all, "<figure>").size(), 1U);
  EXPECT_FALSE(std::regex_search(words_of(all), std::regex("✓|✗|PASS|FAIL")));
}

TEST_F(Report, NeverReplacesWhatItIsMadeFrom) {
  const std::string file = add_clean_run().stream_file.string();
  page();
  for (const std::string& output : {file, json}) {
    const std::string before = read_file(output);
    for (const bool as_page : {true, false}) {
      inspection::ReportOptions options;
      options.path = scratch.path();
      (as_page ? options.output : options.json) = output;
      EXPECT_TRUE(has(error_of([&] { (void)inspection::run(options); }), "is an input file"));
      EXPECT_EQ(read_file(output), before);
    }
  }
}

}  // namespace
}  // namespace orvo::tests
