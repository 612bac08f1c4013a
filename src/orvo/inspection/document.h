// Facts as the one JSON document that all commands print parts of; docs/facts.md names its members.
// No state; any thread may call.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "orvo/inspection/facts.h"

namespace orvo::inspection {

using Json = nlohmann::ordered_json;

/// Schema, program, and where a run is: all that a document about several of them has but for the
/// recordings.
[[nodiscard]] Json head_of(const Facts& facts);

/// Looks into the recordings of `runs` and sums up, which adds to `facts`. `seen` gets each
/// recording with its part of the document, as soon as they are there.
[[nodiscard]] Json document_of(
    Facts& facts, const std::vector<verification::RunResult>& runs, const RecordingOptions& options,
    const std::function<void(RecordingFacts&, Json&)>& seen = [](RecordingFacts&, Json&) {});

[[nodiscard]] Json json_of(const RecordingFacts& run, const Facts& facts, Depth depth);
/// Tolerance and such, each with where it is from.
[[nodiscard]] Json settings_json(const Facts& facts);

/// Of each channel the histograms of its deviations and its skew, and its columns over time.
[[nodiscard]] Json series_json(const RecordingFacts& run);

/// `value` with as many digits as reports have under `name`, where they have it.
[[nodiscard]] std::string digits_of(const std::string& name, const Json& value);

/// One line; what is no UTF-8 becomes U+FFFD.
[[nodiscard]] std::string text_of(const Json& document, int indent = -1);

/// " name=value" for each member that is not null.
[[nodiscard]] std::string line_of(const Json& object);
/// A line for each value, one for all the values of an object in an array; none for null.
[[nodiscard]] std::string lines_of(const Json& object, const std::string& indent = "");

}  // namespace orvo::inspection
