#include "support/tool_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <set>
#include <sstream>
#include <string_view>
#include <system_error>

#include "support/scratch.h"

namespace orvo::tests {
namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr std::chrono::seconds kHungAfter{60};
constexpr std::chrono::seconds kLongestPoll{1};  // where one takes longer, nothing ran at all

void require(bool success, const char* what) {
  if (!success) throw std::system_error(errno, std::generic_category(), what);
}

/// Takes out of `err` what the driver says once of itself, when an instrument is opened.
void take_driver_line(ToolResult& tool) {
  const std::string line =
      "liborvo_timing.so.0: simulated instrument; results say nothing about a real one\n";
  if (lines_with(tool.ledger, "ot_open").find(" status=0\n") == std::string::npos) return;
  const std::size_t at = tool.err.find(line);
  if (at == std::string::npos) {
    tool.err += "the driver did not say that it is simulated\n";
  } else {
    tool.err.erase(at, line.size());
  }
}

/// Between fork and exec.
bool prepare_child(const fs::path& directory, const ToolCall& call,
                   const std::array<int, 3>& ends) {
  const rlimit limit = {call.max_file_bytes, call.max_file_bytes};
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGXFSZ}) {
    std::signal(number, SIG_DFL);
  }
  for (const char* const name :
       {"ORVO_TIMING_PORT", "ORVO_TIMING_USB_SERIAL", "ORVO_PACKED_DEBUG"}) {
    unsetenv(name);
  }
  setenv("ORVO_SIM", (call.sim + ";ledger=/dev/fd/" + std::to_string(ends[2])).c_str(), 1);
  for (const std::string& variable : call.environment) putenv(strdup(variable.c_str()));
  const bool prepared = chdir(directory.c_str()) == 0 && dup2(ends[0], 1) == 1 &&
                        dup2(ends[1], 2) == 2 && fcntl(ends[2], F_SETFD, 0) == 0 &&
                        setrlimit(RLIMIT_FSIZE, &limit) == 0;
  for (const char digit : call.closed) close(digit - '0');
  return prepared;
}

std::string proc_file(pid_t process) { return "/proc/" + std::to_string(process); }

/// A line of /proc/PID/status without its name.
std::string status_of(pid_t process, const std::string& name) {
  const std::string line = lines_with(read_file(proc_file(process) + "/status"), name);
  return line.empty() ? "" : line.substr(name.size());
}

bool has_signal(const std::string& set, int number) {
  return (std::strtoull(set.c_str(), nullptr, 16) >> (number - 1) & 1) != 0;
}

void print_threads(pid_t process) {
  std::error_code gone;
  for (const auto& task : fs::directory_iterator(proc_file(process) + "/task", gone)) {
    const auto text = [&](const char* name) { return read_file(task.path() / name); };
    std::fprintf(stderr, "%s hangs: %swchan: %s\nsyscall: %s", task.path().c_str(),
                 lines_with(text("status"), "State").c_str(), text("wchan").c_str(),
                 text("syscall").c_str());
  }
}

/// Whether a stream was stopped as complete before a read had said that there is no more of it.
bool is_starved(const std::string& ledger, bool reads_fail) {
  std::istringstream lines(ledger);
  std::string read;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("ot_start")) read.clear();
    if (line.starts_with("ot_read")) read = line;
    const bool ended = read.ends_with(" status=-3") || read.ends_with(" its effect") ||
                       (reads_fail && read.ends_with(" commanded"));
    if (line.find(" stop_flag=1 ") != std::string::npos && !ended) return true;
  }
  return false;
}

}  // namespace

ToolProcess::ToolProcess(const fs::path& directory, const ToolCall& call)
    : sim_(call.sim), held_(call.driver_held) {
  std::array<int, 3> ends;
  for (std::size_t i = 0; i < ends.size(); ++i) {
    int both[2];
    require(pipe2(both, O_CLOEXEC) == 0, "pipe2");
    pipes_[i] = both[0];
    ends[i] = both[1];
    if (call.unread && i != kLedger) close_pipe(i);
  }
  if (held_) {
    const std::string filling(static_cast<std::size_t>(fcntl(ends[kLedger], F_GETPIPE_SZ)), '\n');
    require(write(ends[kLedger], filling.data(), filling.size()) > 0, "write");
  }
  start(directory, call, ends);
  for (const int end : ends) close(end);
}

void ToolProcess::start(const fs::path& directory, const ToolCall& call,
                        const std::array<int, 3>& ends) {
  Texts words = call.arguments;
  words.insert(words.begin(), {ORVO_SIMULATED, call.program});
  child_ = tool_ = call.in_terminal ? forkpty(&terminal_, nullptr, nullptr, nullptr) : fork();
  require(child_ >= 0, "fork");
  if (child_ == 0 && prepare_child(directory, call, ends)) {
    std::vector<char*> argv(words.size() + 1);
    std::transform(words.begin(), words.end(), argv.begin(),
                   [](auto& word) { return word.data(); });
    if (call.in_terminal) {
      execl("/bin/bash", "bash", "--norc", "--noprofile", "--noediting", "-i", nullptr);
    } else {
      execv(argv[0], argv.data());
    }
  }
  if (child_ == 0) _exit(127);
  if (!call.in_terminal) return;
  for (const std::string& word : words) dprintf(terminal_, "'%s' ", word.c_str());
  dprintf(terminal_, "\n");
}

ToolProcess::~ToolProcess() {
  if (child_ > 0) {
    kill_all();
    waitpid(child_, nullptr, 0);
  }
  if (terminal_ >= 0) close(terminal_);
  for (std::size_t i = 0; i < pipes_.size(); ++i) close_pipe(i);
}

void ToolProcess::close_pipe(std::size_t pipe) {
  if (pipes_[pipe] >= 0) close(pipes_[pipe]);
  pipes_[pipe] = -1;
}

void ToolProcess::kill_all() {
  if (terminal_ >= 0) tool_ = tcgetpgrp(terminal_);
  if (hung) print_threads(tool_);
  kill(tool_, SIGKILL);
  kill(child_, SIGKILL);
}

/// One wait of at most a millisecond; false when the tool has closed all pipes.
bool ToolProcess::read_pipes() {
  const std::array<std::string*, 3> texts = {&out, &err, &ledger};
  std::array<pollfd, 3> polled;
  for (std::size_t i = 0; i < 3; ++i) {
    polled[i] = {i == kLedger && held_ ? -1 : pipes_[i], POLLIN, 0};
  }
  poll(polled.data(), polled.size(), 1);
  bool open = false;
  for (std::size_t i = 0; i < 3; ++i) {
    char bytes[65536];
    const ssize_t count = polled[i].revents != 0 ? read(polled[i].fd, bytes, sizeof bytes) : -1;
    if (count > 0) texts[i]->append(bytes, static_cast<std::size_t>(count));
    if (count == 0) close_pipe(i);
    open = open || (polled[i].fd >= 0 && count != 0);
  }
  return open;
}

bool ToolProcess::run_until(const std::function<bool()>& condition) {
  Clock::duration waited{0};
  Clock::time_point last = Clock::now();
  while (!condition()) {
    if (!read_pipes()) {
      if (child_ > 0) {
        int end = 0;
        require(waitpid(child_, &end, 0) == child_, "waitpid");
        status = WIFEXITED(end) ? WEXITSTATUS(end) : 128 + WTERMSIG(end);
        take_driver_line(*this);
        child_ = -1;
      }
      return false;
    }
    const Clock::time_point now = Clock::now();
    waited += std::min<Clock::duration>(now - last, kLongestPoll);
    last = now;
    if (waited > kHungAfter && !hung) {
      hung = true;
      kill_all();
    }
  }
  return true;
}

bool ToolProcess::run_for(std::chrono::microseconds time) {
  const Clock::time_point end = Clock::now() + time;
  return run_until([&] { return Clock::now() >= end; });
}

const ToolResult& ToolProcess::finish() {
  run_until([] { return false; });
  const bool unpaced = sim_.find("pace=") != std::string::npos || sim_.starts_with("replay=");
  if (unpaced && is_starved(ledger, sim_.find(":always") != std::string::npos)) throw Starved();
  return *this;
}

bool ToolProcess::catches(int number) const {
  return has_signal(status_of(tool_, "SigCgt:\t"), number);
}

void ToolProcess::signal(int number) {
  if (child_ < 0) return;
  tgkill(tool_, tool_, number);  // another thread can take it long before it handles it
  run_until([&] { return !has_signal(status_of(tool_, "SigPnd:\t"), number); });
  static_cast<void>(read_pipes());  // all that the driver has seen by then
}

bool ToolProcess::rests() {
  return run_until([&] { return status_of(tool_, "State:\t").starts_with('S'); });
}

void ToolProcess::close_terminal() {
  tool_ = tcgetpgrp(terminal_);
  close(terminal_);
  terminal_ = -1;
}

std::string lines_with(const std::string& text, const std::string& start) {
  std::istringstream stream(text);
  std::string found;
  for (std::string line; std::getline(stream, line);) {
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

}  // namespace orvo::tests
