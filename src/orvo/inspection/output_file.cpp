#include "orvo/inspection/output_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "orvo/timing/error.h"

namespace orvo::inspection {
namespace {

namespace fs = std::filesystem;

/// By its device's name as well: what a shell appends to is not to be replaced.
bool is_standard_output(const fs::path& path) { return path == "-" || path == "/dev/stdout"; }

/// As open() creates one; mkostemps() is stricter.
mode_t new_file_mode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

/// Where the bytes for `path` go in the end, links followed, also to what does not exist yet.
fs::path target_of(fs::path path) {
  if (is_standard_output(path)) {
    return "/dev/stdout";
  }
  std::error_code error;  // what cannot be looked at is opened, which says why
  if (fs::exists(path, error)) {
    return fs::is_regular_file(path, error) ? fs::canonical(path) : path;
  }
  constexpr int kMostLinks = 40;  // as the system follows
  for (int i = 0; i < kMostLinks && fs::is_symlink(fs::symlink_status(path, error)); ++i) {
    path = path.parent_path() / fs::read_symlink(path, error);
  }
  const fs::path target = fs::weakly_canonical(fs::absolute(path), error);
  return error ? path : target;
}

}  // namespace

bool same_output(const fs::path& a, const fs::path& b) {
  const fs::path first = target_of(a);
  const fs::path second = target_of(b);
  struct stat x = {};
  struct stat y = {};
  return first == second || (stat(first.c_str(), &x) == 0 && stat(second.c_str(), &y) == 0 &&
                             x.st_dev == y.st_dev && x.st_ino == y.st_ino);
}

OutputFile::OutputFile(const fs::path& path, const std::vector<fs::path>& inputs)
    : name_(is_standard_output(path) ? "standard output" : fmt::format("{:?}", path.string())),
      target_(target_of(path)) {
  std::error_code error;  // what cannot be looked at is no file
  for (const fs::path& input : inputs) {
    if (fs::is_regular_file(input, error) && same_output(path, input)) {
      throw timing::Error(OT_ERR_ARGUMENT,
                          name_ + " is an input file: name another one for the output");
    }
  }
  struct stat status = {};
  const bool exists = stat(target_.c_str(), &status) == 0;
  if (is_standard_output(path)) {
    file_ = stdout;
  } else if (exists && !S_ISREG(status.st_mode)) {
    file_ = std::fopen(target_.c_str(), "wbe");
  } else {
    open_part(exists ? status.st_mode : new_file_mode());
  }
  if (file_ == nullptr) {
    fail("cannot create ");
  }
  std::setvbuf(file_, nullptr, _IONBF, 0);  // what is written comes in large pieces
}

void OutputFile::open_part(mode_t mode) {
  std::string part = target_.string() + ".XXXXXX.part";
  const int descriptor = mkostemps(part.data(), sizeof ".part" - 1, O_CLOEXEC);
  if (descriptor >= 0) {
    part_ = part;
    fchmod(descriptor, mode & 07777);
    file_ = fdopen(descriptor, "wb");
  }
}

OutputFile::~OutputFile() {
  if (file_ != nullptr && file_ != stdout) {
    std::fclose(file_);
  }
  if (!part_.empty()) {
    unlink(part_.c_str());
  }
}

bool OutputFile::is_terminal() const noexcept { return isatty(fileno(file_)) == 1; }

void OutputFile::write(std::span<const char> bytes) {
  if (std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size()) {
    fail("cannot write ");
  }
}

void OutputFile::write_front(std::span<const char> bytes) {
  std::rewind(file_);
  write(bytes);
}

void OutputFile::publish() {
  if (file_ == stdout) {
    return;
  }
  if (std::fclose(std::exchange(file_, nullptr)) != 0) {
    fail("cannot write ");
  }
  if (!part_.empty()) {
    if (std::rename(part_.c_str(), target_.c_str()) != 0) {
      fail("cannot create ");
    }
    part_.clear();
  }
}

void OutputFile::fail(const char* what) const {
  throw timing::Error(OT_ERR_IO, what + name_ + ": " + std::strerror(errno));
}

}  // namespace orvo::inspection
