#include "campaigns/tool_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <random>
#include <string_view>
#include <system_error>

namespace orvo::campaigns {
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

/// Between fork and exec: system calls alone.
bool prepare_child(const char* directory, const ToolCall& call, int out, int err, int ledger) {
  const rlimit limit = {call.max_file_bytes, call.max_file_bytes};
  for (const int number : {SIGINT, SIGTERM, SIGPIPE}) {
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
  arguments.insert(arguments.begin(), "ot_verify_overflow_frequency");
  Texts environment = call.environment;
  environment.push_back("ORVO_SIM=" + call.sim + ";ledger=/dev/fd/" +
                        std::to_string(ends[kLedger]));
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (!std::string_view(*variable).starts_with("ORVO_")) environment.emplace_back(*variable);
  }
  const std::vector<char*> argv = pointers(arguments);
  const std::vector<char*> envp = pointers(environment);
  pid_ = fork();
  require(pid_ >= 0, "fork");
  if (pid_ == 0) {
    if (prepare_child(directory.c_str(), call, ends[kOut], ends[kErr], ends[kLedger])) {
      execve(ORVO_TOOL, argv.data(), envp.data());
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
  int status = 0;
  if (pid_ > 0) {
    require(waitpid(pid_, &status, 0) == pid_, "waitpid");
    if (WIFEXITED(status)) exit_status = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) end_signal = WTERMSIG(status);
    pid_ = -1;
  }
  return false;
}

bool ToolProcess::run_for(std::chrono::microseconds time) {
  const Clock::time_point end = Clock::now() + time;
  return run_until([&] { return Clock::now() >= end; });
}

void ToolProcess::signal(int number) const {
  if (pid_ > 0) kill(pid_, number);
}

void ToolProcess::close_output() {
  close(pipes_[kOut]);
  pipes_[kOut] = -1;
}

std::string to_repeat(const ToolCall& call) {
  std::string text;
  for (const std::string& variable : call.environment) text += "'" + variable + "' ";
  text += "ORVO_SIM='" + call.sim + "' ot_verify_overflow_frequency";
  for (const std::string& argument : call.arguments) text += " '" + argument + "'";
  if (call.max_file_bytes != ~std::uint64_t{0}) {
    text += "   # files end at " + std::to_string(call.max_file_bytes) + " bytes";
  }
  return text;
}

int run_campaign(const char* name, std::size_t cases, std::size_t budget,
                 const std::function<std::string(std::size_t)>& attempt) {
  constexpr std::size_t kProcesses = 12;  // most of a run's time is spent waiting
  const Clock::time_point start = Clock::now();
  std::vector<std::size_t> numbers(cases);
  std::iota(numbers.begin(), numbers.end(), std::size_t{0});
  std::shuffle(numbers.begin(), numbers.end(), std::mt19937(1));  // the same sample every time
  if (budget != 0) numbers.resize(std::min(cases, budget));
  for (std::size_t process = 0; process < kProcesses; ++process) {
    const pid_t child = fork();
    require(child >= 0, "fork");
    if (child != 0) continue;
    int failures = 0;
    for (std::size_t i = process; i < numbers.size(); i += kProcesses) {
      const std::string wrong = attempt(numbers[i]);
      if (wrong.empty()) continue;
      ++failures;
      std::fprintf(stderr, "case %zu: %s\n", numbers[i], wrong.c_str());
    }
    std::exit(std::min(failures, 100));
  }
  int failures = 0;
  for (int status = 0; wait(&status) > 0;) failures += WIFEXITED(status) ? WEXITSTATUS(status) : 1;
  const std::chrono::duration<double> time = Clock::now() - start;
  std::printf("%s: %zu of %zu runs in %.1f s, %d wrong\n", name, numbers.size(), cases,
              time.count(), failures);
  return failures == 0 ? 0 : 1;
}

std::size_t budget_from(int argc, char** argv, std::size_t by_default) {
  if (argc < 2) return by_default;
  return std::string_view(argv[1]) == "all" ? 0 : std::strtoull(argv[1], nullptr, 10);
}

}  // namespace orvo::campaigns
