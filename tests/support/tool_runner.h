// Runs the real tool as a process of its own, and looks at what it has left.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace orvo::tests {

using Texts = std::vector<std::string>;

struct ToolCall {
  Texts arguments;
  Texts environment;  ///< "NAME=value", beside the test's own without its ORVO_ variables
  std::string program = "ot_verify_overflow_frequency";  ///< as the tool is told, in argv[0]
};

struct ToolResult {
  int status = -1;  ///< of the exit, or 128 and the signal that ended the tool
  std::string out;
  std::string err;
};

/// Runs the tool in `directory` to its end. Throws std::system_error when that cannot be done.
[[nodiscard]] ToolResult run_tool(const std::filesystem::path& directory, const ToolCall& call);

/// The lines of `text` that begin with `start`.
[[nodiscard]] std::string lines_with(const std::string& text, const std::string& start);

/// The run's directory, as the tool has announced it.
[[nodiscard]] std::filesystem::path run_dir_of(const ToolResult& result);

/// The names in `directory`, sorted, with a space behind each.
[[nodiscard]] std::string names_in(const std::filesystem::path& directory);

}  // namespace orvo::tests
