#include "orvo/inspection/info.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "orvo/inspection/exit_status.h"
#include "orvo/inspection/recording.h"
#include "orvo/inspection/run_directory.h"
#include "orvo/timing/error.h"

namespace orvo::inspection {
namespace {

using Json = nlohmann::ordered_json;
using Kind = timing::LockEvent::Kind;
using verification::kChannels;
using verification::TagStatistics;

constexpr const char* kKindNames[LockHistory::kKinds] = {"locked",
                                                         "no_alignment",
                                                         "rejected_alignment",
                                                         "inactive_channel",
                                                         "overflow_in_sync",
                                                         "sync_channel_mismatch",
                                                         "nonmonotonic_sync",
                                                         "implausible_sync_delta",
                                                         "implausible_delta",
                                                         "imbalanced"};

template <typename Value>
Json or_null(const std::optional<Value>& value) {
  return value ? Json(*value) : Json();
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
  return spread.count == 0 ? Json()
                           : Json{{"count", spread.count},
                                  {"mean_ps", spread.mean_ps},
                                  {"median_ps", spread.median_ps},
                                  {"standard_deviation_ps", spread.deviation_ps}};
}

Json channel_json(std::size_t index, const Recording& recording) {
  const TagStatistics::Channel& channel = recording.tags.channel(index);
  const ChannelRecording& found = recording.channels[index];
  const IntervalSummary& intervals = found.intervals;
  Json json = {
      {"channel", index},
      {"tags", channel.count},
      {"first_ps", nullptr},
      {"last_ps", nullptr},
      {"span_ps", nullptr},
      {"rate_hz", nullptr},
      {"shortest_interval_ps", nullptr},
      {"longest_interval_ps", nullptr},
      {"missing_events",
       recording.header.mode == timing::Mode::internal ? Json(intervals.missing_events) : Json()},
      {"deviation", spread_json(found.spread)},
      {"skew", spread_json(found.skew)}};
  if (intervals.intervals != 0) {
    json["shortest_interval_ps"] = intervals.shortest.interval_ps;
    json["longest_interval_ps"] = intervals.longest.interval_ps;
  }
  if (channel.count != 0) {
    const std::uint64_t span_ps = static_cast<std::uint64_t>(channel.largest_ps) -
                                  static_cast<std::uint64_t>(channel.smallest_ps);
    json["first_ps"] = channel.smallest_ps;
    json["last_ps"] = channel.largest_ps;
    json["span_ps"] = span_ps;
    if (span_ps != 0) {
      json["rate_hz"] = static_cast<double>(channel.count - 1) * timing::kPicosecondsPerSecond /
                        static_cast<double>(span_ps);
    }
  }
  return json;
}

Json locks_json(const LockHistory& locks, const timing::StreamFileHeader& header) {
  Json counts = Json::object();
  for (std::size_t kind = 0; kind < LockHistory::kKinds; ++kind) {
    counts[kKindNames[kind]] = locks.count(static_cast<Kind>(kind));
  }
  Json events = Json::array();
  for (const auto& [event, time_ps, next_ps] : locks.entries()) {
    events.push_back({{"kind", kKindNames[static_cast<std::size_t>(event.kind)]},
                      {"payload_offset_bytes", event.payload_offset_bytes},
                      {"tags_before", event.tags_before},
                      {"time_ps", or_null(time_ps)},
                      {"detail", describe(event, header)}});
  }
  return {{"taken", locks.count(Kind::locked)},
          {"dropped", locks.dropped()},
          {"skipped_bytes", locks.skipped_bytes()},
          {"counts", std::move(counts)},
          {"events", std::move(events)},
          {"events_left_out", locks.left_out()}};
}

std::string named_value(const std::string& name, const Json& value) {
  return name + '=' +
         (value.is_string()         ? fmt::format("{:?}", value.get_ref<const std::string&>())
          : value.is_number_float() ? fmt::format("{:.6f}", value.get<double>())
                                    : value.dump());
}

/// A line for each value, one for all the values of an object in an array; none for null.
void put_lines(const Json& object, const std::string& indent, std::string& text) {
  for (const auto& [name, value] : object.items()) {
    if (value.is_object()) {
      text += indent + name + ":\n";
      put_lines(value, indent + "  ", text);
    } else if (value.is_array()) {
      text += indent + name + (value.empty() ? ": none\n" : ":\n");
      for (const Json& element : value) {
        text += indent + ' ';
        for (const auto& [part, part_value] : element.items()) {
          text += part_value.is_null() ? "" : ' ' + named_value(part, part_value);
        }
        text += '\n';
      }
    } else if (!value.is_null()) {
      text += indent + named_value(name, value) + '\n';
    }
  }
}

}  // namespace

Json facts_of(const std::filesystem::path& path, const RecordingOptions& options) {
  const Recording recording = read_recording(path, options);
  if (!recording.warning.empty()) {
    std::cerr << "ortime: " << recording.warning << '\n';
  }
  Json channels = Json::array();
  for (std::size_t channel = 0; channel < kChannels; ++channel) {
    channels.push_back(channel_json(channel, recording));
  }
  Json facts = {{"file", path.string()},
                {"file_bytes", or_null(recording.file_bytes)},
                {"header_bytes", recording.header_bytes},
                {"payload_bytes", or_null(recording.payload_bytes)},
                {"header", header_json(recording.header)},
                {"decodable", recording.decodable},
                {"tags", recording.tags.tags()},
                {"undecoded_bytes", recording.undecoded_bytes},
                {"channels", std::move(channels)}};
  if (recording.header.stream_format == timing::Format::packed_delta) {
    facts["locks"] = locks_json(recording.locks, recording.header);
  }
  return facts;
}

std::string text_of(const Json& facts) {
  std::string text;
  put_lines(facts, "", text);
  return text;
}

int info(const InfoOptions& options) {
  int status = kExitSuccess;
  Json files = Json::array();
  const auto show = [&](const std::filesystem::path& file, RecordingOptions known) {
    known.chunk_bytes = options.chunk_bytes;
    Json facts;
    try {
      facts = facts_of(file, known);
    } catch (const timing::Error& error) {
      facts = {{"file", file.string()}, {"error", error.what()}};
      std::cerr << "ortime: " << error.what() << std::endl;
      status = kExitError;
    }
    if (options.json) {
      files.push_back(std::move(facts));
    } else if (!facts.contains("error")) {
      std::cout << text_of(facts) << std::flush;
    }
  };
  for (const std::filesystem::path& path : options.paths) {
    if (!names_run(path)) {
      show(path, {});
      continue;
    }
    const RunDirectory dir = load_run(path);
    for (const verification::RunResult& run : dir.runs) {
      RecordingOptions known = {.divider = run.divider, .capture_s = dir.capture_s};
      if (dir.ended()) {
        known.channel_mask = dir.settings.channel_mask;
      }
      show(run.stream_file, known);
    }
  }
  if (options.json) {
    const Json document = {{"files", std::move(files)}};
    std::cout << document.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
  }
  return status;
}

}  // namespace orvo::inspection
