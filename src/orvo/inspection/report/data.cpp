#include <nlohmann/json.hpp>

#include "orvo/inspection/comparison.h"
#include "orvo/inspection/report/page.h"

namespace orvo::inspection {
namespace {

using Json = nlohmann::ordered_json;
using verification::kChannels;

/// [begin of the column, intervals, smallest and largest deviation, mean deviation]
Json columns_of(const Recording& recording, std::size_t channel) {
  const ChannelRecording& found = recording.channels[channel];
  Json rows = Json::array();
  for (const auto& [index, column] : recording.columns) {
    const IntervalSummary& s = column.channels[channel];
    if (s.intervals != 0) {
      rows.push_back({index * recording.column_ps, s.intervals, found.deviation_ps(s.shortest),
                      found.deviation_ps(s.longest),
                      s.deviations_ps / static_cast<double>(s.intervals)});
    }
  }
  return rows;
}

Json channel_json(const RunFindings& run, std::size_t c) {
  Json json = {{"channel", c}};
  json.update(json_of(numbers_of(run.shown.channels[c])));
  if (run.recording) {
    const ChannelRecording& channel = run.recording->channels[c];
    json.update({{"expected_interval_ps", channel.expected_ps},
                 {"intervals", channel.intervals.intervals},
                 {"gaps", channel.intervals.gaps},
                 {"missing_events", channel.intervals.missing_events},
                 {"backward_steps", channel.intervals.backward_steps},
                 {"with_overflow", channel.intervals.with_overflow},
                 {"deviation", channel.spread},
                 {"skew", channel.skew},
                 {"deviation_histogram", channel.deviations},
                 {"skew_histogram", channel.skews},
                 {"columns", columns_of(*run.recording, c)}});
  }
  return json;
}

Json run_json(const RunDirectory& dir, const RunFindings& run) {
  Json json = {{"requested_hz", run.shown.requested_hz},
               {"divider", run.shown.divider},
               {"expected_decoded_hz", run.shown.expected_decoded_hz},
               {"expected_events", run.expected_events},
               {"stream_file", run.shown.stream_file.string()},
               {"pass", dir.ended() ? Json(run.shown.pass) : Json()},
               {"incomplete", run.incomplete},
               {"problem", run.problem.empty() ? Json() : Json(run.problem)}};
  if (const auto& recording = run.recording) {
    json.update({{"first_ps", recording->first_ps},
                 {"last_ps", recording->last_ps},
                 {"tags_outside", recording->tags_outside},
                 {"locks_dropped", recording->locks.dropped()},
                 {"column_ps", recording->column_ps},
                 {"skew_reference", recording->reference ? Json(*recording->reference) : Json()}});
  }
  for (std::size_t c = 0; c < kChannels; ++c) {
    json["channels"].push_back(channel_json(run, c));
  }
  return json;
}

}  // namespace

Json data_of(const Findings& findings, const Labels& labels) {
  const auto& [dir, runs, verdict] = findings;
  Json all = Json::array();
  for (const RunFindings& run : runs) {
    all.push_back(run_json(dir, run));
  }
  return {{"title", labels.title},        {"ortime", ORVO_VERSION},
          {"made", labels.made},          {"run_directory", dir.path.string()},
          {"ended", dir.ended()},         {"pass", dir.ended() ? Json(dir.pass) : Json()},
          {"headline", verdict.headline}, {"runs", std::move(all)}};
}

}  // namespace orvo::inspection
