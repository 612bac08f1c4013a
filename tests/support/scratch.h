// What a test of files needs: a directory of its own, whole files in and out of it, a disk that is
// full, and errors as texts.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "orvo/timing/error.h"

namespace orvo::tests {

/// Made empty, removed with all it holds when destroyed. Its path is absolute and without links.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    static int count = 0;
    path_ = std::filesystem::canonical(std::filesystem::temp_directory_path()) /
            ("orvo_test_" + std::to_string(getpid()) + "_" + std::to_string(count++));
    std::filesystem::create_directories(path_);
  }
  ~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  [[nodiscard]] std::string file(std::string_view name) const { return (path_ / name).string(); }
  [[nodiscard]] const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

/// While one lives, no file grows beyond `bytes`, as on a disk that is full.
struct FileSizeLimit {
  explicit FileSizeLimit(rlim_t bytes) {
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit limit = {bytes, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &before); }

  rlimit before = {};
};

inline void write_file(const std::string& path, std::string_view bytes) {
  std::ofstream file(path, std::ios::binary);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// What follows the header of the stream file at `path`; "no recording" where none is.
inline std::string payload_of(const std::string& path) {
  const std::string bytes = read_file(path);
  const std::size_t end = bytes.find("}}");
  return bytes.starts_with("ORTIME1\n") && end < bytes.size() ? bytes.substr(end + 2)
                                                              : "no recording";
}

/// "message [status]" of the Error that `action` throws, or "no error".
template <typename Action>
std::string error_of(const Action& action) {
  try {
    action();
  } catch (const timing::Error& error) {
    return std::string(error.what()) + " [" + std::to_string(error.status()) + "]";
  }
  return "no error";
}

}  // namespace orvo::tests
