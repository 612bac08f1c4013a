// Runs the real programs as a shell does, and looks at what they say and leave.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

namespace orvo::tests {

/// The tool on the simulated instrument, to be followed by its arguments.
inline const std::string kTool = "ot-simulated ot_verify_overflow_frequency ";

struct ToolResult {
  int status = -1;  ///< of the exit, or 128 and the signal that ended it
  std::string out = {};
  std::string err = {};  ///< without the simulated driver's own line
  std::string ledger = {};
};

/// A shell's command, in `directory`, from its construction on and no longer than the test; `sim`
/// is its ORVO_SIM. Throws std::system_error when the system refuses something.
class ToolProcess : public ToolResult {
 public:
  ToolProcess(const std::filesystem::path& directory, const std::string& command,
              const std::string& sim = "");
  ~ToolProcess();
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;

  /// Takes in what it says until `condition` holds (true) or it has ended (false).
  bool run_until(const std::function<bool()>& condition);
  const ToolResult& finish();  ///< runs it to its end

  /// Whether signal `number` is in `set`, such as SigCgt for those that have a handler.
  [[nodiscard]] bool in_signal_set(int number, const std::string& set) const;
  /// Files and folders below `root`; those of the test until the tool runs.
  [[nodiscard]] std::size_t open_files(const std::filesystem::path& root) const;
  /// Returns when the main thread has taken it, because signals of a kind do not queue.
  void signal(int number);
  void close_output() { close_pipe(kOut); }  ///< as a reader of it that goes away

 private:
  enum Pipe : std::size_t { kOut, kErr, kLedger };
  [[nodiscard]] bool read_pipes();
  void close_pipe(std::size_t pipe);

  pid_t tool_ = -1;
  std::array<int, 3> pipes_ = {-1, -1, -1};
};

/// From its start to its end. Again where the machine did not let the tool run, so that a capture's
/// time was over before its stream: what that left behind shows nothing and goes.
[[nodiscard]] ToolResult run_tool(const std::filesystem::path& directory,
                                  const std::string& command, const std::string& sim = "");

/// The lines of `text` that begin with `start`.
[[nodiscard]] std::string lines_with(const std::string& text, const std::string& start);

/// The only directory in `root`; "" if there is none, none that exists if there are more.
[[nodiscard]] std::filesystem::path run_dir_in(const std::filesystem::path& root);

/// The names in `directory`, sorted, with a space after each.
[[nodiscard]] std::string names_in(const std::filesystem::path& directory);

/// The driver calls of a ledger, one letter each: Discover, List freed, Open, Identify, Frequency,
/// Mask, Packed-delta, interface X, Start, Read (a row of them: one), sTop, stop with flag Zero,
/// Close; small for one that failed, "!" for a misuse, "." for the orderly end.
[[nodiscard]] std::string calls_in(const std::string& ledger);

/// What the reads of a ledger's streams brought, and what the recordings in `run_dir` hold.
[[nodiscard]] std::uintmax_t delivered_bytes(const std::string& ledger);
[[nodiscard]] std::uintmax_t recorded_bytes(const std::filesystem::path& run_dir);

}  // namespace orvo::tests
