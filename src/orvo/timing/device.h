// One instrument: finding it, opening it, recording its stream.
//
// Threads: a Device belongs to one thread at a time; a capture's writer thread never touches it.
// Errors: Error; that of a driver call starts with the call's name. A capture also throws its
// file's errors, and Interrupted.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "orvo/timing/ot_api.h"
#include "orvo/timing/stream_header.h"

namespace orvo::timing {

namespace detail {
class CaptureQueue;
struct CaptureChunk;
}  // namespace detail

/// The texts by which an instrument names itself, as the library delivered them.
struct Identity {
  std::string id_field_1;  ///< at most 16 bytes, like the next two
  std::string id_field_2;
  std::string id_field_3;
  std::string description;  ///< at most 48 bytes; for people to read

  [[nodiscard]] static Identity from_c(const ot_identity& record);
};

struct DiscoveredDevice {
  std::string port;  ///< what Device::open takes; empty when the library gave none
  Identity identity;
};

/// What the present stream has delivered; cleared whenever a stream starts.
struct StreamState {
  std::uint64_t reads = 0;
  std::uint64_t payload_bytes = 0;
};

/// The driver library's own rate, at which a device is opened with ot_open_serial.
inline constexpr int kLibraryBaud = 3'000'000;

/// Owns one open instrument and closes it exactly once.
class Device {
 public:
  /// All attached instruments in the library's order.
  [[nodiscard]] static std::vector<DiscoveredDevice> discover();

  /// Opens the instrument on `port` at `baud` bits per second.
  [[nodiscard]] static Device open(std::string_view port, int baud);

  /// Opens the first instrument discovered, then takes the fine-time tables from "fine_lut.bin"
  /// in the working directory if that file is there and whole.
  [[nodiscard]] static Device open_first(int baud);

  ~Device();
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  /// Records the raw stream into a new stream file at `path` for `duration` from the stream's
  /// start and returns the payload bytes written. Blocks for `duration`, at most one read's
  /// time-out (20 ms) more, and until the file is written.
  ///
  /// `cal_freq_hz` counts in internal mode only, `packed_bits` and `packed_quantum_ps` in
  /// packed-delta format only. `chunk_bytes` (one read) is raised to 4096, `queue_chunks` (reads
  /// that may wait for the disk) to 2.
  ///
  /// After a failure the stream has been stopped and what was captured before it is in the file;
  /// the device stays usable.
  template <class Rep, class Period>
  std::uint64_t stream_to_file_for(const std::string& path,
                                   std::chrono::duration<Rep, Period> duration, Mode mode,
                                   Format format, std::uint8_t channel_mask, std::uint8_t tdl_index,
                                   double cal_freq_hz, std::uint8_t packed_bits,
                                   std::uint16_t packed_quantum_ps, Transport transport,
                                   std::uint64_t chunk_bytes, std::uint64_t queue_chunks) {
    return capture({path, duration, mode, format, channel_mask, tdl_index, cal_freq_hz, packed_bits,
                    packed_quantum_ps, transport, chunk_bytes, queue_chunks});
  }

  ot_device* handle = nullptr;
  bool owns_handle = false;
  Mode stream_mode = Mode::internal;  ///< of the most recent stream
  /// Fine-time table of each channel, in picoseconds.
  std::array<std::vector<std::int64_t>, 4> fine_lut;
  StreamState stream_state;
  /// Asked before each read of a capture, which is abandoned with Interrupted when it says so.
  bool (*interrupted)() = nullptr;

 private:
  struct CaptureRequest {
    const std::string& path;
    std::chrono::duration<double> duration;
    Mode mode;
    Format format;
    std::uint8_t channel_mask;
    std::uint8_t tdl_index;
    double cal_freq_hz;
    std::uint8_t packed_bits;
    std::uint16_t packed_quantum_ps;
    Transport transport;
    std::uint64_t chunk_bytes;
    std::uint64_t queue_chunks;
  };

  Device();
  enum class FineTableSource { defaults, from_file };
  Device(const std::string& port, int baud, FineTableSource fine_tables);

  std::uint64_t capture(const CaptureRequest& request);
  [[nodiscard]] StreamFileHeader configure_stream(const CaptureRequest& request);
  void start_stream(const CaptureRequest& request);
  void read_stream(const CaptureRequest& request, detail::CaptureQueue& queue,
                   detail::CaptureChunk first);
};

}  // namespace orvo::timing
