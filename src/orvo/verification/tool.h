// The tool as one function: arguments in, exit status out.
#pragma once

#include <filesystem>

namespace orvo::verification {

/// The folders that differ between a build tree and an installation.
struct ToolFolders {
  /// Absolute; its verification/ holds the settings file that is looked for last.
  std::filesystem::path source_dir;
  /// Of results without an `output_root` setting; from the working directory on if relative.
  std::filesystem::path default_output_root;
};

/// Everything main() does, given its arguments. Every failure becomes a line on standard error and
/// an ExitStatus of sequence.h. Call once, from the main thread.
[[nodiscard]] int run_tool(int argc, char** argv, const ToolFolders& folders);

}  // namespace orvo::verification
