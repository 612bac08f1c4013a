// The real tool as a child process in the hands of a campaign.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace orvo::campaigns {

using Texts = std::vector<std::string>;

struct ToolCall {
  Texts arguments = {};
  std::string sim = {};      ///< ORVO_SIM; the ledger is added, and comes through a pipe
  Texts environment = {};    ///< "NAME=value", beside the campaign's own without its ORVO_ ones
  std::string closed = {};   ///< digits of the standard descriptors that are closed at the start
  bool driver_held = false;  ///< the first driver call waits in its ledger for release_driver()
  int ignored_signal = 0;    ///< ignored by whoever starts the tool
  std::uint64_t max_file_bytes = ~std::uint64_t{0};  ///< a write beyond fails, as on a full disk
};

/// What a person types to see a call again.
[[nodiscard]] std::string to_repeat(const ToolCall& call);

/// Runs from its construction on. One that lasts a minute is ended and counts as hung.
class ToolProcess {
 public:
  ToolProcess(const std::filesystem::path& directory, const ToolCall& call);
  ~ToolProcess();
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;

  /// Takes in what the tool says until `condition` holds (true) or the tool has ended (false).
  bool run_until(const std::function<bool()>& condition);
  bool run_for(std::chrono::microseconds time);
  void finish() {
    run_until([] { return false; });
  }

  void signal(int number) const;
  void close_output();  ///< as a reader of its standard output that goes away
  void release_driver() { held_ = false; }

  std::string out;
  std::string err;
  std::string ledger;
  int exit_status = -1;  ///< -1 for a tool that was ended by a signal
  int end_signal = 0;
  bool hung = false;

 private:
  enum Pipe : std::size_t { kOut, kErr, kLedger };
  [[nodiscard]] bool read_pipes();

  pid_t pid_ = -1;
  std::array<int, 3> pipes_ = {-1, -1, -1};
  bool held_;
};

/// A campaign: `attempt(i)` for `budget` of the numbers below `cases` (0: all of them) on several
/// processes; it returns what was wrong, or "". Prints that and a summary; returns main's status.
[[nodiscard]] int run_campaign(const char* name, std::size_t cases, std::size_t budget,
                               const std::function<std::string(std::size_t)>& attempt);

/// The budget from main's arguments: "all", or a number of runs.
[[nodiscard]] std::size_t budget_from(int argc, char** argv, std::size_t by_default);

}  // namespace orvo::campaigns
