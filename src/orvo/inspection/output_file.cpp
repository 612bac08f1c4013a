#include "orvo/inspection/output_file.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "orvo/timing/error.h"

namespace orvo::inspection {
namespace {

namespace fs = std::filesystem;

/// By its device's name as well: what a shell appends to is not to be replaced.
bool is_standard_output(const fs::path& path) { return path == "-" || path == "/dev/stdout"; }

}  // namespace

OutputFile::OutputFile(const fs::path& path, const std::vector<fs::path>& inputs)
    : name_(is_standard_output(path) ? "standard output" : fmt::format("{:?}", path.string())) {
  const bool is_standard = is_standard_output(path);
  std::error_code error;  // what cannot be looked at is opened, which says why
  const fs::file_status status = fs::status(path, error);
  const bool replaces = fs::is_regular_file(status) && !is_standard;
  target_ = is_standard ? "/dev/stdout" : replaces ? fs::canonical(path) : path;
  if (!is_standard && (replaces || !fs::exists(status))) {
    part_ = target_.string() + ".part";
  }
  for (const fs::path& input : inputs) {
    if (fs::is_regular_file(input, error) &&
        (fs::equivalent(target_, input, error) || fs::equivalent(part_, input, error))) {
      throw timing::Error(OT_ERR_ARGUMENT,
                          name_ + " is an input file: name another one for the output");
    }
  }
  if (!part_.empty()) {
    unlink(part_.c_str());  // left by one that was killed
  }
  file_ = is_standard     ? stdout
          : part_.empty() ? std::fopen(target_.c_str(), "wbe")
                          : std::fopen(part_.c_str(), "wbxe");
  if (file_ == nullptr) {
    fail("cannot create ");
  }
  std::setvbuf(file_, nullptr, _IONBF, 0);  // what is written comes in large pieces
  if (replaces) {
    fchmod(fileno(file_), static_cast<mode_t>(status.permissions()));
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
