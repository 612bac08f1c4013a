#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "orvo/inspection/commands.h"
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

/// What is not defined, such as the rate of a single tag, is null.
Json channel_json(std::size_t index, const Recording& recording) {
  const TagStatistics::Channel& tags = recording.tags.channel(index);
  const auto& [expected_ps, deviations, spread, skews, skew, intervals] = recording.channels[index];
  const std::uint64_t span_ps =
      static_cast<std::uint64_t>(tags.largest_ps) - static_cast<std::uint64_t>(tags.smallest_ps);
  const auto where = [](bool defined, auto value) { return defined ? Json(value) : Json(); };
  return {{"channel", index},
          {"tags", tags.count},
          {"first_ps", where(tags.count != 0, tags.smallest_ps)},
          {"last_ps", where(tags.count != 0, tags.largest_ps)},
          {"span_ps", where(tags.count != 0, span_ps)},
          {"rate_hz", where(tags.count != 0 && span_ps != 0, static_cast<double>(tags.count - 1) *
                                                                 timing::kPicosecondsPerSecond /
                                                                 static_cast<double>(span_ps))},
          {"shortest_interval_ps", where(intervals.intervals != 0, intervals.shortest.interval_ps)},
          {"longest_interval_ps", where(intervals.intervals != 0, intervals.longest.interval_ps)},
          {"missing_events",
           where(recording.header.mode == timing::Mode::internal, intervals.missing_events)},
          {"deviation", spread},
          {"skew", skew}};
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

Json facts_of(const std::filesystem::path& path, const RecordingOptions& options) {
  const Recording recording = read_recording(path, options);
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

}  // namespace

int run(const InfoOptions& options) {
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
      std::string text;
      put_lines(facts, "", text);
      std::cout << text << std::flush;
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
