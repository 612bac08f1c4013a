// orvo_timing._native: recordings as NumPy arrays, over orvo::stream, and what ortime knows of
// them. What users import, and read about, is orvo_timing/__init__.py; values and errors are
// Python's own, of orvo_timing/_types.py.
//
// Threads: every function is called with the interpreter's lock held and releases it while it reads
// and decodes. A Blocks belongs to one thread at a time.
#include <fcntl.h>
#include <pybind11/pybind11.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

#include "orvo/python/calls.h"
#include "orvo/timing/stream_decoder.h"

namespace orvo::python {
namespace {

[[noreturn]] void raise(const py::object& error) {
  PyErr_SetObject(error.get_type().ptr(), error.ptr());
  throw py::error_already_set();
}

/// Raises an error of the system's kind unless `path` can be opened, and read more than once.
void require_readable(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  char byte = 0;
  const bool readable = descriptor >= 0 && pread(descriptor, &byte, 1, 0) >= 0;
  const int error = errno;
  if (descriptor >= 0) {
    close(descriptor);
  }
  if (!readable) {
    raise(type_named("os_error")(error, text_of(path)));
  }
}

/// The layer's errors as Python's, with a status.
void define_errors(py::module_& module) {
  module.attr("STATUS_IO") = ot_status{OT_ERR_IO};
  module.attr("STATUS_FORMAT") = ot_status{OT_ERR_FORMAT};
  py::register_exception_translator([](std::exception_ptr thrown) {
    try {
      std::rethrow_exception(std::move(thrown));
    } catch (const timing::Error& failure) {
      const bool foreign = failure.status() == OT_ERR_FORMAT ||
                           dynamic_cast<const NoRecording*>(&failure) != nullptr;
      const py::object error =
          type_named(foreign ? "FormatError" : "Error")(text_of(failure.what()));
      error.attr("status") = failure.status();
      PyErr_SetObject(error.get_type().ptr(), error.ptr());
    }
  });
}

}  // namespace

std::uint64_t checked(const char* name, const py::object& value, std::uint64_t least,
                      std::uint64_t most) {
  const auto integer = py::reinterpret_steal<py::object>(PyNumber_Index(value.ptr()));
  if (!integer) {
    PyErr_Clear();
    throw py::type_error(std::string(name) + " must be an integer");
  }
  const auto number = PyLong_AsUnsignedLongLong(integer.ptr());
  if (PyErr_Occurred() != nullptr || number < least || number > most) {
    PyErr_Clear();
    throw py::value_error(std::string(name) + " must be " + std::to_string(least) + " to " +
                          std::to_string(most));
  }
  return number;
}

bool interrupted() {
  const py::gil_scoped_acquire lock;
  return PyErr_CheckSignals() != 0;
}

py::object type_named(const char* name) {
  return py::module_::import("orvo_timing._types").attr(name);
}

py::str text_of(const std::string& path) {
  return py::reinterpret_steal<py::str>(PyUnicode_DecodeFSDefault(path.c_str()));
}

timing::StreamFileReader open_file(const std::string& path) {
  require_readable(path);
  timing::StreamFileReader reader;
  try {
    reader.open(path);
  } catch (const timing::Error& error) {
    throw NoRecording(error.status(), path, error.reason());
  }
  reader.interrupted = interrupted;
  return reader;
}

timing::StreamFileReader open_recording(const std::string& path) {
  timing::StreamFileReader reader = open_file(path);
  if (!timing::StreamDecoder::decodes(reader.header())) {
    throw NoRecording(OT_ERR_FORMAT, path, "the header describes records that cannot be decoded");
  }
  return reader;
}

}  // namespace orvo::python

PYBIND11_MODULE(_native, module) {
  using namespace orvo::python;
  module.attr("__version__") = ORVO_VERSION;
  define_errors(module);
  define_recording(module);
  define_facts(module);
}
