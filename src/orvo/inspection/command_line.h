// What the words of ortime's command line ask for.
// No state; any thread may call.
#pragma once

#include <variant>

#include "orvo/inspection/info.h"
#include "orvo/inspection/report/report.h"
#include "orvo/inspection/tags.h"
#include "orvo/inspection/verify.h"

namespace orvo::inspection {

/// A command with its options; or the status to end with, when help or the version has been shown
/// on standard output (kExitSuccess) or an error on standard error (kExitUsage).
using Command = std::variant<int, InfoOptions, TagsOptions, VerifyOptions, ReportOptions>;

/// Looks at files only to tell a run directory from a stream file.
[[nodiscard]] Command parse_command_line(int argc, const char* const* argv);

}  // namespace orvo::inspection
