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

bool is_one_of(const fs::path& path, const std::vector<fs::path>& inputs) {
  std::error_code error;  // what cannot be looked at is not the same
  for (const fs::path& input : inputs) {
    if (fs::equivalent(path, input, error) && fs::is_regular_file(input, error)) {
      return true;
    }
  }
  return false;
}

}  // namespace

OutputFile::OutputFile(const fs::path& path, const std::vector<fs::path>& inputs)
    : name_(is_standard_output(path) ? "standard output" : fmt::format("{:?}", path.string())) {
  const bool is_standard = is_standard_output(path);
  std::error_code error;  // what cannot be looked at is opened, which says why
  const fs::file_status status = fs::status(is_standard ? "/dev/stdout" : path, error);
  if (fs::is_directory(status)) {
    throw timing::Error(OT_ERR_ARGUMENT, name_ + " is a directory: name a file for the output");
  }
  const bool exists = fs::exists(status);
  const bool is_file = !is_standard && (!exists || fs::is_regular_file(status));
  target_ = is_standard ? "/dev/stdout" : is_file && exists ? fs::canonical(path) : path;
  const fs::path part = target_.string() + ".part";
  if (is_one_of(target_, inputs) || (is_file && is_one_of(part, inputs))) {
    throw timing::Error(OT_ERR_ARGUMENT,
                        name_ + " is an input file: name another one for the output");
  }
  if (is_file) {
    unlink(part.c_str());  // left by one that was killed
  }
  file_ = is_standard ? stdout
          : is_file   ? std::fopen(part.c_str(), "wbxe")
                      : std::fopen(target_.c_str(), "wbe");
  if (file_ == nullptr) {
    fail("cannot create ");
  }
  part_ = is_file ? part : "";
  std::setvbuf(file_, nullptr, _IONBF, 0);  // what is written comes in large pieces
  if (is_file && exists) {
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
