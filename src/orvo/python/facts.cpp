// What ortime knows of runs, for Python: its document as objects whose attributes are its members.
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "orvo/inspection/document.h"
#include "orvo/python/calls.h"

namespace orvo::python {
namespace {

namespace fs = std::filesystem;
using inspection::Depth;
using inspection::Facts;
using inspection::Json;

/// Where a member's name ends in a word of the language, it is called otherwise.
py::str attribute_of(const std::string& name) {
  return name == "pass" || name == "reported_pass" ? name + "ed" : name;
}

/// `namespace_type` holds the members of an object;
py::object object_of(const Json& value, const py::object& namespace_type) {
  if (value.is_object()) {
    py::dict members;
    for (const auto& [name, member] : value.items()) {
      members[attribute_of(name)] = object_of(member, namespace_type);
    }
    return namespace_type(**members);
  }
  if (value.is_array()) {
    py::list elements;
    for (const Json& element : value) {
      elements.append(object_of(element, namespace_type));
    }
    return py::tuple(elements);
  }
  if (value.is_string()) {  // of any encoding, as file names
    const auto& text = value.get_ref<const std::string&>();
    return py::reinterpret_steal<py::object>(PyUnicode_DecodeUTF8(
        text.data(), static_cast<py::ssize_t>(text.size()), "surrogateescape"));
  }
  return value.is_boolean()           ? py::object(py::bool_(value.get<bool>()))
         : value.is_number_unsigned() ? py::object(py::int_(value.get<std::uint64_t>()))
         : value.is_number_integer()  ? py::object(py::int_(value.get<std::int64_t>()))
         : value.is_number()          ? py::object(py::float_(value.get<double>()))
                                      : py::none();
}

/// Ends what is being done with it, from any thread, at the next chunk.
class StopFlag {
 public:
  void set() { set_ = true; }
  [[nodiscard]] bool is_set() const { return set_; }

 private:
  std::atomic<bool> set_ = false;
};

/// As interrupted(), for threads that see no signal.
bool stopped(const StopFlag& stop) {
  if (stop.is_set()) {
    const py::gil_scoped_acquire lock;
    PyErr_SetNone(PyExc_KeyboardInterrupt);
  }
  return stop.is_set();
}

/// Where the recording of a run is in its own folder, whatever the report says.
fs::path place_of(const verification::RunResult& run, const inspection::RunDirectory& dir) {
  return dir.path / run.stream_file.filename();
}

/// Of the run at `path`: whether it is being written; what is said where its verdict as reported is
/// not the one of its recordings as reported; and where they are, or should be, in its folder.
py::tuple outline(const fs::path& path) {
  const auto dir = without_lock([&] { return inspection::load_run(path); });
  bool pass = true;
  py::list files;
  for (const verification::RunResult& run : dir.runs) {
    pass = pass && run.pass;
    files.append(
        py::reinterpret_steal<py::object>(PyUnicode_DecodeFSDefault(place_of(run, dir).c_str())));
  }
  const bool contradicts = dir.ended() && dir.pass != pass;
  return py::make_tuple(dir.running,
                        contradicts ? inspection::verdict_difference(dir.pass).text() : "", files);
}

/// The document about the run at `path`, whose recordings are looked into so deep; with a `number`
/// the part about that recording, which is read in the run's folder alone.
Json document_about(const fs::path& path, const inspection::GivenSettings& given,
                    const inspection::RecordingOptions& options,
                    std::optional<std::size_t> number = std::nullopt) {
  Facts facts = inspection::facts_about(inspection::load_run(path), given);
  std::vector<verification::RunResult> runs = facts.dir.runs;
  if (!number) {
    return inspection::document_of(facts, runs, options);
  }
  if (*number >= runs.size()) {
    throw timing::Error(OT_ERR_NOT_FOUND, "the run has fewer recordings than it had");
  }
  verification::RunResult run = runs[*number];
  run.stream_file = place_of(run, facts.dir);
  const Json document = inspection::document_of(facts, {run}, options);
  Json part = document["recordings"].front();
  part["settings"] = document["settings"];
  return part;
}

py::object load(const fs::path& path, const py::object& namespace_type) {
  return object_of(document_about(path, {}, {.depth = Depth::header}), namespace_type);
}

inspection::GivenSettings given_settings(std::optional<double> tolerance_ppm,
                                         const py::object& min_tags_per_channel,
                                         const py::object& channel_mask) {
  inspection::GivenSettings given = {.tolerance_ppm = tolerance_ppm};
  if (tolerance_ppm && !(*tolerance_ppm >= 0)) {
    throw py::value_error("tolerance_ppm must be 0 or more");
  }
  if (!min_tags_per_channel.is_none()) {
    given.min_tags_per_channel = checked("min_tags_per_channel", min_tags_per_channel, 0, kMost);
  }
  if (!channel_mask.is_none()) {
    given.channel_mask =
        static_cast<std::uint8_t>(checked("channel_mask", channel_mask, 0, UINT8_MAX));
  }
  return given;
}

inspection::RecordingOptions counts_of(const py::object& chunk_bytes,
                                       timing::InterruptionCheck interrupted) {
  return {.depth = Depth::counts,
          .chunk_bytes = checked("chunk_bytes", chunk_bytes, 1, kMost),
          .interrupted = std::move(interrupted),
          .shows_progress = false};
}

/// What the document has as judged of a stream file.
py::object judge(const fs::path& path, const py::object& divider,
                 std::optional<double> tolerance_ppm, const py::object& min_tags_per_channel,
                 const py::object& channel_mask, const py::object& chunk_bytes,
                 const py::object& namespace_type) {
  const auto options = counts_of(chunk_bytes, interrupted);
  Facts facts = inspection::facts_about(
      {}, given_settings(tolerance_ppm, min_tags_per_channel, channel_mask));
  verification::RunResult run;
  run.divider = static_cast<std::uint32_t>(checked("divider", divider, 1, UINT32_MAX));
  run.stream_file = path;
  (void)open_recording(path);
  const Json document =
      without_lock([&] { return inspection::document_of(facts, {run}, options); });
  if (const std::string& error = facts.recordings.front().error; !error.empty()) {
    throw timing::Error(OT_ERR_IO, error);
  }
  return object_of(document["recordings"].front()["judged"], namespace_type);
}

/// The document about a run, or with a `recording` the part about that one.
py::object verify(const fs::path& path, std::optional<double> tolerance_ppm,
                  const py::object& min_tags_per_channel, const py::object& channel_mask,
                  const py::object& chunk_bytes, const py::object& namespace_type,
                  std::optional<std::size_t> recording, const std::shared_ptr<StopFlag>& stop) {
  const auto given = given_settings(tolerance_ppm, min_tags_per_channel, channel_mask);
  const auto options =
      counts_of(chunk_bytes, [&] { return stop ? stopped(*stop) : interrupted(); });
  const Json document =
      without_lock([&] { return document_about(path, given, options, recording); });
  return object_of(document, namespace_type);
}

}  // namespace

void define_facts(py::module_& module) {
  py::class_<StopFlag, std::shared_ptr<StopFlag>>(module, "StopFlag")
      .def(py::init<>())
      .def("set", &StopFlag::set)
      .def("is_set", &StopFlag::is_set);
  module.attr("REPORT_NAME") = inspection::report_name();
  module.attr("NO_REPORT") = inspection::why_no_report(false);
  module.def("is_recording_name", inspection::is_recording_name, py::arg("name"));
  module.def("outline", outline, py::arg("path"));
  module.def("load_run", load, py::arg("path"), py::arg("namespace_type"));
  module.def("judge", judge, py::arg("path"), py::arg("divider"), py::arg("tolerance_ppm"),
             py::arg("min_tags_per_channel"), py::arg("channel_mask"), py::arg("chunk_bytes"),
             py::arg("namespace_type"));
  module.def("verify", verify, py::arg("path"), py::arg("tolerance_ppm"),
             py::arg("min_tags_per_channel"), py::arg("channel_mask"), py::arg("chunk_bytes"),
             py::arg("namespace_type"), py::arg("recording") = py::none(),
             py::arg("stop") = std::shared_ptr<StopFlag>());
}

}  // namespace orvo::python
