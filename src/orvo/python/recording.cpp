// Recording and its iterator: a stream file's timestamps as NumPy arrays.
#include <pybind11/numpy.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "orvo/python/calls.h"
#include "orvo/timing/tag_filter.h"
#include "orvo/verification/evaluation.h"

namespace orvo::python {
namespace {

using timing::LockEvent;
using timing::TagFilter;
using timing::TimeTag;

constexpr int kBlockTags = 1 << 14;  // by default: 256 KiB, which stays in a cache

/// The array owns the tags. They lie in it as in memory: see PYBIND11_NUMPY_DTYPE below.
py::array array_of(std::vector<TimeTag>&& tags) {
  auto* const owned = new std::vector<TimeTag>(std::move(tags));
  const py::capsule owner(owned, [](void* p) { delete static_cast<std::vector<TimeTag>*>(p); });
  return py::array_t<TimeTag>(std::ssize(*owned), owned->data(), owner);
}

/// `channel`: None for all, a number, or several.
TagFilter filter_of(const py::object& channel, std::optional<std::int64_t> from_ps,
                    std::optional<std::int64_t> to_ps) {
  TagFilter wanted = {.from_ps = from_ps, .to_ps = to_ps};
  if (!channel.is_none()) {
    unsigned mask = 0;
    const bool several = py::isinstance<py::iterable>(channel);
    for (const py::handle number : several ? channel : py::make_tuple(channel)) {
      mask |= 1U << checked("channel", py::reinterpret_borrow<py::object>(number), 0, 3);
    }
    wanted.channel_mask = static_cast<std::uint8_t>(mask);
  }
  return wanted;
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
  Blocks(std::string path, std::uint64_t max_tags, std::uint64_t chunk_bytes, TagFilter wanted,
         std::shared_ptr<const bool> closed)
      : path_(std::move(path)),
        reader_(open_recording(path_)),
        max_tags_(max_tags),
        chunk_bytes_(chunk_bytes),
        wanted_(wanted),
        closed_(std::move(closed)) {}

  /// At most `max_tags`; none at the end.
  std::vector<TimeTag> read() {
    require_open(*closed_);
    decode(path_, [this] { fill_block(); });
    return std::exchange(block_, {});
  }

  py::array next() {
    if (!reader_.is_open()) {
      throw py::stop_iteration();
    }
    std::vector<TimeTag> block = read();
    if (block.empty()) {
      reader_.close();
      throw py::stop_iteration();
    }
    return array_of(std::move(block));
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
      if (wanted_.takes_all()) {
        block_.insert(block_.end(), next.begin(), next.end());
      } else {
        std::copy_if(next.begin(), next.end(), std::back_inserter(block_), wanted_);
      }
    }
  }

  std::string path_;
  timing::StreamFileReader reader_;
  std::uint64_t max_tags_;
  std::uint64_t chunk_bytes_;
  TagFilter wanted_;
  std::shared_ptr<const bool> closed_;
  std::vector<TimeTag> block_;  // an interrupted call leaves its tags to the next one
};

py::object header_of(const timing::StreamFileHeader& header) {
  using namespace py::literals;
  const auto named = [](const char* type, auto value) {
    return type_named(type)(static_cast<std::int32_t>(value));
  };
  return type_named("Header")(
      "stream_format"_a = named("Format", header.stream_format),
      "mode"_a = named("Mode", header.mode),
      "stream_transport"_a = named("Transport", header.stream_transport),
      "channel_mask"_a = header.channel_mask, "tdl_index"_a = header.tdl_index,
      "delta_bits"_a = header.delta_bits, "quantum_ps"_a = header.quantum_ps,
      "raw64_tag_format"_a = header.raw64_tag_format, "created_utc"_a = header.created_utc,
      "application"_a = header.application, "device_product"_a = header.device_product,
      "device_serial"_a = header.device_serial, "device_port"_a = header.device_port);
}

py::object lock_event_of(const LockEvent& event) {
  using namespace py::literals;
  static_assert(static_cast<int>(LockEvent::Kind::imbalanced) == 9, "LockKind has the same order");
  return type_named("LockEvent")(
      "kind"_a = type_named("LockKind")(static_cast<int>(event.kind)),
      "drops_lock"_a = timing::drops_lock(event.kind),
      "payload_offset_bytes"_a = event.payload_offset_bytes, "tags_before"_a = event.tags_before,
      "drop_bytes"_a = event.drop_bytes, "bit_offset"_a = event.bit_offset,
      "buffer_bytes"_a = event.buffer_bytes, "synced"_a = event.synced, "min"_a = event.min,
      "max"_a = event.max, "total"_a = event.total, "record"_a = event.record,
      "records"_a = event.records, "channel"_a = event.channel,
      "sync_channel"_a = event.sync_channel, "sync_chunks_left"_a = event.sync_chunks_left,
      "delta_ps"_a = event.delta_ps, "next_ps"_a = event.next_ps, "prev_ps"_a = event.prev_ps);
}

class Recording {
 public:
  Recording(const std::filesystem::path& path, const py::object& chunk_bytes)
      : path_(path),
        chunk_bytes_(checked("chunk_bytes", chunk_bytes, 1, kMost)),
        header_(header_of(open_file(path_).header())) {}

  [[nodiscard]] std::filesystem::path path() const { return path_; }
  [[nodiscard]] const py::object& header() const { return header_; }

  [[nodiscard]] Blocks blocks(const py::object& max_tags, const py::object& channel,
                              std::optional<std::int64_t> from_ps,
                              std::optional<std::int64_t> to_ps) const {
    return read(checked("max_tags", max_tags, 1, kMost), filter_of(channel, from_ps, to_ps));
  }

  [[nodiscard]] Blocks all_blocks() const { return read(kBlockTags, {}); }

  [[nodiscard]] py::array tags(const py::object& channel, std::optional<std::int64_t> from_ps,
                               std::optional<std::int64_t> to_ps) const {
    return array_of(read(kMost, filter_of(channel, from_ps, to_ps)).read());
  }

  [[nodiscard]] py::tuple counts() {
    py::tuple counts(verification::kChannels);
    for (std::size_t channel = 0; channel < counts.size(); ++channel) {
      counts[channel] = contents().statistics.channel(channel).count;
    }
    return counts;
  }

  [[nodiscard]] std::optional<std::int64_t> first_ps() { return extreme_ps(false); }
  [[nodiscard]] std::optional<std::int64_t> last_ps() { return extreme_ps(true); }

  [[nodiscard]] py::list lock_events() {
    py::list events;
    for (const LockEvent& event : contents().lock_events) {
      events.append(lock_event_of(event));
    }
    return events;
  }

  void close() { *closed_ = true; }
  void enter() const { require_open(*closed_); }

  [[nodiscard]] py::str repr() const {
    return py::str("<orvo_timing.Recording {!r}>").format(text_of(path_));
  }
  [[nodiscard]] py::tuple settings() const { return py::make_tuple(text_of(path_), chunk_bytes_); }

 private:
  struct Contents {
    verification::TagStatistics statistics;
    std::vector<LockEvent> lock_events;
  };

  [[nodiscard]] Blocks read(std::uint64_t max_tags, const TagFilter& wanted) const {
    require_open(*closed_);
    return {path_, max_tags, chunk_bytes_, wanted, closed_};
  }

  /// Once it is there it stays, whatever other threads do.
  const Contents& contents() {
    if (!contents_) {
      require_open(*closed_);
      timing::StreamFileReader reader = open_recording(path_);
      Contents found;
      reader.on_lock_event = [&found](const LockEvent& e) { found.lock_events.push_back(e); };
      decode(path_, [&] {
        reader.for_each_batch(chunk_bytes_, [&found](auto tags) { found.statistics.add(tags); });
      });
      if (!contents_) {
        contents_ = std::move(found);
      }
    }
    return *contents_;
  }

  std::optional<std::int64_t> extreme_ps(bool largest) {
    std::optional<std::int64_t> found;
    for (std::size_t number = 0; number < verification::kChannels; ++number) {
      const auto& channel = contents().statistics.channel(number);
      if (channel.count != 0) {
        found = largest ? std::max(found.value_or(channel.largest_ps), channel.largest_ps)
                        : std::min(found.value_or(channel.smallest_ps), channel.smallest_ps);
      }
    }
    return found;
  }

  std::string path_;
  std::uint64_t chunk_bytes_;
  py::object header_;
  std::optional<Contents> contents_;                              // null until asked for
  std::shared_ptr<bool> closed_ = std::make_shared<bool>(false);  // seen by its Blocks
};

void define_reading(py::class_<Recording>& recording) {
  recording
      .def("tags", &Recording::tags, py::kw_only(), py::arg("channel") = py::none(),
           py::arg("from_ps").noconvert() = py::none(), py::arg("to_ps").noconvert() = py::none(),
           R"(All timestamps, or those that are wanted, as one array of shape (n,).

channel: the only one that is wanted, 0 to 3, or several: (0, 2). from_ps, to_ps: times that are
wanted, the first one and the first one after them that is not.

dtype: channel (uint8, 0 to 3) and time_ps (int64, picoseconds since the clock's start, continued
where the clock wraps), in decoding order: ascending within a channel apart from steps back of at
most 1 us. Where a packed-delta lock was lost, time goes on from the next sync and wraps before it
are forgotten: times can step back there, by 14.3 s after one wrap. RAW64 times keep the order in
which they were recorded. Takes 16 bytes of memory a timestamp.)")
      .def("blocks", &Recording::blocks, py::arg("max_tags") = kBlockTags, py::kw_only(),
           py::arg("channel") = py::none(), py::arg("from_ps").noconvert() = py::none(),
           py::arg("to_ps").noconvert() = py::none(),
           R"(Iterates over arrays like that of tags(), in memory that does not grow.

max_tags: length of each array, 1 or more; only the last one may be shorter. After an interruption
(Ctrl-C) the iterator goes on where it was.)")
      .def_property_readonly("lock_events", &Recording::lock_events,
                             R"(list[LockEvent]: what happened to the packed-delta lock, in order.

This and the next three decode the whole recording the first time that one of them is asked for.)")
      .def_property_readonly("counts", &Recording::counts, "Timestamps of each channel, four.")
      .def_property_readonly("first_ps", &Recording::first_ps,
                             "The smallest time; None where there is no timestamp.")
      .def_property_readonly("last_ps", &Recording::last_ps, "The largest time, likewise.");
}

}  // namespace

void define_recording(py::module_& module) {
  PYBIND11_NUMPY_DTYPE(TimeTag, channel, time_ps);
  py::class_<Blocks>(module, "Blocks", "Iterator over a recording, from Recording.blocks().")
      .def("__iter__", [](Blocks& blocks) -> Blocks& { return blocks; })
      .def("__next__", &Blocks::next);
  py::class_<Recording> recording(module, "Recording", R"(A stream file (.ortime).

path: str or os.PathLike. chunk_bytes: payload bytes decoded at a time, 1 or more; after a lost lock
decoding goes on with the next chunk, so small chunks save more of a damaged recording.

The header is read at once, timestamps when they are asked for, each time from the front. Iterating
over a recording is iterating over blocks().

It can be pickled: as its path and chunk_bytes.

Raises FormatError where the file is no recording, else Error, which is an OSError, and of its kind:
also a FileNotFoundError, for one. A pipe is refused: a recording is read more than once.)");
  define_reading(recording);
  recording
      .def(py::init<const std::filesystem::path&, const py::object&>(), py::arg("path"),
           py::arg("chunk_bytes") = 1 << 20)
      .def_property_readonly("path", &Recording::path, "pathlib.Path: as it was given.")
      .def_property_readonly("header", &Recording::header,
                             "Header: format, mode and settings of the recording.")
      .def("close", &Recording::close,
           R"(Ends the use of the recording.

Decoding it, going on with an iterator over it, and entering it are then a ValueError. The header
stays, and so do lock events, counts and times that were asked for before.)")
      .def("__iter__", &Recording::all_blocks)
      .def("__enter__",
           [](py::object self) {
             self.cast<const Recording&>().enter();
             return self;
           })
      .def("__exit__", [](Recording& self, const py::args&) { self.close(); })
      .def("__reduce__",
           [](const py::object& self) {
             return py::make_tuple(self.get_type(), self.cast<const Recording&>().settings());
           })
      .def("__repr__", &Recording::repr);
}

}  // namespace orvo::python
