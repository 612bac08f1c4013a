// Runs the real tool as a process of its own, and looks at what it says and leaves.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace orvo::tests {

using Texts = std::vector<std::string>;

struct ToolCall {
  Texts arguments = {};
  Texts environment = {};    ///< "NAME=value", besides the test's own without its ORVO_ variables
  std::string sim = {};      ///< ORVO_SIM; the ledger is added, and comes through a pipe
  std::string closed = {};   ///< digits of the standard descriptors that are closed at the start
  bool unread = false;       ///< standard output and error are pipes that nobody reads
  bool driver_held = false;  ///< the first driver call waits in its ledger for release_driver()
  bool in_terminal = false;  ///< a command typed into an interactive shell
  std::uint64_t max_file_bytes = ~std::uint64_t{0};      ///< a write beyond fails: a full disk
  std::string program = "ot_verify_overflow_frequency";  ///< run by ot-simulated
};

struct ToolResult {
  int status = -1;  ///< of the tool's exit or its shell's, or 128 and the signal that ended it
  std::string out = {};
  std::string err = {};  ///< without the simulated driver's own line
  std::string ledger = {};
  bool hung = false;
};

/// A capture's time was over before its stream, because the machine did not let the tool run: what
/// it left behind shows nothing.
struct Starved : std::runtime_error {
  Starved() : runtime_error("every capture ends before its stream") {}
};

/// attempt(), again where it meets Starved.
template <typename Attempt>
auto undisturbed(const Attempt& attempt) {
  for (int tries = 1; tries < 200; ++tries) {
    try {
      return attempt();
    } catch (const Starved&) {
    }
  }
  return attempt();
}

/// Runs from its construction on, in `directory`. After a minute of waiting in one member function
/// it is ended and counts as hung; standard error then says what its threads were at. Throws
/// std::system_error when the system refuses something.
class ToolProcess : public ToolResult {
 public:
  ToolProcess(const std::filesystem::path& directory, const ToolCall& call);
  ~ToolProcess();
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;

  /// Takes in what the tool says until `condition` holds (true) or the tool has ended (false).
  bool run_until(const std::function<bool()>& condition);
  bool run_for(std::chrono::microseconds time);
  const ToolResult& finish();  ///< runs it to its end; throws Starved

  [[nodiscard]] bool catches(int number) const;  ///< whether the signal has a handler
  /// To the main thread. Returns when that has taken it, because signals of a kind do not queue.
  void signal(int number);
  bool rests();  ///< runs it until it sleeps (true) or has ended (false)
  void close_output() { close_pipe(kOut); }  ///< as a reader of it that goes away
  void close_terminal();                     ///< while the tool runs
  void release_driver() { held_ = false; }

 private:
  enum Pipe : std::size_t { kOut, kErr, kLedger };
  void start(const std::filesystem::path& directory, const ToolCall& call,
             const std::array<int, 3>& ends);
  [[nodiscard]] bool read_pipes();
  void close_pipe(std::size_t pipe);
  void kill_all();

  pid_t child_ = -1;  // the tool, or the shell
  pid_t tool_ = -1;
  std::array<int, 3> pipes_ = {-1, -1, -1};
  int terminal_ = -1;
  std::string sim_;
  bool held_;
};

/// From its start to its end; throws Starved.
[[nodiscard]] inline ToolResult run_tool(const std::filesystem::path& directory,
                                         const ToolCall& call) {
  return ToolProcess(directory, call).finish();
}

/// The lines of `text` that begin with `start`.
[[nodiscard]] std::string lines_with(const std::string& text, const std::string& start);

/// The only directory in `root`; "" if there is none, none that exists if there are more.
[[nodiscard]] std::filesystem::path run_dir_in(const std::filesystem::path& root);

/// The names in `directory`, sorted, with a space after each.
[[nodiscard]] std::string names_in(const std::filesystem::path& directory);

}  // namespace orvo::tests
