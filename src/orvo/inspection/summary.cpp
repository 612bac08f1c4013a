#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "orvo/inspection/facts.h"
#include "orvo/inspection/text.h"

namespace orvo::inspection {
namespace {

using timing::kPicosecondsPerSecond;
using verification::kChannels;
using Numbers = std::vector<std::size_t>;

/// "1, 3 and 5 to 40": ascending numbers, each raised by `from`.
std::string list_text(const Numbers& numbers, std::size_t from) {
  std::vector<std::string> parts;
  for (std::size_t i = 0; i < numbers.size();) {
    std::size_t last = i;
    while (last + 1 < numbers.size() && numbers[last + 1] == numbers[last] + 1) {
      ++last;
    }
    const bool many = last - i >= 2;
    parts.push_back(many ? fmt::format("{} to {}", numbers[i] + from, numbers[last] + from)
                         : fmt::to_string(numbers[i] + from));
    i = many ? last + 1 : i + 1;
  }
  const std::string end = parts.back();
  parts.pop_back();
  return parts.empty() ? end : fmt::format("{} and {}", fmt::join(parts, ", "), end);
}

/// "10 to 20 timestamps": the unit once, where both have it.
std::string range_text(const std::string& least, const std::string& most) {
  if (least == most) {
    return most;
  }
  const auto end = std::mismatch(least.rbegin(), least.rend(), most.rbegin(), most.rend()).first;
  const auto same_bytes = static_cast<std::size_t>(end - least.rbegin());
  return least.substr(0, least.find_first_of(" \u00A0", least.size() - same_bytes)) + " to " + most;
}

/// Equal findings: of several channels of a run, and of the same channels in several runs.
struct Group {
  Finding least;
  Finding most;
  Numbers runs;
};

bool alike(const Finding& a, const Finding& b) {
  return a.kind == b.kind && a.words == b.words && a.cause == b.cause;
}

/// Findings of a run, those of several channels that say the same as one.
std::vector<Finding> by_channels(const std::vector<Finding>& findings) {
  std::vector<Finding> merged;
  for (const Finding& finding : findings) {
    const auto same = std::find_if(merged.begin(), merged.end(), [&](const Finding& one) {
      return alike(one, finding) && one.amount.text == finding.amount.text;
    });
    if (same == merged.end()) {
      merged.push_back(finding);
    } else {
      same->channels.insert(same->channels.end(), finding.channels.begin(), finding.channels.end());
      same->detail = same->detail == finding.detail ? same->detail : "";
    }
  }
  return merged;
}

std::vector<Group> groups_of(const Facts& facts) {
  std::vector<Group> groups;
  for (std::size_t run = 0; run < facts.recordings.size(); ++run) {
    for (const Finding& finding : by_channels(facts.recordings[run].findings)) {
      const auto same = std::find_if(groups.begin(), groups.end(), [&](const Group& group) {
        return alike(group.most, finding) && group.most.channels == finding.channels;
      });
      if (same == groups.end()) {
        groups.push_back({finding, finding, {run}});
        continue;
      }
      same->runs.push_back(run);
      same->least = finding.amount.number < same->least.amount.number ? finding : same->least;
      same->most = finding.amount.number > same->most.amount.number ? finding : same->most;
    }
  }
  std::stable_sort(groups.begin(), groups.end(),
                   [](const Group& a, const Group& b) { return a.most.kind < b.most.kind; });
  return groups;
}

Sentence sentence_of(const Facts& facts, const Group& group) {
  const auto& [least, most, runs] = group;
  std::string subject =
      runs.size() == 1 ? name_of_run(facts, runs.front()) : "Runs " + list_text(runs, 1);
  if (!most.channels.empty()) {
    subject += most.channels.size() == 1 ? ", channel " : ", channels ";
    subject += list_text(most.channels, 0);
  }
  const bool each =
      (runs.size() > 1 || most.channels.size() > 1) && least.amount.text == most.amount.text;
  const std::string amount = range_text(least.amount.text, most.amount.text);
  return {.run = runs.front() + 1,
          .subject = subject,
          .words = ": " + fmt::format(fmt::runtime(most.words), amount, each ? " each" : "") +
                   (runs.size() == 1 ? most.detail : "") + '.',
          .cause = most.cause};
}

/// The sentence about all that passed.
std::string largest_error_of(const Facts& facts) {
  double largest_ppm = -1;
  std::string place;
  for (std::size_t i = 0; i < facts.recordings.size(); ++i) {
    for (std::size_t c = 0; c < kChannels; ++c) {
      const verification::RunResult& run = facts.recordings[i].shown();
      const double ppm = std::abs(run.channels[c].ppm_error);
      if (facts.counts(c) && compares_rate(run, c) && ppm > largest_ppm) {
        largest_ppm = ppm;
        place = fmt::format("{}, channel {}", name_of_run(facts, i), c);
      }
    }
  }
  const std::size_t runs = facts.recordings.size();
  return fmt::format("{} passed. ", runs == 1   ? "The run"
                                    : runs == 2 ? "Both runs"
                                                : "All " + counted(runs, "run")) +
         (place.empty()
              ? "No rate was compared."
              : fmt::format("The largest rate error of a channel is {} ppm, tolerance {} ppm: {}.",
                            fixed_text(largest_ppm, 6, facts.settings.tolerance_ppm),
                            facts.settings.tolerance_ppm, place));
}

/// Of runs that were reported as passed.
void doubt(const Facts& facts, Summary& summary) {
  const auto& runs = facts.recordings;
  const auto least = std::min_element(
      runs.begin(), runs.end(),
      [](const RecordingFacts& a, const RecordingFacts& b) { return a.decoded_s < b.decoded_s; });
  summary.look = "doubt";
  if (least->incomplete) {
    summary.headline = fmt::format("PASS, but only {} of {} decoded",
                                   time_text(least->decoded_s * kPicosecondsPerSecond, 3),
                                   time_text(facts.dir.capture_s * kPicosecondsPerSecond, 3));
  } else if (summary.disagreements != 0) {
    summary.headline = "PASS, but the recordings say otherwise";
  } else if (summary.unjudged != 0) {
    summary.headline = fmt::format("PASS, but {} of {} could not be judged", summary.unjudged,
                                   counted(runs.size(), "recording"));
  } else if (std::any_of(runs.begin(), runs.end(), [](const RecordingFacts& run) {
               return std::any_of(run.findings.begin(), run.findings.end(), [](const Finding& one) {
                 return one.kind == Finding::Kind::uncompared;
               });
             })) {
    summary.headline = "PASS, but not every rate was compared";
  } else {
    summary.look = "pass";
    summary.headline = "PASS";
  }
}

/// Each once; of captures that were too short, that of the one at the lowest rate.
std::vector<std::string> advice_of(const Facts& facts) {
  std::vector<std::string> all;
  const auto add = [&all](const std::string& advice) {
    if (!advice.empty() && std::find(all.begin(), all.end(), advice) == all.end()) {
      all.push_back(advice);
    }
  };
  std::string longest;
  double lowest_hz = std::numeric_limits<double>::infinity();
  for (const RecordingFacts& run : facts.recordings) {
    const double rate_hz = run.shown().expected_decoded_hz;
    for (const Finding& finding : run.findings) {
      if (finding.kind != Finding::Kind::few) {
        add(finding.advice);
      } else if (rate_hz < lowest_hz && !finding.advice.empty()) {
        longest = finding.advice;
        lowest_hz = rate_hz;
      }
    }
  }
  add(longest);
  return all;
}

void judge_whole(const Facts& facts, Summary& summary) {
  const auto& runs = facts.recordings;
  const auto failed = std::count_if(runs.begin(), runs.end(), [](const RecordingFacts& run) {
    return run.verdict() != nullptr && !run.verdict()->pass;
  });
  if (!facts.ended() && runs.size() == 1 && runs.front().verdict() != nullptr) {  // a stream file
    summary.look = summary.pass ? "pass" : "fail";
    summary.headline = summary.pass ? "PASS" : "FAIL";
  } else if (!facts.ended()) {
    summary.headline = facts.dir.running ? "No verdict: the run is still running"
                                         : "No verdict: there is no report";
    summary.lead =
        fmt::format("The run {}. This is what was recorded.", why_no_report(facts.dir.running));
  } else if (!facts.dir.pass || failed != 0) {
    summary.look = "fail";
    summary.headline = "FAIL";
    summary.lead = failed == 0        ? "The report marks the whole verification as failed."
                   : runs.size() == 1 ? "The run failed."
                                      : fmt::format("{} of {} runs failed.", failed, runs.size());
  } else {
    summary.lead = largest_error_of(facts);
    doubt(facts, summary);
  }
}

}  // namespace

std::string name_of_run(const Facts& facts, std::size_t index) {
  const verification::RunResult& run = facts.recordings[index].shown();
  const double rate_hz = run.requested_hz > 0 ? run.requested_hz : run.effective_hz;
  return fmt::format("Run {}", index + 1) + (rate_hz > 0 ? " at " + hz_text(rate_hz) : "");
}

Summary summary_of(const Facts& facts) {
  Summary summary;
  bool passed = true;
  for (const RecordingFacts& run : facts.recordings) {
    summary.unjudged += run.judged ? 0U : 1U;
    summary.disagreements += run.differences.size();
    passed = passed && run.judged && run.judged->pass;
  }
  summary.verdicts_differ =
      facts.same_judgement() && summary.unjudged == 0 && passed != facts.dir.pass;
  summary.disagreements += summary.verdicts_differ ? 1U : 0U;
  summary.pass = passed && summary.disagreements == 0;
  judge_whole(facts, summary);
  for (const Group& group : groups_of(facts)) {
    summary.sentences.push_back(sentence_of(facts, group));
  }
  summary.advice = advice_of(facts);
  return summary;
}

}  // namespace orvo::inspection
