// One instrument: finding it, opening it, recording its stream.
//
// Threads: a Device belongs to one thread at a time; a capture's writer thread never touches it.
// Errors: Error, whose operation() is the driver call that failed. A capture also throws its file's
// errors, and Interrupted.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "orvo/timing/device/ot_api.h"
#include "orvo/timing/error.h"
#include "orvo/timing/stream_header.h"

namespace orvo::timing {

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

/// How far a running capture is.
struct CaptureProgress {
  double elapsed_s = 0;              ///< since the stream started
  std::uint64_t payload_bytes = 0;   ///< read
  std::uint64_t waiting_chunks = 0;  ///< reads that wait for the disk
};

/// What a capture records, how, and where.
struct CaptureRequest {
  std::string path;                        ///< of the stream file; truncated if it exists
  std::chrono::duration<double> duration;  ///< from the start of the stream
  Mode mode = Mode::internal;
  Format format = Format::packed_delta;
  std::uint8_t channel_mask = kAllChannels;
  std::uint8_t tdl_index = 0;
  double cal_freq_hz = 0;  ///< of the calibration source; internal mode only
  std::uint8_t packed_bits =
      kDefaultDeltaBits;  ///< width of one packed delta; packed-delta format only
  std::uint16_t packed_quantum_ps =
      kDefaultQuantumPs;  ///< see StreamFileHeader; packed-delta format only
  Transport transport = Transport::usb;
  std::uint64_t chunk_bytes = 1 << 20;  ///< of one read; raised to 4096
  std::uint64_t queue_chunks = 128;     ///< reads that may wait for the disk; raised to 2
  InterruptionCheck interrupted = {};   ///< asked before each read, and while the queue is full
  /// Called between reads by the calling thread, at most four times a second. May be empty.
  std::function<void(const CaptureProgress&)> progress = {};
};

/// The driver library's own rate, at which a device is opened with ot_open_serial.
inline constexpr int kLibraryBaud = 3'000'000;

/// Owns one open instrument and closes it exactly once.
class Device {
 public:
  /// All attached instruments, in the library's order.
  [[nodiscard]] static std::vector<DiscoveredDevice> discover();

  /// Opens the instrument on `port` at `baud` bits per second.
  [[nodiscard]] static Device open(std::string_view port, int baud);

  /// Opens the first instrument discovered, then takes the fine-time tables from "fine_lut.bin"
  /// in the working directory if that file is there and whole.
  [[nodiscard]] static Device open_first(int baud);

  ~Device();
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  [[nodiscard]] Identity identify();

  /// Programs the calibration source as near as possible to `freq_hz` and returns the divider that
  /// the instrument chose.
  std::uint32_t set_calibration_freq(double freq_hz);

  /// Records the raw stream into a new stream file and returns the payload bytes written. Blocks
  /// for `duration`, which is checked between reads: a read that waits for data (20 ms) or for
  /// room in the queue delays the end, and the file is then written to its end.
  ///
  /// After a failure the stream has been stopped if it was started, and the file holds what was
  /// queued before, unless it was the file that failed. The device stays open.
  std::uint64_t capture(const CaptureRequest& request);

  /// capture() for a caller with its settings as a row of arguments.
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
  std::array<std::vector<std::int64_t>, kChannels> fine_lut;
  StreamState stream_state;

 private:
  Device();
  enum class FineTableSource { defaults, from_file };
  Device(const std::string& port, int baud, FineTableSource fine_tables);

  [[nodiscard]] StreamFileHeader configure_stream(const CaptureRequest& request);
  void start_stream(const CaptureRequest& request);
};

}  // namespace orvo::timing
