#include "orvo/inspection/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "orvo/inspection/printable_text.h"
#include "orvo/timing/error.h"

namespace orvo::inspection {
namespace {

/// What a signal removes; changed only while no signal does.
std::array<char, 4096> unfinished_path = {};

void remove_unfinished(int signal) {
  unlink(unfinished_path.data());
  std::signal(signal, SIG_DFL);
  std::raise(signal);  // takes effect when the handler returns
}

/// What the signals that end a program do unless they are ignored.
void on_signals(void (*action)(int)) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
    struct sigaction present = {};
    sigaction(signal, nullptr, &present);
    if (present.sa_handler != SIG_IGN) {
      std::signal(signal, action);
    }
  }
}

/// The descriptor that `path` is a name of, such as 1 for /dev/stdout. Opened anew, what stands
/// behind it would be written from its front, or be replaced.
std::optional<int> descriptor_named(const std::string& path) {
  if (path.empty() || path == "-" || path == "/dev/stdout") {
    return STDOUT_FILENO;
  }
  if (path == "/dev/stderr") {
    return STDERR_FILENO;
  }
  for (const std::string_view folder : {"/dev/fd/", "/proc/self/fd/"}) {
    if (path.starts_with(folder)) {
      int number = 0;
      const char* const end = path.data() + path.size();
      const auto read = std::from_chars(path.data() + folder.size(), end, number);
      if (read.ec == std::errc() && read.ptr == end) {
        return number;
      }
    }
  }
  return std::nullopt;
}

}  // namespace

OutputFile::OutputFile(const std::filesystem::path& path,
                       const std::vector<std::filesystem::path>& inputs) {
  const std::optional<int> open_already = descriptor_named(path);
  const bool standard = open_already == STDOUT_FILENO;
  name_ = standard ? "standard output" : printable(path.string());
  std::error_code error;  // what cannot be looked at is opened, which tells why
  for (const std::filesystem::path& input : inputs) {
    if (std::filesystem::equivalent(standard ? "/dev/stdout" : path, input, error) &&
        std::filesystem::is_regular_file(input, error)) {
      throw timing::Error(OT_ERR_ARGUMENT,
                          name_ + " is an input file: name another one for the output");
    }
  }
  if (open_already) {
    descriptor_ = fcntl(*open_already, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (descriptor_ < 0) {
      fail("cannot open ");
    }
    return;
  }
  const std::filesystem::file_status status = std::filesystem::status(path, error);
  if (std::filesystem::is_directory(status)) {
    throw timing::Error(OT_ERR_ARGUMENT, name_ + " is a directory: name a file for the output");
  }
  const bool exists = std::filesystem::exists(status);
  if (exists && !std::filesystem::is_regular_file(status)) {
    descriptor_ = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (descriptor_ < 0) {
      fail("cannot open ");
    }
    return;
  }
  target_ = exists ? std::filesystem::canonical(path) : path;
  open_temporary();
  const mode_t mask = umask(0);
  umask(mask);
  fchmod(descriptor_, exists ? static_cast<mode_t>(status.permissions()) : 0666 & ~mask);
}

void OutputFile::open_temporary() {
  std::string name = (target_.parent_path() / ".ortime-unfinished-XXXXXX").string();
  descriptor_ = mkostemp(name.data(), O_CLOEXEC);
  if (descriptor_ < 0) {
    fail("cannot create ");
  }
  temporary_ = std::move(name);
  unfinished_path = {};
  temporary_.copy(unfinished_path.data(), unfinished_path.size() - 1);
  on_signals(remove_unfinished);
}

OutputFile::~OutputFile() {
  if (descriptor_ >= 0) {
    close(descriptor_);
  }
  if (!temporary_.empty()) {
    unlink(temporary_.c_str());
    on_signals(SIG_DFL);
  }
}

bool OutputFile::is_terminal() const noexcept { return isatty(descriptor_) == 1; }

void OutputFile::write(std::span<const char> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor_, bytes.data(), bytes.size());
    if (written < 0 && errno != EINTR) {
      fail("cannot write ");
    }
    bytes = bytes.subspan(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
  }
}

void OutputFile::write_front(std::span<const char> bytes) {
  if (pwrite(descriptor_, bytes.data(), bytes.size(), 0) != std::ssize(bytes)) {
    fail("cannot write ");
  }
}

void OutputFile::publish() {
  if (close(std::exchange(descriptor_, -1)) != 0) {
    fail("cannot write ");
  }
  if (!temporary_.empty()) {
    if (std::rename(temporary_.c_str(), target_.c_str()) != 0) {
      fail("cannot create ");
    }
    temporary_.clear();
    on_signals(SIG_DFL);
  }
}

void OutputFile::fail(const char* what) const {
  throw timing::Error(OT_ERR_IO, what + name_ + ": " + std::strerror(errno));
}

}  // namespace orvo::inspection
