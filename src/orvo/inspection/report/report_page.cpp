#include "orvo/inspection/report/report_page.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "orvo/inspection/report/html_text.h"
#include "orvo/inspection/report/report_style.h"
#include "orvo/inspection/report/report_words.h"

namespace orvo::inspection {
namespace {

using verification::ChannelResult;
using verification::kChannels;
using verification::RunResult;

/// More sentences than this nobody reads; the table has it all.
constexpr std::size_t kMaxSentences = 24;

std::string sentences(std::vector<std::string> all) {
  if (const std::size_t count = all.size(); count > kMaxSentences) {
    all.resize(kMaxSentences);
    all.push_back(
        fmt::format("And {} more: see the table and the runs below.", count - kMaxSentences));
  }
  return html_list(all);
}

std::string pass_words(const RunDirectory& dir) {
  std::size_t run_index = 0;
  std::size_t channel_index = 0;
  double largest_ppm = -1;
  for (std::size_t i = 0; i < dir.runs.size(); ++i) {
    for (std::size_t c = 0; c < kChannels; ++c) {
      const double ppm = std::abs(dir.runs[i].channels[c].ppm_error);
      if (verification::channel_counts(dir.settings.channel_mask, c) && ppm > largest_ppm) {
        largest_ppm = ppm;
        run_index = i;
        channel_index = c;
      }
    }
  }
  return fmt::format(
      "<p>{} passed. The largest rate error of a channel is {} ppm, tolerance {:g} ppm: "
      "{}, channel {}.</p>\n",
      dir.runs.size() == 1 ? "The run" : "All " + counted(dir.runs.size(), "run"),
      fixed_text(largest_ppm, 6), dir.settings.tolerance_ppm,
      name_of_run(run_index, dir.runs[run_index]), channel_index);
}

std::string verdict(const RunDirectory& dir, const PageFindings& findings) {
  const auto failed = std::count_if(dir.runs.begin(), dir.runs.end(),
                                    [](const RunResult& run) { return !run.pass; });
  std::string html = fmt::format("<p class=\"verdict {}\">{}</p>\n", dir.pass ? "pass" : "fail",
                                 dir.pass ? "✓ PASS" : "✗ FAIL");
  if (findings.failures.empty()) {
    html += dir.pass ? pass_words(dir) : "<p>The report says so of the whole.</p>\n";
  } else {
    html += dir.runs.size() == 1
                ? "<p>The run failed:</p>\n"
                : fmt::format("<p>{} of {} runs failed:</p>\n", failed, dir.runs.size());
    html += sentences(findings.failures);
  }
  if (!findings.observations.empty()) {
    html += "<h2>What the recordings show</h2>\n" + sentences(findings.observations);
  }
  return html;
}

std::string device_words(const timing::StreamFileHeader& header) {
  std::vector<std::string> words;
  for (const auto& [name, value] :
       {std::pair("", &header.device_product), std::pair("serial ", &header.device_serial),
        std::pair("port ", &header.device_port)}) {
    if (!value->empty()) {
      words.push_back(name + html_escaped(*value));
    }
  }
  return words.empty() ? "not named in the recordings" : fmt::format("{}", fmt::join(words, ", "));
}

std::string channels_of(std::uint8_t mask) {
  std::vector<std::size_t> channels;
  for (std::size_t c = 0; c < kChannels; ++c) {
    if (verification::channel_counts(mask, c)) {
      channels.push_back(c);
    }
  }
  return channels.empty() ? "none" : fmt::format("{}", fmt::join(channels, ", "));
}

std::string settings(const RunDirectory& dir, const PageFindings& findings) {
  std::string html = "<dl>\n";
  if (findings.header) {
    html += html_fact("Instrument", device_words(*findings.header));
    html += html_fact("Recorded", html_escaped(findings.header->created_utc));
    if (!findings.header->application.empty()) {
      html += html_fact("By", html_escaped(findings.header->application));
    }
  } else {
    html += html_fact("Instrument", "unknown: no recording could be read");
  }
  const verification::EvaluationSettings& s = dir.settings;
  html += html_fact("Capture", fmt::format("{:g} s a run", dir.capture_s));
  html += html_fact("Tolerance", fmt::format("±{:g} ppm", s.tolerance_ppm));
  html += html_fact("Channels judged", channels_of(s.channel_mask));
  html += html_fact("Packed delta",
                    fmt::format("{} bits, quantum {} ps", s.packed_bits, s.packed_quantum_ps));
  html += html_fact("Run directory", html_escaped(dir.path.string()));
  return html + "</dl>\n";
}

/// Over all rows of a run; nothing but in its first.
std::string run_cell(std::size_t number, const std::string& content) {
  return number != 0 ? std::string()
                     : fmt::format("<td rowspan=\"{}\">{}</td>", kChannels, content);
}

std::string table_row(const RunDirectory& dir, std::size_t index, std::size_t number) {
  const RunResult& run = dir.runs[index];
  const ChannelResult& channel = run.channels[number];
  const bool measured = channel.measured_hz > 0;
  const bool judged = verification::channel_counts(dir.settings.channel_mask, number);
  const bool timed = channel.count >= 2;
  return fmt::format("<tr{}>", number == 0 ? " class=\"first\"" : "") +
         run_cell(number, fmt::format("<a href=\"#run-{0}\">{0}</a>", index + 1)) +
         run_cell(number, fixed_text(run.requested_hz, 3)) +
         fmt::format("<td>{}</td><td class=\"{}\">{}</td><td>{}</td><td>{}</td><td>{}</td>", number,
                     !judged        ? "unjudged"
                     : channel.pass ? "good"
                                    : "bad",
                     !judged        ? "not judged"
                     : channel.pass ? "✓ pass"
                                    : "✗ FAIL",
                     measured ? signed_text(channel.ppm_error, 6) : "–", grouped(channel.count),
                     measured ? fixed_text(channel.measured_hz, 6) : "–") +
         run_cell(number, fixed_text(run.expected_decoded_hz, 3)) +
         fmt::format("<td>{}</td><td>{}</td>", timed ? grouped(channel.first_ps) : "–",
                     timed ? grouped(channel.last_ps) : "–") +
         run_cell(number, run.overflow_required ? "yes" : "no") + "</tr>\n";
}

std::string table_head() {
  std::string html = "<thead><tr>";
  for (const char* const column :
       {"Run", "Requested<br>(Hz)", "Channel", "Verdict", "Error<br>(ppm)", "Timestamps",
        "Measured<br>(Hz)", "Expected<br>(Hz)", "First (ps)", "Last (ps)", "Overflow<br>records"}) {
    html += fmt::format("<th scope=\"col\">{}</th>", column);
  }
  return html + "</tr></thead>\n";
}

}  // namespace

std::string page_begin(const RunDirectory& dir, const PageFindings& findings) {
  const std::string title =
      fmt::format("{}: overflow frequency verification {}", dir.pass ? "PASS" : "FAIL",
                  html_escaped(dir.path.filename().string()));
  return fmt::format(
             "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
             "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
             "<meta name=\"color-scheme\" content=\"light dark\">\n<title>{}</title>\n"
             "<style>\n{}</style>\n</head>\n<body>\n<main>\n<header>\n"
             "<h1>Overflow frequency verification</h1>\n",
             title, kReportStyle) +
         verdict(dir, findings) + settings(dir, findings) + "</header>\n";
}

std::string results_table(const RunDirectory& dir) {
  std::string html = "<section>\n<h2>Results</h2>\n<div class=\"wide\">\n<table>\n" + table_head();
  for (std::size_t i = 0; i < dir.runs.size(); ++i) {
    html += "<tbody>\n";
    for (std::size_t channel = 0; channel < kChannels; ++channel) {
      html += table_row(dir, i, channel);
    }
    html += "</tbody>\n";
  }
  return html +
         "</table>\n</div>\n<p class=\"hint\">Expected: the rate that the calibration source "
         "generates, as the instrument's own clock shows it. Overflow records: needed where one "
         "record cannot carry the expected interval.</p>\n</section>\n";
}

std::string chart_legend() {
  return "<section>\n<h2>Intervals</h2>\n"
         "<p>For each run and channel: how far each interval between two timestamps is from the "
         "expected one. Every column of a chart goes from its smallest to its largest deviation, "
         "so that a single one among millions is seen. The scale is linear around 0; beyond the "
         "shaded border it is logarithmic. The strip below is the share of intervals so long that "
         "they take overflow records: all of them where it is full.</p>\n"
         "<p class=\"legend\"><span class=\"lost\">▼ lock lost</span> <span class=\"taken\">▲ lock "
         "taken again</span> <span class=\"wrapped\">◆ clock returned to 0</span> <span "
         "class=\"far\">○ largest and smallest, where far out</span></p>\n</section>\n";
}

std::string page_end() {
  return "<footer>Made by ortime from the report and the recordings of the run. The verdict is "
         "the report's. This page loads nothing and runs no script.</footer>\n</main>\n</body>\n"
         "</html>\n";
}

}  // namespace orvo::inspection
