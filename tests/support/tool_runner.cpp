#include "support/tool_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <map>
#include <numeric>
#include <regex>
#include <set>
#include <sstream>
#include <system_error>

#include "support/scratch.h"

namespace orvo::tests {
namespace {

namespace fs = std::filesystem;

void require(bool success, const char* what) {
  if (!success) throw std::system_error(errno, std::generic_category(), what);
}

std::vector<std::string> lines_of(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

}  // namespace

ToolProcess::ToolProcess(const fs::path& directory, const std::string& command,
                         const std::string& sim) {
  std::array<int, 3> ends;
  for (std::size_t i = 0; i < ends.size(); ++i) {
    int both[2];
    require(pipe2(both, O_CLOEXEC) == 0, "pipe2");
    pipes_[i] = both[0];
    ends[i] = both[1];
  }
  tool_ = fork();
  require(tool_ >= 0, "fork");
  if (tool_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (const char* const name :
         {"ORVO_TIMING_PORT", "ORVO_TIMING_USB_SERIAL", "ORVO_PACKED_DEBUG"}) {
      unsetenv(name);
    }
    setenv("ORVO_SIM", ("ledger=/dev/fd/" + std::to_string(ends[2]) + ';' + sim).c_str(), 1);
    setenv("PATH", (ORVO_PROGRAMS ":" + std::string(std::getenv("PATH"))).c_str(), 1);
    if (chdir(directory.c_str()) == 0 && dup2(ends[0], 1) == 1 && dup2(ends[1], 2) == 2 &&
        fcntl(ends[2], F_SETFD, 0) == 0) {
      execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
    }
    _exit(127);
  }
  for (const int end : ends) close(end);
}

ToolProcess::~ToolProcess() {
  if (tool_ > 0) {
    kill(tool_, SIGKILL);
    waitpid(tool_, nullptr, 0);
  }
  for (std::size_t i = 0; i < pipes_.size(); ++i) close_pipe(i);
}

void ToolProcess::close_pipe(std::size_t pipe) {
  if (pipes_[pipe] >= 0) close(pipes_[pipe]);
  pipes_[pipe] = -1;
}

/// One wait of at most a millisecond; false when the tool has closed all pipes.
bool ToolProcess::read_pipes() {
  const std::array<std::string*, 3> texts = {&out, &err, &ledger};
  std::array<pollfd, 3> polled;
  for (std::size_t i = 0; i < 3; ++i) polled[i] = {pipes_[i], POLLIN, 0};
  poll(polled.data(), polled.size(), 1);
  for (std::size_t i = 0; i < 3; ++i) {
    char bytes[65536];
    const ssize_t count = polled[i].revents != 0 ? read(polled[i].fd, bytes, sizeof bytes) : -1;
    if (count > 0) texts[i]->append(bytes, static_cast<std::size_t>(count));
    if (count == 0) close_pipe(i);
  }
  return std::any_of(pipes_.begin(), pipes_.end(), [](int pipe) { return pipe >= 0; });
}

bool ToolProcess::run_until(const std::function<bool()>& condition) {
  while (!condition()) {
    if (read_pipes()) continue;
    if (tool_ > 0) {
      int end = 0;
      require(waitpid(tool_, &end, 0) == tool_, "waitpid");
      status = WIFEXITED(end) ? WEXITSTATUS(end) : 128 + WTERMSIG(end);
      tool_ = -1;
    }
    return false;
  }
  return true;
}

const ToolResult& ToolProcess::finish() {
  run_until([] { return false; });
  const std::string line =
      "liborvo_timing.so.0: simulated instrument; results say nothing about a real one\n";
  if (const std::size_t at = err.find(line); at != std::string::npos) err.erase(at, line.size());
  return *this;
}

std::size_t ToolProcess::open_files(const fs::path& root) const {
  std::size_t count = 0;
  std::error_code ended;
  for (const auto& file : fs::directory_iterator("/proc/" + std::to_string(tool_) + "/fd", ended)) {
    if (fs::read_symlink(file, ended).string().starts_with(root.string())) ++count;
  }
  return count;
}

bool ToolProcess::in_signal_set(int number, const std::string& set) const {
  const std::string file = "/proc/" + std::to_string(tool_) + "/status";
  const std::string line = lines_with(read_file(file), set + ":\t");
  return (std::stoull(line.substr(set.size() + 2), nullptr, 16) >> (number - 1) & 1) != 0;
}

void ToolProcess::signal(int number) {
  if (tool_ < 0) return;
  tgkill(tool_, tool_, number);
  run_until([&] { return !in_signal_set(number, "SigPnd"); });
  static_cast<void>(read_pipes());  // all that the driver has seen by then
}

ToolResult run_tool(const fs::path& directory, const std::string& command, const std::string& sim) {
  // No read said that there is no more of the stream before it was stopped as complete.
  static const std::regex kEarlyStop("ot_(read|start).* status=0\not_stop.* stop_flag=1 ");
  const bool unpaced = sim.find("pace=") != std::string::npos;
  for (int tries = 1;; ++tries) {
    ToolProcess tool(directory, command, sim);
    tool.finish();
    const bool starved = unpaced && std::regex_search(tool.ledger, kEarlyStop);
    if (!starved || tries == 200) return tool;
    const std::string output = lines_with(tool.out, "Output: ").substr(8);
    fs::remove_all(output.substr(0, output.size() - 1));
  }
}

std::string lines_with(const std::string& text, const std::string& start) {
  std::string found;
  for (const std::string& line : lines_of(text)) {
    if (line.starts_with(start)) found += line + '\n';
  }
  return found;
}

fs::path run_dir_in(const fs::path& root) {
  fs::path found;
  for (const auto& entry : fs::directory_iterator(root)) {
    if (entry.is_directory()) found = found.empty() ? entry.path() : root / "several runs";
  }
  return found;
}

std::string names_in(const fs::path& directory) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) {
    names.insert(entry.path().filename().string() + ' ');
  }
  return std::accumulate(names.begin(), names.end(), std::string());
}

std::string calls_in(const std::string& ledger) {
  static const std::map<std::string, char> kLetters = {{"ot_discover", 'D'},
                                                       {"ot_discover_free", 'L'},
                                                       {"ot_open_serial", 'O'},
                                                       {"ot_identify", 'I'},
                                                       {"ot_set_calibration_freq", 'F'},
                                                       {"ot_set_stream_channel_mask", 'M'},
                                                       {"ot_set_packed_delta_config", 'P'},
                                                       {"ot_set_stream_interface", 'X'},
                                                       {"ot_start_stream_mode", 'S'},
                                                       {"ot_read_stream_bytes", 'R'},
                                                       {"ot_stop_stream_mode", 'T'},
                                                       {"ot_close", 'C'},
                                                       {"misuse", '!'},
                                                       {"end", '.'}};
  std::string calls;
  for (const std::string& line : lines_of(ledger)) {
    const auto known = kLetters.find(line.substr(0, line.find(' ')));
    if (known == kLetters.end()) continue;
    const auto has = [&](const char* text) { return line.find(text) != std::string::npos; };
    char letter = has("stop_flag=0") ? 'Z' : known->second;
    const bool fails =
        has(" status=") && !has(" status=0") && !(letter == 'R' && has(" status=-3"));
    if (fails) letter = static_cast<char>(std::tolower(letter));
    if (letter != 'R' || !calls.ends_with('R')) calls += letter;
  }
  return calls;
}

std::uintmax_t delivered_bytes(const std::string& ledger) {
  std::uintmax_t bytes = 0;
  for (const std::string& line : lines_of(lines_with(ledger, "ot_read_stream_bytes"))) {
    const bool taken = line.find(" status=0") != std::string::npos;
    if (taken) bytes += std::stoull(line.substr(line.find(" got=") + 5));
  }
  return bytes;
}

std::uintmax_t recorded_bytes(const fs::path& run_dir) {
  std::uintmax_t bytes = 0;
  std::error_code no_folder;
  for (const auto& entry : fs::directory_iterator(run_dir, no_folder)) {
    const bool is_recording = entry.path().extension() == ".ortime";
    if (is_recording) bytes += payload_of(entry.path()).size();
  }
  return bytes;
}

}  // namespace orvo::tests
