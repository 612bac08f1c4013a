#include "orvo/inspection/report/page.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <kainjow/mustache.hpp>
#include <utility>

#include "orvo/inspection/text.h"
#include "report_html.h"

namespace orvo::inspection {
namespace {

namespace mustache = kainjow::mustache;
using verification::ChannelResult;
using verification::kChannels;

constexpr const char* kDash = "–";

/// How a number of the document is shown, where that is not to three decimals.
struct Form {
  const char* name;
  int decimals;
  bool has_sign;
};
constexpr Form kForms[] = {{"ppm_error", 6, true},
                           {"measured_hz", 6, false},
                           {"effective_hz", 6, false},
                           {"mean_ps", 4, true},
                           {"median_ps", 1, true},
                           {"standard_deviation_ps", 3, false},
                           {"smallest_deviation_ps", 1, true},
                           {"largest_deviation_ps", 1, true},
                           {"expected_events", 0, false}};

std::string number_text(const std::string& name, double value) {
  if (name == "tolerance_ppm" || name == "capture_s") {
    return name == "capture_s" ? fmt::format("{:g}", value) : fmt::format("{}", value);
  }
  const auto* const form = std::find_if(std::begin(kForms), std::end(kForms),
                                        [&](const Form& one) { return name == one.name; });
  if (form == std::end(kForms)) {
    return fixed_text(value, 3);
  }
  const int decimals = name == "ppm_error" && std::abs(value) >= 1000         ? 1
                       : name == "median_ps" && std::fmod(value, 10.0) == 0.0 ? 0  // of wide bins
                                                                              : form->decimals;
  return form->has_sign ? signed_text(value, decimals) : fixed_text(value, decimals);
}

/// Text of unknown origin as a page can hold it: no control characters, and U+FFFD for what is no
/// UTF-8.
std::string escaped(const std::string& text) {
  const std::string valid = Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
  std::string shown;
  for (const char c : Json::parse(valid).get<std::string>()) {
    const auto byte = static_cast<unsigned char>(c);
    const bool after_c2 = !shown.empty() && static_cast<unsigned char>(shown.back()) == 0xC2;
    if (after_c2 && byte < 0xA0) {  // U+0080 to U+009F
      shown.back() = '?';
    } else {
      shown += byte < 0x20 || byte == 0x7F ? '?' : c;
    }
  }
  return mustache::html_escape(shown);
}

/// For the template: numbers as they are shown, a dash for what has no value; an empty text, false
/// and an empty list hide a section, as does has_NAME where a member has no value.
mustache::data template_data(const std::string& name, const Json& value) {
  if (value.is_object()) {
    mustache::data object;
    for (const auto& [key, member] : value.items()) {
      object.set(key, template_data(key, member));
      object.set("has_" + key, mustache::data(!member.is_null()));
    }
    return object;
  }
  if (value.is_array()) {
    mustache::data list(mustache::data::type::list);
    for (const Json& element : value) {
      list.push_back(template_data(name, element));
    }
    return list;
  }
  if (value.is_boolean()) {
    return mustache::data(value.get<bool>());
  }
  if (value.is_string()) {
    const std::string& text = value.get_ref<const std::string&>();
    return text.empty() ? mustache::data(false) : mustache::data(text);
  }
  return value.is_number_float()      ? number_text(name, value.get<double>())
         : value.is_number_unsigned() ? grouped(value.get<std::uint64_t>())
         : value.is_number_integer()  ? grouped(value.get<std::int64_t>())
                                      : kDash;
}

struct State {
  const char* name;  // its class: good, bad or unjudged
  const char* words;
};

State state_of(const Json& channel) {
  if (channel["pass"].is_null()) {
    return {"unjudged", kDash};
  }
  return channel["judged"] == false ? State{"unjudged", "not judged"}
         : channel["pass"] == false ? State{"bad", "✗ FAIL"}
                                    : State{"good", "✓ pass"};
}

/// A row a channel; of many runs, those that passed have their worst channel's alone.
Json rows_of(const Facts& facts, const RecordingFacts& run, const Json& numbers) {
  const bool condensed = facts.recordings.size() > kManyRuns && run.passed_whole();
  const auto& channels = run.shown().channels;
  const auto* const worst = std::max_element(channels.begin(), channels.end(),
                                             [](const ChannelResult& a, const ChannelResult& b) {
                                               return std::abs(a.ppm_error) < std::abs(b.ppm_error);
                                             });
  std::array<std::vector<RateMark>, kChannels> marks;  // of each row
  for (std::size_t c = 0; c < kChannels; ++c) {
    if (!numbers[c]["ppm_error"].is_null()) {
      const auto row = condensed ? static_cast<std::size_t>(worst - channels.begin()) : c;
      marks[row].push_back({c, channels[c].ppm_error, state_of(numbers[c]).name});
    }
  }
  Json rows = Json::array();
  for (std::size_t c = 0; c < kChannels; ++c) {
    if (condensed && worst != &channels[c]) {
      continue;
    }
    const auto [state, verdict] = state_of(numbers[c]);
    Json row = numbers[c];
    row.update({{"state", state},
                {"verdict", verdict},
                {"first", rows.empty()},
                {"rates", run.verdict() == nullptr
                              ? ""
                              : draw_rate_errors(marks[c], facts.settings.tolerance_ppm)}});
    rows.push_back(std::move(row));
  }
  return rows;
}

/// The table of a run's intervals and skews.
Json channels_of(const Recording& recording, const Json& channels) {
  Json shown = Json::array();
  for (std::size_t c = 0; c < kChannels; ++c) {
    if (!recording.shows(c)) {
      continue;
    }
    Json channel = channels[c];
    for (const char* const spread : {"deviation", "skew"}) {
      if (channel[spread].is_null()) {  // a dash for each of its numbers
        channel[spread] = {
            {"mean_ps", nullptr}, {"median_ps", nullptr}, {"standard_deviation_ps", nullptr}};
      }
    }
    if (recording.reference == c) {
      channel["skew"]["median_ps"] = "reference";
    }
    if (channel["intervals"] == channel["with_overflow"] && channel["intervals"] != 0) {
      channel["with_overflow"] = "all";
    }
    shown.push_back(std::move(channel));
  }
  return shown;
}

/// What is seen of a run that is folded.
std::string digest_of(const RecordingFacts& run) {
  double spread_ps = 0;
  double skew_ps = 0;
  for (std::size_t c = 0; run.judged && c < kChannels; ++c) {
    const ChannelRecording& channel = run.recording->channels[c];
    spread_ps = std::max(spread_ps, channel.spread.deviation_ps);
    skew_ps = std::max(skew_ps, std::abs(channel.skew.median_ps));
  }
  return counted(run.shown().decoded_tags, "timestamp") +
         (spread_ps > 0 ? ", standard deviation up to " + time_text(spread_ps, 3) : "") +
         (skew_ps > 0 ? ", skew up to " + time_text(skew_ps, 3) : "");
}

/// The charts of a run, and their table.
Json figure_of(const Recording& recording, const Json& channels, const Figure& figure) {
  Json drawn = {{"parts", figure.parts},
                {"marks_left_out", figure.left_out},
                {"channels", channels_of(recording, channels)}};
  for (const std::string& kind : figure.kinds) {
    drawn[kind] = true;
  }
  return drawn;
}

/// A run as the document has it, and how it is shown.
Json run_of(const Facts& facts, std::size_t index, Json entry, const Figure& figure) {
  const RecordingFacts& run = facts.recordings[index];
  const Json shown = run.reported ? entry["reported"] : entry["judged"];
  const verification::RunResult& exact = run.judged ? *run.judged : run.shown();
  const bool passed = run.verdict() != nullptr && run.verdict()->pass;
  entry.update({{"number", index + 1},
                {"name", name_of_run(facts, index)},
                {"open", !run.passed_whole()},
                {"digest", digest_of(run)},
                {"inferred", run.divider_inferred},
                {"packed", run.recording &&
                               run.recording->header.stream_format == timing::Format::packed_delta},
                {"state", passed                     ? "good"
                          : run.verdict() != nullptr ? "bad"
                                                     : ""},
                {"verdict", passed ? run.incomplete ? "✓ PASS, incomplete" : "✓ PASS"
                            : run.verdict() != nullptr ? "✗ FAIL"
                                                       : ""},
                {"exact", run.judged ? entry["judged"] : shown},  // a report rounds
                {"period_ps", timing::kPicosecondsPerSecond / exact.expected_decoded_hz},
                {"shown", shown},
                {"rows", shown.is_null() ? Json::array() : rows_of(facts, run, shown["channels"])},
                {"problem", run.error},
                {"findings", Json::array()}});
  if (!figure.parts.empty()) {
    entry["figure"] = figure_of(*run.recording, entry["channels"], figure);
  } else if (run.error.empty()) {
    entry["problem"] = "no channel has two timestamps";
  }
  for (const Finding& finding : run.findings) {
    if (facts.recordings.size() > 1) {  // else they are above
      std::string words = finding.line() + '.';
      words.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(words.front())));
      entry["findings"].push_back(words);
    }
  }
  if (run.judged && run.recording->locks.entries().size() > 1) {
    entry["history"] = {{"lines", lock_history_of(*run.recording)}};
  }
  return entry;
}

}  // namespace

std::string page_of(Json page, const Facts& facts, const std::vector<Figure>& figures) {
  const Summary& summary = facts.summary;
  page.update({{"stamp", facts.dir.path.filename().string()},
               {"look", summary.look},
               {"headline", summary.headline},
               {"lead", summary.lead},
               {"advice", summary.advice},
               {"condensed", facts.recordings.size() > kManyRuns},
               {"ended", facts.ended()},
               {"instrument", false}});
  for (const auto& [run, subject, words, cause] : summary.sentences) {
    page["sentences"].push_back(
        {{"number", run}, {"subject", subject}, {"words", words}, {"cause", cause}});
  }
  std::string channels;
  for (std::size_t c = 0; c < kChannels; ++c) {
    channels += facts.counts(c) ? fmt::format(" {}", c) : "";
  }
  page["channels_judged"] = channels;
  for (std::size_t i = 0; i < facts.recordings.size(); ++i) {
    Json& entry = page["recordings"][i];
    if (page["instrument"] == false && !entry["header"].is_null()) {
      page["instrument"] = entry["header"];
    }
    entry.erase("series");  // drawn
    entry = run_of(facts, i, std::move(entry), figures[i]);
  }
  mustache::mustache html(kReportHtml);
  html.set_custom_escape(escaped);
  return html.render(template_data("", page));
}

}  // namespace orvo::inspection
