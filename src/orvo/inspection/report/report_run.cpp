#include <fmt/format.h>

#include "orvo/inspection/report/charts.h"
#include "orvo/inspection/report/html_text.h"
#include "orvo/inspection/report/report_page.h"
#include "orvo/inspection/report/report_words.h"

namespace orvo::inspection {
namespace {

using verification::kChannels;
using verification::RunResult;

std::string facts(const RunResult& reported, const RunAnalysis& analysis) {
  std::string html = "<dl>\n";
  html += html_fact("Requested", fixed_text(reported.requested_hz, 3) + " Hz");
  html += html_fact("Generated",
                    fmt::format("{} Hz, divider {}", fixed_text(analysis.decoded.effective_hz, 6),
                                grouped(std::uint64_t{reported.divider})));
  if (analysis.decoded.expected_decoded_hz > 0) {
    html += html_fact(
        "Expected",
        fmt::format(
            "{} Hz, one event in {} ps", fixed_text(analysis.decoded.expected_decoded_hz, 6),
            fixed_text(analysis.scale.expected_ps > 0
                           ? analysis.scale.expected_ps
                           : timing::kPicosecondsPerSecond / analysis.decoded.expected_decoded_hz,
                       3)));
  }
  if (analysis.header) {
    const timing::StreamFileHeader& header = *analysis.header;
    html += html_fact("Recorded", html_escaped(header.created_utc));
    html += html_fact(
        "Stream", fmt::format("{}, {} bits, quantum {} ps, mode {}", name_of(header.stream_format),
                              header.delta_bits, header.quantum_ps, name_of(header.mode)));
  }
  html += html_fact("Stream file", html_escaped(reported.stream_file.string()));
  html += html_fact("Payload", grouped(reported.payload_bytes) + " bytes");
  return html + "</dl>\n";
}

std::string channel_words(const IntervalStatistics& s, const RunAnalysis& analysis) {
  const auto extreme = [&](const Extreme& e) {
    return fmt::format("{} ps (at {})", signed_text(e.deviation_ps, 1),
                       time_since_first(e.time_ps, analysis));
  };
  std::string words =
      fmt::format("{}; deviations from {} to {}", counted(s.intervals(), "interval"),
                  extreme(s.smallest()), extreme(s.largest()));
  if (analysis.scale.largest_plain_ps <= 1e18) {
    words += fmt::format("; {} longer than {} ps, which takes overflow records",
                         percent_text(s.with_overflow(), s.intervals()),
                         fixed_text(analysis.scale.largest_plain_ps, 0));
  }
  return words;
}

std::string channel_charts(const RunAnalysis& analysis, std::size_t channel) {
  const IntervalStatistics& statistics = analysis.channels[channel].statistics;
  if (statistics.intervals() == 0) {
    return fmt::format("<h3>Channel {}</h3>\n<p class=\"none\">No intervals: {} decoded.</p>\n",
                       channel, counted(analysis.decoded.channels[channel].count, "timestamp"));
  }
  return fmt::format(
      "<div class=\"channel\">\n<h3>Channel {}</h3>\n<p>{}.</p>\n"
      "<div class=\"pair\">\n<figure>\n{}</figure>\n<figure>\n{}</figure>\n</div>\n</div>\n",
      channel, channel_words(statistics, analysis), deviation_chart(analysis, channel),
      histogram_chart(analysis, channel));
}

std::string recording(const RunAnalysis& analysis) {
  if (!analysis.problem.empty()) {
    return "<p class=\"none\">No charts: " + html_escaped(analysis.problem) + ".</p>\n";
  }
  std::string html;
  if (analysis.decoded.decoded_tags != 0) {
    html += fmt::format("<p>The first timestamp, 0 s in the charts, is at {} ps.</p>\n",
                        grouped(analysis.first_ps));
  }
  for (std::size_t channel = 0; channel < kChannels; ++channel) {
    html += channel_charts(analysis, channel);
  }
  const std::vector<std::string> history = lock_history_of(analysis);
  if (!history.empty()) {
    html += "<div class=\"locks\">\n<h3>Lock history</h3>\n" + html_list(history) + "</div>\n";
  }
  return html;
}

}  // namespace

std::string run_section(std::size_t index, const RunDirectory& dir, const RunAnalysis& analysis,
                        bool folded) {
  const RunResult& reported = dir.runs[index];
  const char* const state = reported.pass ? "good" : "bad";
  return fmt::format(
      "<section class=\"run\" id=\"run-{0}\">\n<details{1}>\n<summary><h2>Run {0}: {2} <span "
      "class=\"{3}\">{4}</span></h2></summary>\n{5}{6}</details>\n</section>\n",
      index + 1, folded ? "" : " open", hz_text(reported.requested_hz), state,
      reported.pass ? "✓ PASS" : "✗ FAIL", facts(reported, analysis), recording(analysis));
}

}  // namespace orvo::inspection
