#include "orvo/inspection/run_directory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "orvo/timing/error.h"

namespace orvo::inspection {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kStampShape = "00000000_000000";  // of a run directory's name

bool is_file(const fs::path& path) {
  std::error_code error;  // what cannot be looked at is not there
  return fs::is_regular_file(path, error);
}

/// What `is_wanted` of a folder, sorted: names count up.
template <typename Wanted>
std::vector<fs::path> entries_of(const fs::path& directory, const Wanted& is_wanted) {
  std::vector<fs::path> found;
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory, error)) {
    if (is_wanted(entry.path())) {
      found.push_back(entry.path());
    }
  }
  std::sort(found.begin(), found.end(), [](const fs::path& a, const fs::path& b) {
    const std::string x = a.string(), y = b.string();  // run 100 has a longer name than run 99
    return x.size() != y.size() ? x.size() < y.size() : x < y;
  });
  return found;
}

std::vector<fs::path> recordings_in(const fs::path& directory) {
  return entries_of(directory,
                    [](const fs::path& path) { return is_recording_name(path) && is_file(path); });
}

bool is_run(const fs::path& directory) {
  return is_file(directory / report_name()) || !recordings_in(directory).empty();
}

/// Whether it is one of a verification, whose name is when it began.
bool is_start(const fs::path& path) {
  const std::string name = path.filename().string();
  std::error_code error;
  return std::equal(
             name.begin(), name.end(), kStampShape.begin(), kStampShape.end(),
             [](char c, char shape) { return shape == '0' ? c >= '0' && c <= '9' : c == shape; }) &&
         fs::is_directory(path, error);
}

/// Whether a start of the tool has locked the folder, which ends with it. Asks for a lock beside
/// others of its kind: two that ask do not find each other.
bool is_held(const fs::path& directory) {
  const int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const bool held =
      descriptor >= 0 && flock(descriptor, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  close(descriptor);
  return held;
}

/// The last of `starts`, whatever became of it: an older run is no answer for it.
fs::path newest_of(const std::vector<fs::path>& starts) {
  const fs::path& newest = starts.back();
  const bool running = is_held(newest);  // the report is its last work: looked for after this
  if (running || !is_file(newest / report_name())) {
    const auto older = std::find_if(starts.rbegin() + 1, starts.rend(), [](const fs::path& start) {
      return is_file(start / report_name());
    });
    throw timing::Error(
        OT_ERR_NOT_FOUND,
        fmt::format("the newest run, {:?}, {}; name its folder to look at it, or an older one's{}",
                    newest.string(), why_no_report(running),
                    older == starts.rend() ? "" : fmt::format(": {:?}", older->string())));
  }
  return newest;
}

/// The run directory that `directory` is, or the newest one in it.
fs::path run_directory_in(const fs::path& directory) {
  if (is_run(directory)) {
    return directory;
  }
  const std::vector<fs::path> starts = entries_of(directory, is_start);
  if (starts.empty()) {
    throw timing::Error(OT_ERR_NOT_FOUND,
                        fmt::format("{:?} holds neither {} nor a recording nor run directories: "
                                    "a run directory is what the verification has printed after "
                                    "\"Output: \"",
                                    directory.string(), report_name()));
  }
  return newest_of(starts);
}

/// Where the recordings are looked for first: beside the report, but for a published copy in the
/// run directory next to it.
fs::path directory_of(const RunDirectory& dir) {
  const fs::path beside = dir.report.parent_path();
  const fs::path run = beside / dir.runs.front().stream_file.parent_path().filename();
  return dir.report.filename() != report_name() && is_run(run) ? run : beside;
}

/// Sets where the recordings are now.
void find_recordings(RunDirectory& dir) {
  std::size_t elsewhere = 0;
  fs::path where;
  for (verification::RunResult& run : dir.runs) {
    const fs::path here = dir.path / run.stream_file.filename();
    if (is_file(here)) {
      run.stream_file = here;
    } else if (is_file(run.stream_file)) {
      ++elsewhere;
      where = run.stream_file.parent_path();
    }
  }
  if (elsewhere != 0) {
    dir.notes.push_back(
        fmt::format("{} of {} recordings are not in {:?}: read where they were recorded, {:?}",
                    elsewhere, dir.runs.size(), dir.path.string(), where.string()));
  }
}

}  // namespace

std::string report_name() { return std::string(verification::kVerificationName) + ".json"; }

bool is_recording_name(const fs::path& path) {
  return path.extension() == verification::kRecordingEnding &&
         path.filename().string().starts_with(std::string(verification::kVerificationName) + '_');
}

bool names_run(const fs::path& path) {
  std::error_code error;  // what cannot be looked at cannot be opened either, which says why
  return path.extension() == ".json" || fs::is_directory(path, error);
}

RunDirectory load_run(const fs::path& path) {
  RunDirectory dir;
  std::error_code error;
  const fs::path named = fs::canonical(path, error);
  if (error) {
    throw timing::Error(OT_ERR_IO,
                        fmt::format("cannot open {:?}: {}", path.string(), error.message()));
  }
  const bool is_directory = fs::is_directory(named, error);
  if (!is_directory && named.extension() == verification::kRecordingEnding) {
    throw timing::Error(OT_ERR_ARGUMENT,
                        fmt::format("{:?} is a recording: name its run", path.string()));
  }
  dir.path = is_directory ? run_directory_in(named) : named.parent_path();
  dir.report = is_directory ? dir.path / report_name() : named;
  if (is_directory && dir.path != named) {
    dir.notes.push_back(fmt::format("newest run: {:?}", dir.path.string()));
  }
  dir.running = is_directory && is_held(dir.path);
  if (is_directory && !is_file(dir.report)) {
    dir.report.clear();
    for (const fs::path& recording : recordings_in(dir.path)) {
      dir.runs.emplace_back().stream_file = recording;
    }
    return dir;
  }
  read_report(dir);
  dir.path = directory_of(dir);
  find_recordings(dir);
  return dir;
}

void require_recording(const RunDirectory& dir, const verification::RunResult& run) {
  if (!is_file(run.stream_file)) {
    throw timing::Error(
        OT_ERR_IO,
        fmt::format(
            "recording {:?} is missing: it is neither in {:?} nor where it was recorded, {:?}",
            run.stream_file.filename().string(), dir.path.string(),
            run.stream_file.parent_path().string()));
  }
}

}  // namespace orvo::inspection
