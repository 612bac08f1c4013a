#include "orvo/inspection/document.h"

#include <fmt/format.h>

#include <type_traits>
#include <utility>

#include "orvo/inspection/text.h"

namespace orvo::inspection {
namespace {

using verification::ChannelResult;
using verification::kChannels;
using verification::RunResult;

constexpr int kSchema = 1;  // rises when a name goes or changes its meaning

template <typename Value>
Json or_null(const std::optional<Value>& value) {
  return value ? Json(*value) : Json();
}
Json text_or_null(const std::string& text) { return text.empty() ? Json() : Json(text); }

void forget(Json& object, bool known, std::initializer_list<const char*> names) {
  for (const char* const name : names) {
    object[name] = known ? object[name] : Json();
  }
}

/// What a visit calls to make members of what reports have, but for the stream file.
auto into(Json& object) {
  return [&object](const char* name, const auto& value, int = 0) {
    using Value = std::remove_cvref_t<decltype(value)>;
    if constexpr (!std::is_same_v<Value, std::filesystem::path>) {
      object[name] = value;
    }
  };
}

/// A run, null where it has no value, and which of its channels count.
Json run_json(const RunResult& run, bool has_verdict, const Facts& facts) {
  const bool has_source = run.divider != 0;
  Json json;
  visit_run(run, into(json));
  forget(json, run.requested_hz > 0, {"requested_hz"});
  forget(json, has_source, {"effective_hz", "expected_decoded_hz", "divider", "overflow_required"});
  forget(json, has_verdict, {"pass"});
  for (std::size_t c = 0; c < kChannels; ++c) {
    const ChannelResult& channel = run.channels[c];
    Json numbers = {{"channel", c}};
    visit_channel(channel, into(numbers));
    forget(numbers, channel.count >= 2, {"first_ps", "last_ps"});
    forget(numbers, channel.measured_hz > 0, {"measured_hz"});
    forget(numbers, compares_rate(run, c), {"ppm_error"});
    forget(numbers, has_verdict, {"pass"});
    numbers["judged"] = facts.counts(c);
    json["channels"].push_back(std::move(numbers));
  }
  return json;
}

Json header_json(const timing::StreamFileHeader& header) {
  return {{"stream_format", name_of(header.stream_format)},
          {"mode", name_of(header.mode)},
          {"stream_transport", name_of(header.stream_transport)},
          {"channel_mask", header.channel_mask},
          {"tdl_index", header.tdl_index},
          {"delta_bits", header.delta_bits},
          {"quantum_ps", header.quantum_ps},
          {"raw64_tag_format", header.raw64_tag_format},
          {"created_utc", header.created_utc},
          {"application", header.application},
          {"device_product", header.device_product},
          {"device_serial", header.device_serial},
          {"device_port", header.device_port}};
}

Json spread_json(const Spread& spread) {
  if (spread.count == 0) {
    return {};
  }
  return {{"count", spread.count},
          {"mean_ps", spread.mean_ps},
          {"median_ps", spread.median_ps},
          {"standard_deviation_ps", spread.deviation_ps}};
}

Json channel_json(const RecordingFacts& run, std::size_t c) {
  const Recording& recording = *run.recording;
  const ChannelRecording& channel = recording.channels[c];
  const IntervalSummary& s = channel.intervals;
  Json json = {
      {"channel", c},
      {"expected_interval_ps", channel.expected_ps > 0 ? Json(channel.expected_ps) : Json()},
      {"intervals", s.intervals},
      {"shortest_interval_ps", s.shortest.interval_ps},
      {"longest_interval_ps", s.longest.interval_ps},
      {"smallest_deviation_ps", channel.smallest_ps()},
      {"largest_deviation_ps", channel.largest_ps()},
      {"gaps", s.gaps},
      {"missing_events", s.missing_events},
      {"extra_events", s.extra_events},
      {"backward_steps", s.backward_steps},
      {"with_overflow", s.with_overflow},
      {"deviation", spread_json(channel.spread)},
      {"skew", spread_json(channel.skew)}};
  forget(json, s.intervals != 0,
         {"shortest_interval_ps", "longest_interval_ps", "smallest_deviation_ps",
          "largest_deviation_ps"});
  forget(json, recording.header.mode == timing::Mode::internal,
         {"gaps", "missing_events", "extra_events"});
  return json;
}

Json locks_json(const Recording& recording) {
  const LockHistory& locks = recording.locks;
  Json counts = Json::object();
  for (std::size_t kind = 0; kind < LockHistory::kKinds; ++kind) {
    const auto which = static_cast<timing::LockEvent::Kind>(kind);
    counts[name_of(which)] = locks.count(which);
  }
  Json events = Json::array();
  for (const auto& [event, time_ps, next_ps] : locks.entries()) {
    events.push_back({{"kind", name_of(event.kind)},
                      {"payload_offset_bytes", event.payload_offset_bytes},
                      {"tags_before", event.tags_before},
                      {"time_ps", or_null(time_ps)},
                      {"detail", describe(event, recording.header)}});
  }
  return {{"taken", locks.count(timing::LockEvent::Kind::locked)},
          {"dropped", locks.dropped()},
          {"skipped_bytes", locks.skipped_bytes()},
          {"counts", std::move(counts)},
          {"events", std::move(events)},
          {"events_left_out", locks.left_out()}};
}

Json differences_json(const std::vector<Difference>& differences) {
  Json json = Json::array();
  for (const Difference& difference : differences) {
    json.push_back({{"channel", or_null(difference.channel)},
                    {"name", difference.name},
                    {"reported", Json::parse(difference.reported)},
                    {"judged", Json::parse(difference.judged)},
                    {"words", difference.text()}});
  }
  return json;
}

Json findings_json(const std::vector<Finding>& findings) {
  Json json = Json::array();
  for (const Finding& finding : findings) {
    json.push_back({{"channels", finding.channels},
                    {"words", plain_text(finding.text())},
                    {"cause", text_or_null(finding.cause)},
                    {"advice", text_or_null(plain_text(finding.advice))}});
  }
  return json;
}

Json bins_json(const std::vector<Bin>& bins) {
  Json json = Json::array();
  for (const Bin& bin : bins) {
    json.push_back({bin.value_ps, bin.count});
  }
  return json;
}

/// [begin of the column, intervals, smallest and largest deviation, mean deviation]
Json columns_json(const Recording& recording, const ChannelRecording& channel, std::size_t number) {
  Json rows = Json::array();
  for (const auto& [index, column] : recording.columns) {
    const IntervalSummary& s = column.channels[number];
    if (s.intervals != 0) {
      rows.push_back({index * recording.column_ps, s.intervals, channel.deviation_ps(s.shortest),
                      channel.deviation_ps(s.longest),
                      s.near.count != 0 ? Json(s.near.mean_ps) : Json()});
    }
  }
  return rows;
}

/// What the intervals show.
void add_intervals(const RecordingFacts& run, Json& json) {
  const Recording& recording = *run.recording;
  const bool any = recording.has_intervals();
  json.update({{"first_ps", any ? Json(recording.first_ps) : Json()},
               {"last_ps", any ? Json(recording.last_ps) : Json()},
               {"tags_outside", recording.tags_outside},
               {"skew_reference", or_null(recording.reference)}});
  for (std::size_t c = 0; c < kChannels; ++c) {
    json["channels"].push_back(channel_json(run, c));
  }
  json["locks"] = recording.header.stream_format == timing::Format::packed_delta
                      ? locks_json(recording)
                      : Json();
}

/// On the whole: of headers alone no more than what the report says.
Json verdict_json(const Facts& facts, Depth depth) {
  const Json reported_pass = facts.ended() ? Json(facts.dir.pass) : Json();
  if (depth == Depth::header) {
    return {{"reported_pass", reported_pass}};
  }
  const Summary& summary = facts.summary;
  Json sentences = Json::array();
  for (const auto& [run, subject, words, cause] : summary.sentences) {
    sentences.push_back(plain_text(subject + words + (cause.empty() ? "" : ' ' + cause)));
  }
  Json advice = Json::array();
  for (const std::string& sentence : summary.advice) {
    advice.push_back(plain_text(sentence));
  }
  return {{"pass", summary.pass},
          {"reported_pass", reported_pass},
          {"unjudged", summary.unjudged},
          {"disagreements", summary.disagreements},
          {"headline", plain_text(summary.headline)},
          {"lead", text_or_null(plain_text(summary.lead))},
          {"sentences", std::move(sentences)},
          {"advice", std::move(advice)}};
}

}  // namespace

Json head_of(const Facts& facts) {
  const auto path_or_null = [](const std::filesystem::path& path) {
    return text_or_null(path.string());
  };
  return {{"schema", kSchema},
          {"ortime", ORVO_VERSION},
          {"run_directory", path_or_null(facts.dir.path)},
          {"report", path_or_null(facts.dir.report)}};
}

Json settings_json(const Facts& facts) {
  const verification::EvaluationSettings& settings = facts.settings;
  const char* const source = facts.ended() ? "report" : "header";
  const auto from = [&](bool given, const char* otherwise) { return given ? "option" : otherwise; };
  return {{"capture_s", facts.ended() ? Json(facts.dir.capture_s) : Json()},
          {"tolerance_ppm", settings.tolerance_ppm},
          {"min_tags_per_channel", settings.min_tags_per_channel},
          {"channel_mask", settings.channel_mask},
          {"packed_delta_bits", settings.packed_bits},
          {"packed_delta_quantum_ps", settings.packed_quantum_ps},
          {"origin",
           {{"tolerance_ppm",
             from(facts.given.tolerance_ppm.has_value(), facts.ended() ? "report" : "default")},
            {"min_tags_per_channel", from(facts.given.min_tags_per_channel.has_value(), "default")},
            {"channel_mask", from(facts.given.channel_mask.has_value(), source)},
            {"packed_delta_bits", source},
            {"packed_delta_quantum_ps", source}}}};
}

Json json_of(const RecordingFacts& run, const Facts& facts, Depth depth) {
  Json json = {{"stream_file", run.stream_file.string()}, {"error", text_or_null(run.error)}};
  const auto& recording = run.recording;
  json.update({{"header", recording ? header_json(recording->header) : Json()},
               {"file_bytes", recording ? or_null(recording->file_bytes) : Json()},
               {"header_bytes", recording ? Json(recording->header_bytes) : Json()},
               {"payload_bytes", recording ? or_null(recording->payload_bytes) : Json()}});
  json["reported"] = run.reported ? run_json(*run.reported, true, facts) : Json();
  if (depth == Depth::header) {
    return json;
  }
  json.update(
      {{"undecoded_bytes", run.judged ? Json(recording->undecoded_bytes) : Json()},
       {"decoded_bytes", run.judged ? Json(recording->decoded_bytes()) : Json()},
       {"divider_from", !run.verdict() && !run.divider_inferred ? Json()
                        : run.divider_inferred                  ? Json("intervals")
                        : facts.ended()                         ? Json("report")
                                                                : Json("option")},
       {"expected_events", run.expected_events > 0 ? Json(run.expected_events) : Json()},
       {"judged", run.judged ? run_json(*run.judged, run.verdict() != nullptr, facts) : Json()},
       {"differences", differences_json(run.differences)},
       {"findings", findings_json(run.findings)}});
  if (depth == Depth::intervals && run.judged) {
    add_intervals(run, json);
  }
  return json;
}

Json document_of(Facts& facts, const std::vector<verification::RunResult>& runs,
                 const RecordingOptions& options,
                 const std::function<void(RecordingFacts&, Json&)>& seen) {
  Json document = head_of(facts);
  document["settings"] = nullptr;  // they may be those of the recordings' header
  document["recordings"] = Json::array();
  for (const RunResult& run : runs) {
    RecordingFacts& found = look_into(run, options, facts);
    Json part = json_of(found, facts, options.depth);
    seen(found, part);
    document["recordings"].push_back(std::move(part));
  }
  if (options.depth != Depth::header) {
    facts.summary = summary_of(facts);
  }
  document["settings"] = settings_json(facts);
  document["verdict"] = verdict_json(facts, options.depth);
  return document;
}

Json series_json(const RecordingFacts& run) {
  Json series = Json::array();
  for (std::size_t c = 0; run.judged && c < kChannels; ++c) {
    const ChannelRecording& channel = run.recording->channels[c];
    series.push_back({{"channel", c},
                      {"deviation_histogram", bins_json(channel.deviations)},
                      {"skew_histogram", bins_json(channel.skews)},
                      {"columns", columns_json(*run.recording, channel, c)}});
  }
  return series;
}

std::string digits_of(const std::string& name, const Json& value) {
  int decimals = 3;  // of a picosecond
  const auto look = [&](const char* reported, const auto&, int digits = 0) {
    decimals = name == reported ? digits : decimals;
  };
  const RunResult none;
  visit_run(none, look);
  visit_channel(none.channels[0], look);
  return value.is_string()         ? fmt::format("{:?}", value.get_ref<const std::string&>())
         : value.is_number_float() ? name == "tolerance_ppm"
                                         ? fmt::format("{}", value.get<double>())
                                         : fmt::format("{:.{}f}", value.get<double>(), decimals)
                                   : value.dump();
}

std::string text_of(const Json& document, int indent) {
  return document.dump(indent, ' ', false, Json::error_handler_t::replace) + '\n';
}

std::string line_of(const Json& object) {
  std::string line;
  for (const auto& [name, value] : object.items()) {
    line += value.is_null() ? "" : ' ' + name + '=' + digits_of(name, value);
  }
  return line;
}

std::string lines_of(const Json& object, const std::string& indent) {
  std::string text;
  for (const auto& [name, value] : object.items()) {
    if (value.is_object()) {
      text += indent + name + ":\n" + lines_of(value, indent + "  ");
    } else if (value.is_array()) {
      text += indent + name + (value.empty() ? ": none\n" : ":\n");
      for (const Json& element : value) {
        text += indent + ' ' + line_of(element) + '\n';
      }
    } else if (!value.is_null()) {
      text += indent + name + '=' + digits_of(name, value) + '\n';
    }
  }
  return text;
}

}  // namespace orvo::inspection
