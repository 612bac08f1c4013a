// What functions that Python calls have in common: arguments, Ctrl-C and the interpreter's lock.
// Threads: each is called with that lock held.
#pragma once

#include <pybind11/pybind11.h>

#include <cstdint>
#include <string>

#include "orvo/timing/error.h"

namespace orvo::python {

namespace py = pybind11;

inline constexpr std::uint64_t kMost = INT64_MAX;  // of what is counted

/// `value` of the argument `name`; throws TypeError unless it is an integer, NumPy's included, and
/// ValueError unless it lies between the limits.
[[nodiscard]] std::uint64_t checked(const char* name, const py::object& value, std::uint64_t least,
                                    std::uint64_t most);

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

/// Adds what is known of runs to the module.
void define_facts(py::module_& module);

}  // namespace orvo::python
