#include "campaigns/traces.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <numeric>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

#include "support/scratch.h"

namespace orvo::campaigns {

namespace fs = std::filesystem;

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

fs::path run_dir_in(const fs::path& root) {
  fs::path found;
  for (const auto& entry : fs::directory_iterator(root)) {
    if (entry.is_directory()) found = found.empty() ? entry.path() : root / "several runs";
  }
  return found;
}

std::string payload(const fs::path& run_dir, std::size_t run) {
  const std::string name = "overflow_frequency_0" + std::to_string(run) + ".ortime";
  const std::string bytes = tests::read_file(run_dir / name);
  if (bytes.size() < 12 || !bytes.starts_with("ORTIME1\n")) return "no recording";
  std::size_t start = 12;
  for (std::size_t i = 0; i < 4; ++i) {
    start += std::size_t{static_cast<unsigned char>(bytes[8 + i])} << (8 * i);
  }
  return start <= bytes.size() ? bytes.substr(start) : "no recording";
}

std::string wrong_recordings(const fs::path& run_dir, const std::string& ledger) {
  const std::vector<std::uint64_t> streams = streamed_bytes(ledger);
  std::size_t files = 0;
  for (const auto& entry : fs::directory_iterator(run_dir)) {
    if (entry.path().extension() == ".ortime") ++files;
  }
  if (files != streams.size()) return std::to_string(files) + " recordings";
  for (std::size_t run = 1; run <= files; ++run) {
    const std::size_t size = payload(run_dir, run).size();
    if (size != streams[run - 1]) {
      return "recording " + std::to_string(run) + " holds " + std::to_string(size) + " bytes of " +
             std::to_string(streams[run - 1]);
    }
  }
  return "";
}

std::string with(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at)) {
    text.replace(at, from.size(), to);
    at += to.size();
  }
  return text;
}

std::string names_in(const fs::path& directory) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) {
    names.push_back(entry.path().filename().string() + ' ');
  }
  std::sort(names.begin(), names.end());
  return std::accumulate(names.begin(), names.end(), std::string());
}

}  // namespace orvo::campaigns
