#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "orvo/inspection/commands.h"
#include "orvo/inspection/comparison.h"
#include "orvo/inspection/lock_history.h"
#include "orvo/inspection/run_directory.h"
#include "orvo/inspection/stream_input.h"
#include "orvo/timing/error.h"

namespace orvo::inspection {
namespace {

using Json = nlohmann::ordered_json;
using verification::EvaluationSettings;
using verification::RunResult;

/// A recording judged anew.
struct Judgement {
  RunResult run;
  std::vector<NamedNumber> numbers;  // of the run, those that are known
  std::vector<Difference> differences;
  std::string error;  // why it could not be judged; empty: it was
  std::string gap;    // how much was decoded, where that is not all of it or nearly so
};

std::string text_of(const std::vector<NamedNumber>& numbers) {
  std::string text;
  for (const auto& [name, digits] : numbers) {
    text += fmt::format(" {}={}", name, digits);
  }
  return text;
}

/// The judgements as they come, and the verdict.
class Output {
 public:
  Output(const EvaluationSettings& settings, bool json)
      : settings_(settings),
        json_(json),
        document_({{"tolerance_ppm", settings.tolerance_ppm},
                   {"min_tags_per_channel", settings.min_tags_per_channel},
                   {"channel_mask", settings.channel_mask},
                   {"runs", Json::array()}}) {
    if (!json_) {
      std::cout << fmt::format("tolerance_ppm={}\nmin_tags_per_channel={}\nchannel_mask=0x{:02X}\n",
                               settings.tolerance_ppm, settings.min_tags_per_channel,
                               settings.channel_mask);
    }
  }

  void add(const Judgement& judgement) {
    Json& runs = document_["runs"];
    runs.push_back(json_of_run(judgement));
    if (!judgement.error.empty()) {
      ++unjudged_;
      std::cerr << fmt::format("ortime: run {}: {}\n", runs.size(), judgement.error);
      return;
    }
    pass_ = pass_ && judgement.run.pass;
    if (!judgement.gap.empty()) {
      std::cerr << fmt::format("ortime: run {}: {}\n", runs.size(), judgement.gap);
    }
    if (!judgement.differences.empty()) {
      explanations_.insert(options_behind(judgement.differences));
    }
    for (const Difference& difference : judgement.differences) {
      disagree(fmt::format("run {}: ", runs.size()), difference);
    }
    if (!json_) {
      print(judgement);
    }
  }

  void disagree(const std::string& of, const Difference& difference) {
    ++disagreements_;
    std::cerr << fmt::format("ortime: {}{}={} differs from the report: {}\n", of, difference.name,
                             difference.decoded, difference.reported);
  }

  /// Whether every recording was judged and passed.
  [[nodiscard]] bool pass() const { return pass_ && unjudged_ == 0; }
  [[nodiscard]] std::size_t unjudged() const { return unjudged_; }

  /// Prints the verdict; returns the exit status.
  int finish() {
    const bool pass = this->pass() && disagreements_ == 0;
    if (json_) {
      document_.update(
          {{"unjudged", unjudged_}, {"disagreements", disagreements_}, {"pass", pass}});
      std::cout << document_.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
    } else {
      std::cout << "pass=" << fmt::to_string(pass)
                << (unjudged_ != 0 ? fmt::format(" unjudged={}", unjudged_) : "")
                << (disagreements_ != 0 ? fmt::format(" disagreements={}", disagreements_) : "")
                << '\n';
    }
    if (disagreements_ != 0) {
      std::cerr << fmt::format(
          "ortime: recordings and report disagree in {} numbers: was one of them changed{}{}?\n",
          disagreements_, explanations_.empty() ? "" : ", or made with another ",
          fmt::join(explanations_, ", "));
    }
    return unjudged_ != 0        ? kExitError
           : disagreements_ != 0 ? kExitDisagreement
           : pass                ? kExitSuccess
                                 : kExitVerificationFailed;
  }

 private:
  [[nodiscard]] bool judged(std::size_t channel) const {
    return verification::channel_counts(settings_.channel_mask, channel);
  }

  void print(const Judgement& judgement) const {
    std::cout << "run" << text_of(judgement.numbers)
              << fmt::format("\n  stream_file={:?}\n", judgement.run.stream_file.string());
    for (std::size_t c = 0; c < verification::kChannels; ++c) {
      std::cout << "  ch" << c << text_of(numbers_of(judgement.run.channels[c]))
                << (judged(c) ? "" : " judged=false") << '\n';
    }
    std::cout.flush();
  }

  [[nodiscard]] Json json_of_run(const Judgement& judgement) const {
    Json object = {{"stream_file", judgement.run.stream_file.string()}};
    if (!judgement.error.empty()) {
      object["error"] = judgement.error;
      return object;
    }
    object.update(json_of(judgement.numbers));
    for (std::size_t c = 0; c < verification::kChannels; ++c) {
      Json channel = {{"channel", c}, {"judged", judged(c)}};
      channel.update(json_of(numbers_of(judgement.run.channels[c])));
      object["channels"].push_back(std::move(channel));
    }
    object["differences"] = Json::array();
    for (const auto& [name, reported, decoded] : judgement.differences) {
      object["differences"].push_back(
          {{"name", name}, {"reported", Json::parse(reported)}, {"decoded", Json::parse(decoded)}});
    }
    return object;
  }

  EvaluationSettings settings_;
  bool json_;
  Json document_;
  std::size_t disagreements_ = 0;
  std::set<std::string> explanations_;  // what may be behind them
  std::size_t unjudged_ = 0;
  bool pass_ = true;
};

/// The divider that was given, or the one whose frequency is nearest to the one asked for.
std::uint32_t divider_of(const VerifyOptions& options) {
  if (options.divider) {
    return *options.divider;
  }
  constexpr double kBaseHz = verification::kCalibrationBaseHz;
  constexpr double kLargest = std::numeric_limits<std::uint32_t>::max();
  const double hz = options.requested_hz.value();
  const double below = std::clamp(std::floor(kBaseHz / hz), 1.0, kLargest - 1);
  return static_cast<std::uint32_t>(hz - kBaseHz / (below + 1) < kBaseHz / below - hz ? below + 1
                                                                                      : below);
}

/// Says how much of the payload was decoded, where more than its ends were not.
std::string gap_in(const timing::StreamFileReader& reader, const LockHistory& locks) {
  constexpr std::uint64_t kWorthAWord = 10;  // a tenth
  const std::uint64_t read = reader.read_bytes() - reader.payload_start_bytes();
  const std::uint64_t decoded = read - reader.undecoded_bytes() - locks.skipped_bytes();
  return read - decoded <= read / kWorthAWord
             ? ""
             : fmt::format("only {} of {} payload bytes decoded: the rest was not judged", decoded,
                           read);
}

/// The recording of `reported`, which has at least its divider and its stream file.
Judgement judged_again(const RunResult& reported, const EvaluationSettings& settings,
                       StreamInput& input, std::uint64_t chunk_bytes) {
  input.require_decodable();
  verification::TagStatistics recorded;
  LockHistory locks;
  input.reader.on_lock_event = [&](const timing::LockEvent& event) { locks.add(event); };
  input.read(chunk_bytes, [&](std::span<const timing::TimeTag> tags) { recorded.add(tags); });
  Judgement judgement;
  judgement.run = judge_again(reported, recorded, input.payload_bytes(), settings);
  judgement.numbers = numbers_of(judgement.run);
  judgement.gap = gap_in(input.reader, locks);
  return judgement;
}

int verify_file(const VerifyOptions& options) {
  StreamInput input(options.path);
  const EvaluationSettings settings =
      options.given.over(verification::settings_of(input.reader.header()));
  const RunResult named = {.requested_hz = options.requested_hz.value_or(0),
                           .divider = divider_of(options),
                           .stream_file = options.path,
                           .channels = {}};
  Judgement judgement = judged_again(named, settings, input, options.chunk_bytes);
  std::erase_if(judgement.numbers, [&](const NamedNumber& number) {  // what no one has said
    return (number.name == "requested_hz" && !options.requested_hz) ||
           (number.name == "payload_bytes" && !input.payload_bytes());
  });
  Output output(settings, options.json);
  output.add(judgement);
  return output.finish();
}

int verify_run(const VerifyOptions& options) {
  const RunDirectory dir = load_run(options.path);
  if (!dir.ended()) {
    throw timing::Error(OT_ERR_NOT_FOUND,
                        fmt::format("{:?} {}; judge its recordings with 'ortime verify "
                                    "--requested-hz F FILE'",
                                    dir.path.string(), why_no_report(dir.running)));
  }
  const bool same_judgement = !options.given.any();
  const EvaluationSettings settings = options.given.over(dir.settings);
  Output output(settings, options.json);
  for (const RunResult& reported : dir.runs) {
    Judgement judgement;
    try {
      require_recording(dir, reported);
      StreamInput input(reported.stream_file);
      judgement = judged_again(reported, settings, input, options.chunk_bytes);
      judgement.differences = differences(reported, judgement.run, same_judgement);
    } catch (const timing::Error& error) {
      judgement.run.stream_file = reported.stream_file;
      judgement.error = error.what();
    }
    output.add(judgement);
  }
  if (same_judgement && output.unjudged() == 0 && output.pass() != dir.pass) {
    output.disagree("", {"pass", fmt::to_string(dir.pass), fmt::to_string(output.pass())});
  }
  return output.finish();
}

}  // namespace

int run(const VerifyOptions& options) {
  return names_run(options.path) ? verify_run(options) : verify_file(options);
}

}  // namespace orvo::inspection
