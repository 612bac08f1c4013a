#include "orvo/inspection/report/page.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <kainjow/mustache.hpp>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "orvo/inspection/report/figure.h"
#include "orvo/inspection/report/text.h"
#include "report_html.h"

namespace orvo::inspection {
namespace {

namespace mustache = kainjow::mustache;
using Json = nlohmann::json;
using verification::ChannelResult;
using verification::kChannels;
using verification::RunResult;

/// More sentences than this nobody reads; the table and the runs have it all.
constexpr std::size_t kMaxSentences = 24;
constexpr const char* kDash = "–";

/// What is no UTF-8 becomes U+FFFD.
std::string escaped(const std::string& text) {
  const std::string valid = Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
  return mustache::html_escape(Json::parse(valid).get<std::string>());
}

/// For the template, where an empty text hides a section.
mustache::data template_data(const Json& value) {
  if (value.is_object()) {
    mustache::data object;
    for (const auto& [name, member] : value.items()) {
      object.set(name, template_data(member));
    }
    return object;
  }
  if (value.is_array()) {
    mustache::data list(mustache::data::type::list);
    for (const Json& element : value) {
      list.push_back(template_data(element));
    }
    return list;
  }
  if (value.is_number()) {
    return value.dump();
  }
  const auto* const text = value.get_ptr<const Json::string_t*>();
  return text != nullptr && !text->empty() ? mustache::data(*text) : mustache::data(value == true);
}

/// The half sentences of all runs, as far as anybody reads them; nothing where there are none.
Json sentences_of(const std::vector<RunFindings>& runs,
                  std::vector<std::string> RunFindings::*half_sentences) {
  Json all;
  std::size_t left_out = 0;
  for (std::size_t i = 0; i < runs.size(); ++i) {
    for (const std::string& words : runs[i].*half_sentences) {
      if (all.size() == kMaxSentences) {
        ++left_out;
      } else {
        all.push_back({{"number", i + 1}, {"run", name_of_run(i, runs[i])}, {"words", words}});
      }
    }
  }
  return all.empty() ? Json()
                     : Json{{"sentences", std::move(all)},
                            {"left_out", left_out == 0 ? Json() : Json(left_out)}};
}

/// What is known of the whole.
Json facts_of(const RunDirectory& dir, const std::vector<RunFindings>& runs) {
  Json facts = {{"run_directory", dir.path.string()}};
  const auto recorded = std::find_if(
      runs.begin(), runs.end(), [](const RunFindings& run) { return run.recording.has_value(); });
  if (recorded != runs.end()) {
    const timing::StreamFileHeader& header = recorded->recording->header;
    facts.update({{"instrument", header.device_product},
                  {"serial", header.device_serial},
                  {"port", header.device_port},
                  {"recorded", header.created_utc},
                  {"application", header.application}});
  }
  if (dir.ended()) {
    const verification::EvaluationSettings& s = dir.settings;
    std::string channels;
    for (std::size_t c = 0; c < kChannels; ++c) {
      channels += verification::channel_counts(s.channel_mask, c) ? fmt::format(" {}", c) : "";
    }
    facts["settings"] = {{"capture", fmt::format("{:g} s", dir.capture_s)},
                         {"tolerance", fmt::format("±{:g} ppm", s.tolerance_ppm)},
                         {"needed", grouped(s.min_tags_per_channel)},
                         {"channels", channels},
                         {"bits", s.packed_bits},
                         {"quantum", s.packed_quantum_ps}};
  }
  return facts;
}

struct State {
  const char* name;  // its class: good, bad or unjudged
  const char* words;
};

State state_of(const RunDirectory& dir, const RunResult& run, std::size_t channel) {
  if (!dir.ended()) {
    return {"unjudged", kDash};
  }
  if (!verification::channel_counts(dir.settings.channel_mask, channel)) {
    return {"unjudged", "not judged"};
  }
  return run.channels[channel].pass ? State{"good", "✓ pass"} : State{"bad", "✗ FAIL"};
}

Json row_of(const RunDirectory& dir, const RunFindings& run, std::size_t number,
            const std::vector<RateMark>& marks) {
  const ChannelResult& channel = run.shown.channels[number];
  const auto [state, verdict] = state_of(dir, run.shown, number);
  const bool measured = channel.measured_hz > 0;
  const bool timed = channel.count >= 2;
  const int decimals = std::abs(channel.ppm_error) < 1000 ? 6 : 1;
  return {{"channel", number},
          {"state", state},
          {"verdict", verdict},
          {"error", measured ? signed_text(channel.ppm_error, decimals) : kDash},
          {"rates", draw_rate_errors(marks, dir.settings.tolerance_ppm)},
          {"count", grouped(channel.count)},
          {"of", run.expected_events > 0 ? "of " + fixed_text(run.expected_events, 0) : ""},
          {"measured", measured ? fixed_text(channel.measured_hz, 6) : kDash},
          {"first_ps", timed ? grouped(channel.first_ps) : kDash},
          {"last_ps", timed ? grouped(channel.last_ps) : kDash}};
}

/// A row a channel; of many runs, those that passed have their worst channel's alone.
Json rows_of(const RunDirectory& dir, const RunFindings& run) {
  const bool condensed = dir.runs.size() > kManyRuns && run.passed_whole;
  const auto& channels = run.shown.channels;
  const auto* const worst = std::max_element(channels.begin(), channels.end(),
                                             [](const ChannelResult& a, const ChannelResult& b) {
                                               return std::abs(a.ppm_error) < std::abs(b.ppm_error);
                                             });
  std::array<std::vector<RateMark>, kChannels> marks;  // of each row
  for (std::size_t c = 0; c < kChannels; ++c) {
    if (channels[c].measured_hz > 0) {
      const auto row = condensed ? static_cast<std::size_t>(worst - channels.begin()) : c;
      marks[row].push_back({channels[c].ppm_error, state_of(dir, run.shown, c).name});
    }
  }
  Json rows = Json::array();
  for (std::size_t c = 0; c < kChannels; ++c) {
    if (!condensed || worst == &channels[c]) {
      rows.push_back(row_of(dir, run, c, marks[c]));
    }
  }
  rows.front()["first"] = true;
  return rows;
}

Json run_facts_of(const RunDirectory& dir, const RunFindings& run) {
  const RunResult& shown = run.shown;
  Json facts = {{"requested", dir.ended() ? fixed_text(shown.requested_hz, 3) : kDash},
                {"expected", fixed_text(shown.expected_decoded_hz, 3)},
                {"payload", grouped(shown.payload_bytes)},
                {"stream_file", shown.stream_file.string()}};
  if (shown.divider != 0) {
    facts["source"] = {
        {"generated", fixed_text(shown.effective_hz, 6)},
        {"divider", grouped(std::uint64_t{shown.divider})},
        {"guessed", !dir.ended()},
        {"decoded", fixed_text(shown.expected_decoded_hz, 6)},
        {"period", fixed_text(timing::kPicosecondsPerSecond / shown.expected_decoded_hz, 3)}};
  }
  if (run.recording) {
    const timing::StreamFileHeader& header = run.recording->header;
    facts["stream"] = {
        {"format", name_of(header.stream_format)},
        {"mode", name_of(header.mode)},
        {"bits", header.delta_bits},
        {"quantum", header.quantum_ps},
        {"recorded", header.created_utc},
        {"begin", run.recording->has_intervals() ? grouped(run.recording->first_ps) : ""}};
  }
  return facts;
}

std::string or_dash(bool known, const std::string& text) { return known ? text : kDash; }

/// Of a channel's intervals, and of its skew.
Json numbers_of(const Recording& recording, std::size_t number) {
  const ChannelRecording& channel = recording.channels[number];
  const IntervalSummary& s = channel.intervals;
  const auto [spread, skew] = std::pair(channel.spread, channel.skew);
  const bool any = s.intervals != 0;
  return {{"channel", number},
          {"intervals", grouped(s.intervals)},
          {"mean", or_dash(spread.count != 0, signed_text(spread.mean_ps, 4))},
          {"deviation", or_dash(spread.count != 0, fixed_text(spread.deviation_ps, 3))},
          {"smallest", or_dash(any, signed_text(channel.smallest_ps(), 1))},
          {"largest", or_dash(any, signed_text(channel.largest_ps(), 1))},
          {"missing", grouped(s.missing_events)},
          {"overflow", any && s.with_overflow == s.intervals ? "all" : grouped(s.with_overflow)},
          {"skew", recording.reference == number
                       ? "reference"
                       : or_dash(skew.count != 0, signed_text(skew.median_ps, 1))},
          {"skew_deviation", or_dash(skew.count != 0, fixed_text(skew.deviation_ps, 3))}};
}

Json figure_of(const Recording& recording) {
  const Figure figure = draw_figure(recording);
  Json json = {{"marks_left_out", figure.left_out},
               {"parts", figure.parts},
               {"reference", recording.reference ? Json(*recording.reference) : Json()}};
  for (const std::string& kind : figure.kinds) {
    json[kind] = true;
  }
  for (std::size_t c = 0; c < kChannels; ++c) {
    if (recording.shows(c)) {
      json["channels"].push_back(numbers_of(recording, c));
    }
  }
  return json;
}

/// What is seen of a run that is folded.
std::string digest_of(const RunFindings& run) {
  std::uint64_t tags = 0;
  double spread_ps = 0;
  double skew_ps = 0;
  for (std::size_t c = 0; c < kChannels; ++c) {
    tags += run.shown.channels[c].count;
    if (run.recording) {
      const ChannelRecording& channel = run.recording->channels[c];
      spread_ps = std::max(spread_ps, channel.spread.deviation_ps);
      skew_ps = std::max(skew_ps, std::abs(channel.skew.median_ps));
    }
  }
  return counted(tags, "timestamp") +
         (spread_ps > 0 ? ", standard deviation up to " + time_text(spread_ps, 3) : "") +
         (skew_ps > 0 ? ", skew up to " + time_text(skew_ps, 3) : "");
}

Json run_of(const RunDirectory& dir, const RunFindings& run, std::size_t index) {
  const auto& recording = run.recording;
  const bool drawn = recording && recording->has_intervals();
  Json entry = run_facts_of(dir, run);
  entry.update({{"number", index + 1},
                {"name", name_of_run(index, run)},
                {"rows", rows_of(dir, run)},
                {"open", !run.passed_whole},
                {"digest", digest_of(run)}});
  if (dir.ended()) {
    entry["state"] = run.shown.pass ? "good" : "bad";
    entry["verdict"] = !run.shown.pass  ? "✗ FAIL"
                       : run.incomplete ? "✓ PASS, incomplete"
                                        : "✓ PASS";
  }
  if (drawn) {
    entry["figure"] = figure_of(*recording);
  } else {
    entry["problem"] = recording ? "no channel has two timestamps" : run.problem;
  }
  if (recording && recording->locks.entries().size() > 1) {
    entry["locks"] = {{"lines", lock_history_of(*recording)}};
  }
  return entry;
}

}  // namespace

std::string page_of(const Findings& findings, const Labels& labels) {
  const auto& [dir, runs, verdict] = findings;
  std::set<std::string> advice;
  Json sections = Json::array();
  for (std::size_t i = 0; i < runs.size(); ++i) {
    advice.insert(runs[i].advice.begin(), runs[i].advice.end());
    sections.push_back(run_of(dir, runs[i], i));
  }
  Json page = facts_of(dir, runs);
  page.update({{"title", labels.title},
               {"stamp", dir.path.filename().string()},
               {"look", verdict.look},
               {"headline", verdict.headline},
               {"sentence", verdict.sentence},
               {"failures", sentences_of(runs, &RunFindings::failures)},
               {"observations", sentences_of(runs, &RunFindings::observations)},
               {"advice", advice},
               {"condensed", runs.size() > kManyRuns},
               {"runs", std::move(sections)},
               {"ended", dir.ended()},
               {"version", ORVO_VERSION},
               {"made", labels.made}});
  mustache::mustache document(kReportHtml);
  document.set_custom_escape(escaped);
  return document.render(template_data(page));
}

}  // namespace orvo::inspection
