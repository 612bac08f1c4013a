// The commands of ortime: what its command line can ask for, and what each ends with.
// Threads: none of their own. Errors: timing::Error, std::filesystem::filesystem_error.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "orvo/inspection/facts.h"
#include "orvo/timing/tag_filter.h"

namespace orvo::inspection {

// Exit statuses; 0 and 2 mean what they mean for the tool that records.
inline constexpr int kExitSuccess = 0;
inline constexpr int kExitError = 1;               ///< a line on standard error says what failed
inline constexpr int kExitVerificationFailed = 2;  ///< all was judged, and something failed
inline constexpr int kExitDisagreement = 3;        ///< recordings and report disagree
inline constexpr int kExitUsage = 64;              ///< the command line cannot be understood

// In all of them, a run is what load_run() takes, "-" is standard input or output, and
// `chunk_bytes` are read at a time, on which the locks of a packed-delta stream depend.

struct InfoOptions {
  std::vector<std::filesystem::path> paths;  ///< stream files, or runs for their recordings
  bool json = false;                         ///< one document instead of text
  std::uint64_t chunk_bytes = 1 << 20;
};

enum class TagFormat { csv, npy };

struct TagsOptions {
  std::filesystem::path path;          ///< a stream file, "-", or a run
  std::uint64_t run = 0;               ///< which recording of a run, from 1 on; 0: the only one
  std::filesystem::path output = "-";  ///< as OutputFile takes it
  TagFormat format = TagFormat::csv;
  timing::TagFilter wanted;
  std::uint64_t chunk_bytes = 1 << 20;
};

struct VerifyOptions {
  std::filesystem::path path;  ///< a stream file, "-", or a run

  // For a stream file exactly one of the two; none for a run, whose report has them. Greater than
  // 0; the frequency stands for the nearest divider.
  std::optional<std::uint32_t> divider = std::nullopt;  ///< of the calibration source
  std::optional<double> requested_hz = std::nullopt;

  GivenSettings given;
  bool json = false;  ///< one document instead of text
  std::uint64_t chunk_bytes = 1 << 20;
};

struct ReportOptions {
  std::filesystem::path path;    ///< a run
  std::filesystem::path output;  ///< the page; empty: none
  std::filesystem::path json;    ///< its numbers, likewise
  std::string title;             ///< on the page; may be empty
  GivenSettings given;           ///< those of the run that its report rounds or does not hold
  std::uint64_t chunk_bytes = 1 << 20;
};

/// Prints what stream files hold. A file that cannot be read is named on standard error, and the
/// next one follows; the status is then kExitError.
[[nodiscard]] int run(const InfoOptions& options);

/// Writes the timestamps of a stream file in decoding order.
[[nodiscard]] int run(const TagsOptions& options);

/// Judges recordings again and prints the verdict, last: pass=true means that everything was
/// judged, passed, and is what the report has, and goes with kExitSuccess. Else kExitError where a
/// recording could not be judged, else kExitDisagreement, else kExitVerificationFailed.
[[nodiscard]] int run(const VerifyOptions& options);

/// Writes one self-contained page, its numbers as JSON, or both, whatever the verdict. kExitError
/// where a recording could not be read, which standard error and the page say.
[[nodiscard]] int run(const ReportOptions& options);

/// To standard error, unless it is empty.
void say(const std::string& words);

/// load_run(), which says what is to be known.
[[nodiscard]] RunDirectory opened(const std::filesystem::path& path);

/// What a command line asks for; or the status to end with, when help or the version has been shown
/// on standard output (kExitSuccess) or an error on standard error (kExitUsage).
using Command = std::variant<int, InfoOptions, TagsOptions, VerifyOptions, ReportOptions>;

/// Looks at files only to tell a run from a stream file, and one output from another.
[[nodiscard]] Command parse_command_line(int argc, const char* const* argv);

}  // namespace orvo::inspection
