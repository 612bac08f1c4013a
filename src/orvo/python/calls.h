// What functions that Python calls have in common: arguments, files, errors, Ctrl-C and the
// interpreter's lock.
// Threads: each is called with that lock held.
#pragma once

#include <pybind11/pybind11.h>

#include <cstdint>
#include <string>

#include "orvo/timing/stream_files.h"

namespace orvo::python {

namespace py = pybind11;

inline constexpr std::uint64_t kMost = INT64_MAX;  // of what is counted

/// `value` of the argument `name`; throws TypeError unless it is an integer, NumPy's included, and
/// ValueError unless it lies between the limits.
[[nodiscard]] std::uint64_t checked(const char* name, const py::object& value, std::uint64_t least,
                                    std::uint64_t most);

/// What orvo_timing/_types.py has under this name.
[[nodiscard]] py::object type_named(const char* name);

/// As Python has paths, of any bytes.
[[nodiscard]] py::str text_of(const std::string& path);

/// Ctrl-C, noticed in the main thread.
[[nodiscard]] bool interrupted();

/// `work()` without the lock.
template <typename Work>
auto without_lock(const Work& work) {
  try {
    const py::gil_scoped_release released;
    return work();
  } catch (const timing::Interrupted&) {
    throw py::error_already_set();  // of interrupted()
  }
}

/// The same, of the recording at `path`, which its failure names.
template <typename Work>
auto decode(const std::string& path, const Work& work) {
  try {
    return without_lock(work);
  } catch (const timing::Error& error) {
    throw timing::Error(error.status(), path, error.reason());
  }
}

/// The file is no recording, whatever the status.
struct NoRecording : timing::Error {
  using Error::Error;
};

/// Raises an error of the system's kind unless `path` can be opened and read more than once; throws
/// NoRecording.
[[nodiscard]] timing::StreamFileReader open_file(const std::string& path);

/// The same, also unless its records can be decoded.
[[nodiscard]] timing::StreamFileReader open_recording(const std::string& path);

/// Adds what is known of runs to the module.
void define_facts(py::module_& module);

/// Adds Recording and its iterator to the module.
void define_recording(py::module_& module);

}  // namespace orvo::python
