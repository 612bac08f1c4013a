#include "support/tool_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <numeric>
#include <set>
#include <sstream>
#include <string_view>
#include <system_error>

namespace orvo::tests {
namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr std::chrono::seconds kHungAfter{60};

void require(bool success, const char* what) {
  if (!success) throw std::system_error(errno, std::generic_category(), what);
}

std::vector<char*> pointers(Texts& texts) {
  std::vector<char*> result;
  for (std::string& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

Texts environment_of(const ToolCall& call, int ledger) {
  Texts result = call.environment;
  result.push_back("ORVO_SIM=" + call.sim + ";ledger=/dev/fd/" + std::to_string(ledger));
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (!std::string_view(*variable).starts_with("ORVO_")) result.emplace_back(*variable);
  }
  return result;
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

/// Between fork and exec: system calls alone.
bool prepare_child(const char* directory, const ToolCall& call, int out, int err, int ledger) {
  const rlimit limit = {call.max_file_bytes, call.max_file_bytes};
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
    std::signal(number, number == call.ignored_signal ? SIG_IGN : SIG_DFL);
  }
  // Ignored, SIGXFSZ leaves the write with an error, as a full disk does.
  const bool prepared = chdir(directory) == 0 && dup2(out, 1) == 1 && dup2(err, 2) == 2 &&
                        fcntl(ledger, F_SETFD, 0) == 0 &&
                        std::signal(SIGXFSZ, SIG_IGN) != SIG_ERR &&
                        setrlimit(RLIMIT_FSIZE, &limit) == 0;
  for (const char digit : call.closed) close(digit - '0');
  return prepared;
}

}  // namespace

ToolProcess::ToolProcess(const fs::path& directory, const ToolCall& call)
    : held_(call.driver_held) {
  std::array<int, 3> ends;
  for (std::size_t i = 0; i < ends.size(); ++i) {
    int both[2];
    require(pipe2(both, O_CLOEXEC) == 0, "pipe2");
    pipes_[i] = both[0];
    ends[i] = both[1];
  }
  if (held_) {
    const std::string filling(static_cast<std::size_t>(fcntl(ends[kLedger], F_GETPIPE_SZ)), '\n');
    require(write(ends[kLedger], filling.data(), filling.size()) > 0, "write");
  }
  Texts arguments = call.arguments;
  arguments.insert(arguments.begin(), {"ot-simulated", call.program});
  Texts environment = environment_of(call, ends[kLedger]);
  const std::vector<char*> argv = pointers(arguments);
  const std::vector<char*> envp = pointers(environment);
  pid_ = fork();
  require(pid_ >= 0, "fork");
  if (pid_ == 0) {
    if (prepare_child(directory.c_str(), call, ends[kOut], ends[kErr], ends[kLedger])) {
      execve(ORVO_SIMULATED, argv.data(), envp.data());
    }
    _exit(127);
  }
  for (const int end : ends) close(end);
}

ToolProcess::~ToolProcess() {
  if (pid_ > 0) {
    signal(SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  for (const int descriptor : pipes_) {
    if (descriptor >= 0) close(descriptor);
  }
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
    if (count == 0) {
      close(pipes_[i]);
      pipes_[i] = -1;
    }
    open = open || (polled[i].fd >= 0 && count != 0);
  }
  return open;
}

bool ToolProcess::run_until(const std::function<bool()>& condition) {
  const Clock::time_point limit = Clock::now() + kHungAfter;
  do {
    if (condition()) return true;
    if (Clock::now() > limit) {
      hung = true;
      signal(SIGKILL);
    }
  } while (read_pipes());
  if (pid_ > 0) {
    int end = 0;
    require(waitpid(pid_, &end, 0) == pid_, "waitpid");
    status = WIFEXITED(end) ? WEXITSTATUS(end) : 128 + WTERMSIG(end);
    take_driver_line(*this);
    pid_ = -1;
  }
  return false;
}

bool ToolProcess::run_for(std::chrono::microseconds time) {
  const Clock::time_point end = Clock::now() + time;
  return run_until([&] { return Clock::now() >= end; });
}

const ToolResult& ToolProcess::finish() {
  run_until([] { return false; });
  return *this;
}

void ToolProcess::signal(int number) const {
  if (pid_ > 0) kill(pid_, number);
}

void ToolProcess::close_output() {
  close(pipes_[kOut]);
  pipes_[kOut] = -1;
}

std::string lines_with(const std::string& text, const std::string& start) {
  std::istringstream stream(text);
  std::string found;
  for (std::string line; std::getline(stream, line);) {
    if (line.starts_with(start)) found += line + '\n';
  }
  return found;
}

fs::path run_dir_of(const ToolResult& result) {
  const std::string line = lines_with(result.out, "Output: ");
  return line.empty() ? "" : line.substr(8, line.size() - 9);
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
