// Where a command's results go: a file that gets its name only when it is whole, or standard output
// or a device or pipe, written as it comes.
//
// Threads: an OutputFile belongs to one thread at a time. Errors: timing::Error with OT_ERR_IO and
// the output's name in its message.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace orvo::inspection {

/// Whether two outputs are one, by whatever names.
[[nodiscard]] bool same_output(const std::filesystem::path& a, const std::filesystem::path& b);

class OutputFile {
 public:
  /// "-" is standard output, as is /dev/stdout. The bytes for a file are written to one of this
  /// start alone beside it, which publish() renames; what is no regular file is written directly.
  /// Refuses to write over one of `inputs`, also by another name or through links.
  OutputFile(const std::filesystem::path& path, const std::vector<std::filesystem::path>& inputs);

  /// Removes what was not published.
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  [[nodiscard]] bool is_terminal() const noexcept;

  void write(std::span<const char> bytes);

  /// Whether the output is a file of its own, whose front can be written again.
  [[nodiscard]] bool can_seek() const noexcept { return !part_.empty(); }
  /// Overwrites the first bytes; only where can_seek().
  void write_front(std::span<const char> bytes);

  /// Closes the file and gives it its name: from then on it is there, and whole.
  void publish();

  [[nodiscard]] const std::string& name() const noexcept { return name_; }

 private:
  void open_part(mode_t mode);
  [[noreturn]] void fail(const char* what) const;

  std::string name_;              // for messages
  std::filesystem::path target_;  // links resolved
  std::filesystem::path part_;    // empty: written directly
  std::FILE* file_ = nullptr;
};

}  // namespace orvo::inspection
