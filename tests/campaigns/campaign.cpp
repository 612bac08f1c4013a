#include "campaigns/campaign.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <random>
#include <regex>
#include <sstream>
#include <string_view>
#include <utility>

#include "support/scratch.h"

namespace orvo::tests {

int run_campaign(const char* name, std::size_t cases, const Budget& budget,
                 const std::function<std::string(std::size_t)>& attempt) {
  constexpr std::size_t kProcesses = 12;  // most of a run's time is spent waiting
  const std::string word = budget.argc > 1 ? budget.argv[1] : std::to_string(budget.by_default);
  const std::size_t wanted = word == "all" ? 0 : std::strtoull(word.c_str(), nullptr, 10);
  std::vector<std::size_t> numbers(cases);
  std::iota(numbers.begin(), numbers.end(), std::size_t{0});
  std::shuffle(numbers.begin() + static_cast<std::ptrdiff_t>(budget.always), numbers.end(),
               std::mt19937(1));  // the same sample every time
  if (wanted != 0) numbers.resize(std::min(cases, wanted));
  int failures = 0;
  for (std::size_t process = 0; process < kProcesses; ++process) {
    const pid_t child = fork();
    if (child < 0) ++failures;
    if (child != 0) continue;
    for (std::size_t i = process; i < numbers.size(); i += kProcesses) {
      std::string wrong;
      try {
        wrong = undisturbed([&] { return attempt(numbers[i]); });
      } catch (const std::exception& error) {
        wrong = error.what();
      }
      if (wrong.empty()) continue;
      ++failures;
      std::fprintf(stderr, "case %zu: %s\n", numbers[i], wrong.c_str());
    }
    std::exit(std::min(failures, 100));
  }
  for (int status = 0; wait(&status) > 0;) failures += WIFEXITED(status) ? WEXITSTATUS(status) : 1;
  std::printf("%s: %zu of %zu runs, %d wrong\n", name, numbers.size(), cases, failures);
  return failures == 0 ? 0 : 1;
}

std::string report(const std::string& wrong, const ToolCall& call) {
  if (wrong.empty()) return "";
  std::string text = wrong + ": ";
  for (const std::string& variable : call.environment) text += "'" + variable + "' ";
  text += "ORVO_SIM='" + call.sim + "' ot_verify_overflow_frequency";
  for (const std::string& argument : call.arguments) text += " '" + argument + "'";
  if (call.max_file_bytes != ~std::uint64_t{0}) {
    text += "   # files end at " + std::to_string(call.max_file_bytes) + " bytes";
  }
  return text;
}

std::string calls_in(const std::string& ledger) {
  constexpr std::pair<std::string_view, char> kLetters[] = {
      {"ot_discover ", 'D'},  {"ot_discover_free", 'L'}, {"ot_open", 'O'},
      {"ot_identify", 'I'},   {"ot_set_cal", 'F'},       {"ot_set_stream_ch", 'M'},
      {"ot_set_packed", 'P'}, {"ot_set_stream_i", 'X'},  {"ot_start", 'S'},
      {"ot_read", 'R'},       {"ot_stop", 'T'},          {"ot_close", 'C'},
      {"misuse", '!'},        {"end misuses=0", '.'},
  };
  std::string calls;
  std::istringstream lines(ledger);
  for (std::string line; std::getline(lines, line);) {
    const auto* const found =
        std::find_if(std::begin(kLetters), std::end(kLetters),
                     [&](const auto& letter) { return line.starts_with(letter.first); });
    if (found == std::end(kLetters)) continue;
    char letter = line.find("stop_flag=0") != std::string::npos ? 'Z' : found->second;
    const bool passes = line.find(" status=0") != std::string::npos ||
                        (letter == 'R' && line.find(" status=-3") != std::string::npos);
    if (line.find(" status=") != std::string::npos && !passes) {
      letter = static_cast<char>(std::tolower(letter));
    }
    if (letter != 'R' || !calls.ends_with('R')) calls += letter;
  }
  return calls;
}

std::string wrong_calls(const std::string& ledger, const std::string& protocol) {
  const std::string calls = calls_in(ledger);
  return std::regex_match(calls, std::regex(protocol)) ? "" : "calls " + calls;
}

std::vector<std::uint64_t> streamed_bytes(const std::string& ledger) {
  std::vector<std::uint64_t> bytes;
  std::istringstream lines(ledger);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("ot_start")) bytes.push_back(0);
    const std::size_t got = line.find(" got=");
    if (got == std::string::npos || line.find(" status=0") == std::string::npos) continue;
    bytes.back() += std::strtoull(line.c_str() + got + 5, nullptr, 10);
  }
  return bytes;
}

std::string recording(const std::filesystem::path& run_dir, std::size_t run) {
  return run_dir / ("overflow_frequency_0" + std::to_string(run) + ".ortime");
}

std::string wrong_recordings(const std::filesystem::path& run_dir, const std::string& ledger) {
  const std::vector<std::uint64_t> streams = streamed_bytes(ledger);
  for (std::size_t run = 1; run <= streams.size(); ++run) {
    const std::size_t size = payload_of(recording(run_dir, run)).size();
    if (size != streams[run - 1]) {
      return "recording " + std::to_string(run) + " holds " + std::to_string(size) + " bytes of " +
             std::to_string(streams[run - 1]);
    }
  }
  const bool more = std::filesystem::exists(recording(run_dir, streams.size() + 1));
  return more ? "more recordings than streams" : "";
}

std::string with(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at)) {
    text.replace(at, from.size(), to);
    at += to.size();
  }
  return text;
}

}  // namespace orvo::tests
