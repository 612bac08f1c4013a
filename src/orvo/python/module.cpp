// orvo_timing._native: recordings as NumPy arrays, over orvo::stream and orvo::evaluation. What
// users import, and read about, is orvo_timing/__init__.py.
//
// Threads: every function is called with the interpreter's lock held and releases it while it reads
// and decodes. A Blocks belongs to one thread at a time.
#include <fcntl.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "orvo/python/calls.h"
#include "orvo/timing/stream_decoder.h"
#include "orvo/timing/stream_files.h"
#include "orvo/verification/evaluation.h"

namespace orvo::python {
namespace {

using timing::LockEvent;
using timing::TimeTag;

constexpr int kBlockTags = 1 << 14;  // by default: 256 KiB, which stays in a cache

/// The array owns the tags. They lie in it as in memory: see PYBIND11_NUMPY_DTYPE below.
py::array array_of(std::vector<TimeTag>&& tags) {
  auto* const owned = new std::vector<TimeTag>(std::move(tags));
  const py::capsule owner(owned, [](void* p) { delete static_cast<std::vector<TimeTag>*>(p); });
  return py::array_t<TimeTag>(std::ssize(*owned), owned->data(), owner);
}

/// Opens `path` as Python does, so that what is missing or forbidden is an OSError of its own kind.
void require_readable(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    PyErr_SetFromErrnoWithFilename(PyExc_OSError, path.c_str());
    throw py::error_already_set();
  }
  close(descriptor);
}

timing::StreamFileReader open_recording(const std::string& path) {
  require_readable(path);
  timing::StreamFileReader reader;
  reader.open(path);
  reader.interrupted = interrupted;
  if (!timing::StreamDecoder::decodes(reader.header())) {
    throw timing::Error(OT_ERR_FORMAT, "the header describes records that cannot be decoded");
  }
  return reader;
}

void require_open(bool closed) {
  if (closed) {
    throw py::value_error("the recording is closed");
  }
}

/// One reading of a recording, from its front.
class Blocks {
 public:
  /// `closed`: of the recording; looked at with the interpreter's lock.
  Blocks(const std::string& path, std::uint64_t max_tags, std::uint64_t chunk_bytes,
         std::shared_ptr<const bool> closed)
      : reader_(open_recording(path)),
        max_tags_(max_tags),
        chunk_bytes_(chunk_bytes),
        closed_(std::move(closed)) {}

  py::array next() {
    if (!reader_.is_open()) {
      throw py::stop_iteration();
    }
    require_open(*closed_);
    without_lock([this] { fill_block(); });
    if (block_.empty()) {
      reader_.close();
      throw py::stop_iteration();
    }
    return array_of(std::exchange(block_, {}));
  }

 private:
  void fill_block() {
    constexpr std::uint64_t kReservedTags = 1 << 20;
    block_.reserve(std::min(max_tags_, kReservedTags));
    while (block_.size() < max_tags_) {
      const auto next = reader_.next_tags(max_tags_ - block_.size(), chunk_bytes_);
      if (next.empty()) {
        break;
      }
      block_.insert(block_.end(), next.begin(), next.end());
    }
  }

  timing::StreamFileReader reader_;
  std::uint64_t max_tags_;
  std::uint64_t chunk_bytes_;
  std::shared_ptr<const bool> closed_;
  std::vector<TimeTag> block_;  // an interrupted call leaves its tags to the next one
};

class Recording {
 public:
  Recording(const std::filesystem::path& path, const py::object& chunk_bytes)
      : path_(path), chunk_bytes_(checked("chunk_bytes", chunk_bytes, 1, kMost)) {
    require_readable(path_);
    timing::StreamFileReader reader;
    reader.open(path_);
    header_ = reader.header();
  }

  [[nodiscard]] std::filesystem::path path() const { return path_; }
  [[nodiscard]] const timing::StreamFileHeader& header() const { return header_; }

  [[nodiscard]] Blocks blocks(const py::object& max_tags) const {
    return {opened_path(), checked("max_tags", max_tags, 1, kMost), chunk_bytes_, closed_};
  }

  [[nodiscard]] py::array tags() const {
    timing::StreamFileReader reader = open_recording(opened_path());
    return array_of(without_lock([&] {
      std::vector<TimeTag> tags;
      reader.for_each_batch(chunk_bytes_, [&tags](auto batch) {
        tags.insert(tags.end(), batch.begin(), batch.end());
      });
      return tags;
    }));
  }

  const std::vector<LockEvent>& lock_events() {
    if (!lock_events_) {
      timing::StreamFileReader reader = open_recording(opened_path());
      lock_events_ = without_lock([&] {
        std::vector<LockEvent> events;
        reader.on_lock_event = [&events](const LockEvent& event) { events.push_back(event); };
        reader.for_each_batch(chunk_bytes_, [](auto) {});
        return events;
      });
    }
    return *lock_events_;
  }

  void close() { *closed_ = true; }
  void enter() const { require_open(*closed_); }

  [[nodiscard]] std::string repr() const {
    return "<orvo_timing.Recording " + py::repr(py::str(path_)).cast<std::string>() + ">";
  }

 private:
  [[nodiscard]] const std::string& opened_path() const {
    require_open(*closed_);
    return path_;
  }

  std::string path_;
  std::uint64_t chunk_bytes_;
  timing::StreamFileHeader header_;
  std::optional<std::vector<LockEvent>> lock_events_;             // null until asked for
  std::shared_ptr<bool> closed_ = std::make_shared<bool>(false);  // seen by its Blocks
};

py::dict judge(const std::filesystem::path& path, const py::object& divider,
               const py::object& channel_mask, double tolerance_ppm,
               const py::object& min_tags_per_channel, const py::object& chunk_bytes) {
  using namespace py::literals;
  if (!(tolerance_ppm >= 0)) {
    throw py::value_error("tolerance_ppm must be 0 or more");
  }
  const auto bytes = checked("chunk_bytes", chunk_bytes, 1, kMost);
  timing::StreamFileReader reader = open_recording(path);
  verification::EvaluationSettings settings = verification::settings_of(reader.header());
  settings.tolerance_ppm = tolerance_ppm;
  settings.min_tags_per_channel = checked("min_tags_per_channel", min_tags_per_channel, 0, kMost);
  if (!channel_mask.is_none()) {
    settings.channel_mask =
        static_cast<std::uint8_t>(checked("channel_mask", channel_mask, 0, UINT8_MAX));
  }
  const auto rates = verification::derive_rates(
      static_cast<std::uint32_t>(checked("divider", divider, 1, UINT32_MAX)), settings);
  const verification::RunResult result = without_lock([&] {
    verification::TagStatistics statistics;
    reader.for_each_batch(bytes, [&statistics](auto tags) { statistics.add(tags); });
    return verification::judge(statistics, rates, settings);
  });
  py::list channels;
  for (const verification::ChannelResult& channel : result.channels) {
    channels.append(py::dict("count"_a = channel.count, "first_ps"_a = channel.first_ps,
                             "last_ps"_a = channel.last_ps, "measured_hz"_a = channel.measured_hz,
                             "ppm_error"_a = channel.ppm_error, "passed"_a = channel.pass));
  }
  return py::dict("passed"_a = result.pass, "divider"_a = result.divider,
                  "effective_hz"_a = result.effective_hz,
                  "expected_decoded_hz"_a = result.expected_decoded_hz,
                  "overflow_required"_a = result.overflow_required,
                  "decoded_tags"_a = result.decoded_tags, "channels"_a = channels);
}

void define_header(py::module_& module) {
  using Header = timing::StreamFileHeader;
  py::enum_<timing::Format>(module, "Format",
                            "Record format of a payload: RAW64, DELTA32 or PACKED_DELTA.")
      .value("RAW64", timing::Format::raw64)
      .value("DELTA32", timing::Format::delta32)
      .value("PACKED_DELTA", timing::Format::packed_delta);
  py::enum_<timing::Mode>(module, "Mode",
                          "Source of the events: INTERNAL, which is calibration, or EXTERNAL.")
      .value("INTERNAL", timing::Mode::internal)
      .value("EXTERNAL", timing::Mode::external);
  py::enum_<timing::Transport>(module, "Transport",
                               "How the bytes came to the host: UART, USB or USB_ASYNC.")
      .value("UART", timing::Transport::uart)
      .value("USB", timing::Transport::usb)
      .value("USB_ASYNC", timing::Transport::usb_async);
  py::class_<Header>(module, "Header", "What a recording says about its payload. Read only.")
      .def_readonly("stream_format", &Header::stream_format, "Format")
      .def_readonly("mode", &Header::mode, "Mode")
      .def_readonly("stream_transport", &Header::stream_transport, "Transport")
      .def_readonly("channel_mask", &Header::channel_mask, "bit c for channel c, 0 to 3")
      .def_readonly("tdl_index", &Header::tdl_index, "0 to 255")
      .def_readonly("delta_bits", &Header::delta_bits, "width of one packed delta, in bits")
      .def_readonly("quantum_ps", &Header::quantum_ps,
                    "packed-delta ticks, in ps: the largest power of two in it")
      .def_readonly("raw64_tag_format", &Header::raw64_tag_format, "'ps' or 'raw_cf'")
      .def_readonly("created_utc", &Header::created_utc, "time of the capture, ISO 8601")
      .def_readonly("application", &Header::application, "program that recorded")
      .def_readonly("device_product", &Header::device_product, "as the instrument says")
      .def_readonly("device_serial", &Header::device_serial, "as the instrument says")
      .def_readonly("device_port", &Header::device_port, "where it was attached");
}

void define_lock_events(py::module_& module) {
  using Kind = LockEvent::Kind;
  py::enum_<Kind>(module, "LockKind", R"(What happened to the lock.

LOCKED: taken. NO_ALIGNMENT, REJECTED_ALIGNMENT: not found. The others: dropped, because the records
show damage.)")
      .value("LOCKED", Kind::locked)
      .value("NO_ALIGNMENT", Kind::no_alignment)
      .value("REJECTED_ALIGNMENT", Kind::rejected_alignment)
      .value("INACTIVE_CHANNEL", Kind::inactive_channel)
      .value("OVERFLOW_IN_SYNC", Kind::overflow_in_sync)
      .value("SYNC_CHANNEL_MISMATCH", Kind::sync_channel_mismatch)
      .value("NONMONOTONIC_SYNC", Kind::nonmonotonic_sync)
      .value("IMPLAUSIBLE_SYNC_DELTA", Kind::implausible_sync_delta)
      .value("IMPLAUSIBLE_DELTA", Kind::implausible_delta)
      .value("IMBALANCED", Kind::imbalanced);
  py::class_<LockEvent>(module, "LockEvent", R"(One thing that happened to a packed-delta lock.

Fields that do not belong to the kind are 0. Read only.)")
      .def_readonly("kind", &LockEvent::kind, "LockKind")
      .def_property_readonly(
          "drops_lock", [](const LockEvent& event) { return timing::drops_lock(event.kind); },
          "whether the event ended a lock")
      .def_readonly("payload_offset_bytes", &LockEvent::payload_offset_bytes,
                    "payload consumed when it happened")
      .def_readonly("tags_before", &LockEvent::tags_before, "timestamps decoded before it")
      .def_readonly("drop_bytes", &LockEvent::drop_bytes, "bytes skipped or given up")
      .def_readonly("bit_offset", &LockEvent::bit_offset, "of the alignment, 0 to 7")
      .def_readonly("buffer_bytes", &LockEvent::buffer_bytes, "bytes that were searched or wait")
      .def_readonly("synced", &LockEvent::synced, "channels that a rejected alignment syncs")
      .def_readonly("min", &LockEvent::min, "records or timestamps of the least active channel")
      .def_readonly("max", &LockEvent::max, "of the most active channel")
      .def_readonly("total", &LockEvent::total, "of all active channels")
      .def_readonly("record", &LockEvent::record, "the one at fault, from 0 in its batch")
      .def_readonly("records", &LockEvent::records, "of the whole batch")
      .def_readonly("channel", &LockEvent::channel, "of the record at fault")
      .def_readonly("sync_channel", &LockEvent::sync_channel, "the channel that was expected")
      .def_readonly("sync_chunks_left", &LockEvent::sync_chunks_left, "missing from the sync")
      .def_readonly("delta_ps", &LockEvent::delta_ps, "the step, in ps")
      .def_readonly("next_ps", &LockEvent::next_ps, "the event's time, in ps")
      .def_readonly("prev_ps", &LockEvent::prev_ps, "the channel's last time, in ps")
      .def("__repr__", [](const LockEvent& event) {
        return "<orvo_timing.LockEvent " +
               py::str(py::cast(event.kind).attr("name")).cast<std::string>() +
               " at payload byte " + std::to_string(event.payload_offset_bytes) + ">";
      });
}

void define_recording(py::module_& module) {
  py::class_<Blocks>(module, "Blocks", "Iterator over a recording, from Recording.blocks().")
      .def("__iter__", [](Blocks& blocks) -> Blocks& { return blocks; })
      .def("__next__", &Blocks::next);
  py::class_<Recording>(module, "Recording", R"(A stream file (.ortime).

path: str or os.PathLike. chunk_bytes: payload bytes decoded at a time, 1 or more; after a lost lock
decoding goes on with the next chunk, so small chunks save more of a damaged recording.

The header is read at once, timestamps when they are asked for, each time from the front. Iterating
over a recording is iterating over blocks().

Raises FileNotFoundError or another OSError where the file cannot be opened, FormatError where it is
no recording, Error where it cannot be read.)")
      .def(py::init<const std::filesystem::path&, const py::object&>(), py::arg("path"),
           py::arg("chunk_bytes") = 1 << 20)
      .def_property_readonly("path", &Recording::path, "pathlib.Path: as it was given.")
      .def_property_readonly("header", &Recording::header, py::return_value_policy::copy,
                             "Header: format, mode and settings of the recording.")
      .def("tags", &Recording::tags, R"(All timestamps as one array of shape (n,).

dtype: channel (uint8, 0 to 3) and time_ps (int64, picoseconds since the clock's start, continued
where the clock wraps), in decoding order: ascending within a channel apart from steps back of at
most 1 us. Where a packed-delta lock was lost, time goes on from the next sync and wraps before it
are forgotten: times can step back there, by 14.3 s after one wrap. RAW64 times keep the order in
which they were recorded. Takes 16 bytes of memory a timestamp.)")
      .def("blocks", &Recording::blocks, py::arg("max_tags") = kBlockTags,
           R"(Iterates over arrays like that of tags(), in memory that does not grow.

max_tags: length of each array, 1 or more; only the last one may be shorter. After an interruption
(Ctrl-C) the iterator goes on where it was.)")
      .def_property_readonly("lock_events", &Recording::lock_events,
                             R"(list[LockEvent]: what happened to the packed-delta lock, in order.

Decodes the whole recording the first time.)")
      .def("close", &Recording::close,
           R"(Ends the use of the recording.

Decoding it, going on with an iterator over it, and entering it are then a ValueError. Header and
lock events that were read before stay.)")
      .def("__iter__",
           [](const Recording& recording) { return recording.blocks(py::int_(kBlockTags)); })
      .def("__enter__",
           [](py::object self) {
             self.cast<const Recording&>().enter();
             return self;
           })
      .def("__exit__", [](Recording& recording, const py::args&) { recording.close(); })
      .def("__repr__", &Recording::repr);
}

/// The layer's errors as Python's: FormatError for OT_ERR_FORMAT, else Error, both with a status.
void define_errors(py::module_& module) {
  static PyObject* const error = PyErr_NewExceptionWithDoc(
      "orvo_timing.Error", "A failed operation. status: the layer's number for it.", nullptr,
      nullptr);
  static PyObject* const format_error = PyErr_NewExceptionWithDoc(
      "orvo_timing.FormatError",
      "The file is no recording, or holds no records that can be decoded.",
      py::make_tuple(py::handle(error), py::handle(PyExc_ValueError)).ptr(), nullptr);
  py::setattr(error, "status", py::int_(ot_status{OT_ERR_IO}));
  py::setattr(format_error, "status", py::int_(ot_status{OT_ERR_FORMAT}));
  module.add_object("Error", error);
  module.add_object("FormatError", format_error);
  py::register_exception_translator([](std::exception_ptr thrown) {
    try {
      std::rethrow_exception(std::move(thrown));
    } catch (const timing::Error& failure) {
      const py::handle type = failure.status() == OT_ERR_FORMAT ? format_error : error;
      const py::object instance = type(failure.what());
      instance.attr("status") = failure.status();
      PyErr_SetObject(type.ptr(), instance.ptr());
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

}  // namespace orvo::python

PYBIND11_MODULE(_native, module) {
  using namespace orvo::python;
  py::options options;
  options.disable_enum_members_docstring();  // which help() would not show
  PYBIND11_NUMPY_DTYPE(TimeTag, channel, time_ps);
  module.attr("__version__") = ORVO_VERSION;
  define_errors(module);
  define_header(module);
  define_lock_events(module);
  define_recording(module);
  define_facts(module);
  module.def("judge", judge, py::arg("path"), py::arg("divider"), py::arg("channel_mask"),
             py::arg("tolerance_ppm"), py::arg("min_tags_per_channel"), py::arg("chunk_bytes"));
}
