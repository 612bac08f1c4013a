// Where a command's results go: a file that appears only when it is whole, or whatever else a name
// or standard output stands for, written as it comes.
//
// Threads: an OutputFile belongs to one thread at a time; one that is being made at a time in a
// process. Errors: timing::Error with OT_ERR_IO and the output's name in its message.
#pragma once

#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace orvo::inspection {

class OutputFile {
 public:
  /// An empty `path` and "-" are standard output. That, what else is open already ("/dev/fd/3"),
  /// and what is no regular file, such as a pipe, is written directly; else the bytes go into a
  /// file of another name beside `path`, which publish() renames. Refuses to write over one of
  /// `inputs`, also by another name or through links.
  OutputFile(const std::filesystem::path& path, const std::vector<std::filesystem::path>& inputs);

  /// Removes what was not published. SIGINT, SIGTERM, SIGHUP and SIGPIPE remove it too.
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  [[nodiscard]] bool is_terminal() const noexcept;

  void write(std::span<const char> bytes);

  /// Whether the output is a file of its own, whose front can be written again.
  [[nodiscard]] bool can_seek() const noexcept { return !temporary_.empty(); }
  /// Overwrites the first bytes; only where can_seek().
  void write_front(std::span<const char> bytes);

  /// Closes the file and gives it its name: from then on it is there, and whole.
  void publish();

  [[nodiscard]] const std::string& name() const noexcept { return name_; }

 private:
  void open_temporary();
  [[noreturn]] void fail(const char* what) const;

  std::string name_;              // for messages
  std::filesystem::path target_;  // links resolved
  std::string temporary_;         // empty: written directly
  int descriptor_ = -1;
};

}  // namespace orvo::inspection
