// The tool as one function: arguments in, exit status out.
#pragma once

namespace orvo::verification {

/// Everything main() does, given its arguments. Every failure becomes a line on standard error and
/// a status of exit_status.h. Call once, from the main thread.
[[nodiscard]] int run_tool(int argc, char** argv);

}  // namespace orvo::verification
