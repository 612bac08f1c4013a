#include <nlohmann/json.hpp>

#include "orvo/inspection/report/page.h"

namespace orvo::inspection {
namespace {

using Json = nlohmann::ordered_json;
using verification::kChannels;

Json histogram_of(const std::vector<Bin>& bins) {
  Json pairs = Json::array();
  for (const Bin& bin : bins) {
    pairs.push_back({bin.value_ps, bin.count});
  }
  return pairs;
}

Json spread_json(const Spread& spread) {
  if (spread.count == 0) {
    return {{"count", 0}};
  }
  return {{"count", spread.count},
          {"mean_ps", spread.mean_ps},
          {"median_ps", spread.median_ps},
          {"standard_deviation_ps", spread.deviation_ps}};
}

/// [begin of the column, intervals, smallest and largest deviation, mean deviation]
Json columns_of(const Recording& recording, std::size_t channel) {
  const double expected_ps = recording.channels[channel].expected_ps;
  Json rows = Json::array();
  for (const auto& [index, column] : recording.columns) {
    const IntervalSummary& s = column.channels[channel];
    if (s.intervals != 0) {
      rows.push_back({index * recording.column_ps, s.intervals,
                      static_cast<double>(s.shortest.interval_ps) - expected_ps,
                      static_cast<double>(s.longest.interval_ps) - expected_ps,
                      s.deviations_ps / static_cast<double>(s.intervals)});
    }
  }
  return rows;
}

Json channel_json(const RunFindings& run, std::size_t c) {
  const verification::ChannelResult& result = run.shown.channels[c];
  Json json = {{"channel", c},
               {"pass", result.pass},
               {"count", result.count},
               {"first_ps", result.first_ps},
               {"last_ps", result.last_ps},
               {"measured_hz", result.measured_hz},
               {"ppm_error", result.ppm_error}};
  if (run.recording) {
    const ChannelRecording& channel = run.recording->channels[c];
    json["expected_interval_ps"] = channel.expected_ps;
    json["intervals"] = channel.intervals.intervals;
    json["gaps"] = channel.intervals.gaps;
    json["missing_events"] = channel.intervals.missing_events;
    json["backward_steps"] = channel.intervals.backward_steps;
    json["with_overflow"] = channel.intervals.with_overflow;
    json["deviation"] = spread_json(channel.spread);
    json["skew"] = spread_json(channel.skew);
    json["deviation_histogram"] = histogram_of(channel.deviations);
    json["skew_histogram"] = histogram_of(channel.skews);
    json["columns"] = columns_of(*run.recording, c);
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
  if (run.recording) {
    json["first_ps"] = run.recording->first_ps;
    json["last_ps"] = run.recording->last_ps;
    json["tags_outside"] = run.recording->tags_outside;
    json["locks_dropped"] = run.recording->locks.dropped();
    json["column_ps"] = run.recording->column_ps;
    json["skew_reference"] = run.recording->reference ? Json(*run.recording->reference) : Json();
  }
  Json channels = Json::array();
  for (std::size_t c = 0; c < kChannels; ++c) {
    channels.push_back(channel_json(run, c));
  }
  json["channels"] = std::move(channels);
  return json;
}

}  // namespace

Json data_of(const RunDirectory& dir, const std::vector<RunFindings>& runs,
             const ReportLabels& labels) {
  const Verdict verdict = verdict_of(dir, runs);
  Json all = Json::array();
  for (const RunFindings& run : runs) {
    all.push_back(run_json(dir, run));
  }
  return {{"title", labels.title},        {"ortime", labels.version},
          {"made", labels.made},          {"run_directory", dir.path.string()},
          {"ended", dir.ended()},         {"pass", dir.ended() ? Json(dir.pass) : Json()},
          {"headline", verdict.headline}, {"runs", std::move(all)}};
}

}  // namespace orvo::inspection
