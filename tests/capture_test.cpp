// Timed capture against a scripted driver: calls, file and error of every way it can go.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <limits>

#include "orvo/timing/capture_queue.h"
#include "orvo/timing/device.h"
#include "orvo/timing/error.h"
#include "orvo/timing/stream_header.h"
#include "support/error_of.h"
#include "support/scratch.h"
#include "support/scripted_driver.h"

namespace orvo::tests {
namespace {

using timing::Device;
using timing::Error;
using timing::Format;
using timing::Mode;
using timing::StreamFileHeader;
using timing::Transport;

using Seconds = std::chrono::duration<double>;
using Calls = std::vector<std::string>;

constexpr Seconds kUntilFailure = std::chrono::hours(1);
constexpr std::size_t kMebibyte = 1 << 20;

const Calls kSetUp = {"ot_set_stream_channel_mask 0xff",
                      "ot_set_packed_delta_config 12 4 preset 16 8", "ot_set_stream_interface 1 2",
                      "ot_set_calibration_freq 1000 preset 0", "ot_start_stream_mode 0 3"};
const std::string kRead = "ot_read_stream_bytes 4096 20 preset 0";

class Capture : public testing::Test {
 protected:
  Capture() { driver.calls.clear(); }

  std::uint64_t run(Seconds duration) {
    return device.stream_to_file_for(path, duration, mode, format, 0xFF, 3, 1000, 12, 4,
                                     Transport::usb, chunk_bytes, queue_chunks);
  }

  std::string error(Seconds duration = kUntilFailure) {
    return error_of([&] { run(duration); });
  }

  [[nodiscard]] std::string text() const {
    const std::string file = read_file(path);
    return file.substr(12, text_end(file) - 12);
  }
  [[nodiscard]] std::string payload() const {
    const std::string file = read_file(path);
    return file.substr(text_end(file));
  }

  ScratchDirectory scratch;
  ScriptedDriver driver;
  Device device = Device::open("p", 9600);
  std::string path = scratch.file("capture.ortime");
  Mode mode = Mode::internal;
  Format format = Format::packed_delta;
  std::uint64_t chunk_bytes = 0;
  std::uint64_t queue_chunks = 0;

 private:
  static std::size_t text_end(const std::string& file) { return file.find("}}") + 2; }
};

/// `first` and then `more`.
Calls sequence(Calls first, const Calls& more) {
  first.insert(first.end(), more.begin(), more.end());
  return first;
}

TEST_F(Capture, NoTimeStartsAndStopsTheStreamWithoutARead) {
  for (const double seconds : {0.0, -1.0, std::numeric_limits<double>::quiet_NaN()}) {
    driver.calls.clear();
    driver.reads = {{OT_OK, "unread"}};
    EXPECT_EQ(run(Seconds(seconds)), 0u);
    EXPECT_EQ(driver.calls, sequence(kSetUp, {"ot_stop_stream_mode 1"}));
    EXPECT_EQ(payload(), "");
  }
}

TEST_F(Capture, ReadsBecomeThePayloadInOrder) {
  driver.reads = {{OT_OK, "ten bytes."},
                  {OT_OK, ""},
                  {OT_ERR_TIMEOUT, "not data"},
                  {OT_OK, std::string(4096, 'x')},
                  {OT_OK, "seven.."}};
  EXPECT_EQ(run(std::chrono::milliseconds(300)), 4113u);
  EXPECT_EQ(payload(), "ten bytes." + std::string(4096, 'x') + "seven..");
  EXPECT_EQ(driver.calls,
            sequence(kSetUp, {kRead, kRead, kRead, kRead, kRead, "ot_stop_stream_mode 1"}));
}

TEST_F(Capture, EmptyReadsAreNoFailure) {
  for (const ot_status status : {OT_ERR_TIMEOUT, OT_OK}) {
    driver.status_after_reads = status;
    EXPECT_EQ(run(std::chrono::milliseconds(5)), 0u);
  }
}

TEST_F(Capture, CountBeyondTheBufferIsZerosAndTheNextReadIsOfFullSize) {
  driver.reads = {{OT_OK, std::string(5000, 'x')}, {OT_OK, "y"}, {OT_OK, "z"}, {-2, ""}};
  EXPECT_EQ(error(), "read_stream_bytes: status text (detail) [-2]");
  EXPECT_EQ(payload(), std::string(4096, 'x') + std::string(904, '\0') + "yz");
  EXPECT_EQ(driver.count(kRead), 4u);
}

TEST_F(Capture, ManyReadsPassThroughTheSmallestQueue) {
  chunk_bytes = 5000;
  std::string expected;
  for (int i = 0; i < 500; ++i) {
    driver.reads.push_back({OT_OK, std::string(static_cast<std::size_t>(i % 7 * 700 + 1),
                                               static_cast<char>('a' + i % 26))});
    expected += driver.reads.back().bytes;
  }
  driver.reads.push_back({-2, "dropped"});
  EXPECT_EQ(error(), "read_stream_bytes: status text (detail) [-2]");
  EXPECT_EQ(payload(), expected);
  EXPECT_EQ(driver.count("ot_read_stream_bytes 5000 20 preset 0"), 501u);
}

TEST_F(Capture, HeaderSaysWhatWasRecorded) {
  const struct {
    Mode mode;
    Format format;
    unsigned delta_bits, quantum_ps;
    const char* raw64_tag_format;
    Calls calls;
  } cases[] = {
      {Mode::internal, Format::packed_delta, 16, 8, "ps", kSetUp},
      {Mode::external,
       Format::packed_delta,
       16,
       8,
       "ps",
       {kSetUp[0], kSetUp[1], kSetUp[2], "ot_start_stream_mode 1 3"}},
      {Mode::internal,
       Format::raw64,
       12,
       4,
       "raw_cf",
       {kSetUp[0], "ot_set_stream_interface 1 0", kSetUp[3], kSetUp[4]}},
      {Mode::external,
       Format::raw64,
       12,
       4,
       "ps",
       {kSetUp[0], "ot_set_stream_interface 1 0", "ot_start_stream_mode 1 3"}},
      {Mode::internal,
       Format::delta32,
       12,
       4,
       "ps",
       {kSetUp[0], "ot_set_stream_interface 1 1", kSetUp[3], kSetUp[4]}},
  };
  for (const auto& c : cases) {
    driver.calls.clear();
    mode = c.mode;
    format = c.format;
    run(Seconds(0));
    EXPECT_EQ(driver.calls, sequence(c.calls, {"ot_stop_stream_mode 1"}));
    EXPECT_EQ(device.stream_mode, c.mode);
    StreamFileHeader expected;
    expected.stream_format = c.format;
    expected.mode = c.mode;
    expected.tdl_index = 3;
    expected.delta_bits = static_cast<std::uint8_t>(c.delta_bits);
    expected.quantum_ps = static_cast<std::uint16_t>(c.quantum_ps);
    expected.raw64_tag_format = c.raw64_tag_format;
    expected.created_utc = timing::detail::stream_header_from_json(text()).created_utc;
    EXPECT_EQ(expected.created_utc.size(), 27u);
    EXPECT_EQ(text(), timing::detail::stream_header_to_json(expected));
  }
}

TEST_F(Capture, HeaderTakesThePackedSettingsThatTheLibraryReports) {
  driver.effective_bits = 20;
  driver.effective_quantum_ps = 300;
  run(Seconds(0));
  EXPECT_TRUE(text().ends_with(R"({"delta_bits":20,"quantum_ps":300}})")) << text();
}

TEST_F(Capture, FailingSetUpLeavesNoFile) {
  const char* const labels[] = {"set_stream_channels", "set_packed_delta_config",
                                "set_stream_interface", "set_calibration_freq"};
  for (std::size_t i = 0; i < std::size(labels); ++i) {
    driver.calls.clear();
    driver.failures = {{kSetUp[i], 42}};
    EXPECT_EQ(error(), std::string(labels[i]) + ": status text (detail) [42]");
    Calls expected(kSetUp.begin(), kSetUp.begin() + static_cast<std::ptrdiff_t>(i) + 1);
    EXPECT_EQ(driver.calls, sequence(expected, {"ot_last_error", "ot_status_string 42"}));
    EXPECT_FALSE(std::filesystem::exists(path));
  }
}

TEST_F(Capture, FileThatCannotBeMadeStartsNoStream) {
  path = scratch.file("missing/capture.ortime");
  EXPECT_EQ(error(), "StreamFileWriter: cannot open " + path + " [-2]");
  EXPECT_EQ(driver.calls, Calls(kSetUp.begin(), kSetUp.end() - 1));
}

TEST_F(Capture, FailingStartIsNotStopped) {
  device.stream_mode = Mode::external;
  driver.failures = {{"ot_start_stream_mode", -1}};
  EXPECT_EQ(error(), "start_stream(mode): status text (detail) [-1]");
  EXPECT_EQ(driver.calls, sequence(kSetUp, {"ot_last_error", "ot_status_string -1"}));
  EXPECT_EQ(payload(), "");
  EXPECT_EQ(device.stream_mode, Mode::external);
}

TEST_F(Capture, FailingReadKeepsWhatWasReadAndLeavesTheDeviceUsable) {
  driver.reads = {{OT_OK, "kept"}, {-6, "lost"}};
  driver.detail_text.reset();
  EXPECT_EQ(error(), "read_stream_bytes: status text [-6]");
  EXPECT_EQ(driver.calls, sequence(kSetUp, {kRead, kRead, "ot_last_error", "ot_status_string -6",
                                            "ot_stop_stream_mode 0"}));
  EXPECT_EQ(payload(), "kept");
  EXPECT_EQ(run(Seconds(0)), 0u);
  EXPECT_EQ(payload(), "");
}

TEST_F(Capture, FailingStopIsToldAndFollowedByAnAbandoningOne) {
  driver.failures = {{"ot_stop_stream_mode 1", 5}, {"ot_stop_stream_mode 0", 6}};
  EXPECT_EQ(error(Seconds(0)), "stop_stream_any: status text (detail) [5]");
  const auto first = driver.calls.begin() + static_cast<std::ptrdiff_t>(kSetUp.size());
  EXPECT_EQ(Calls(first, first + 4), (Calls{"ot_stop_stream_mode 1", "ot_last_error",
                                            "ot_status_string 5", "ot_stop_stream_mode 0"}));
  EXPECT_EQ(driver.count("ot_stop_stream_mode"), 2u);
}

TEST_F(Capture, FullDiskStopsTheStream) {
  path = "/dev/full";
  chunk_bytes = 2 * kMebibyte;  // more than the file's own buffer
  driver.reads.assign(8, {OT_OK, std::string(chunk_bytes, 'x')});
  EXPECT_EQ(error(), "StreamFileWriter: payload write failed [-2]");
  EXPECT_EQ(driver.calls.back(), "ot_stop_stream_mode 0");
  EXPECT_EQ(driver.count("ot_stop_stream_mode"), 1u);
  EXPECT_EQ(driver.count("ot_last_error"), 0u);
}

TEST_F(Capture, WriterFailureIsToldInsteadOfALaterOne) {
  path = "/dev/full";
  chunk_bytes = 2 * kMebibyte;
  driver.reads = {{OT_OK, std::string(chunk_bytes, 'x')}, {-6, ""}};
  EXPECT_EQ(error(), "StreamFileWriter: payload write failed [-2]");
  EXPECT_EQ(driver.count("ot_stop_stream_mode 0"), 1u);
}

timing::detail::CaptureChunk chunk_of(std::size_t used) {
  return {std::vector<std::uint8_t>(used), used};
}

TEST(CaptureQueue, FullQueueMakesTheReaderWait) {
  timing::detail::CaptureQueue queue(8, 2);
  queue.push(chunk_of(1));
  queue.push(chunk_of(2));
  std::future<void> third = std::async(std::launch::async, [&] { queue.push(chunk_of(3)); });
  EXPECT_EQ(third.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  EXPECT_EQ(queue.pop()->used, 1u);
  third.get();
  queue.finish();
  EXPECT_EQ(queue.pop()->used, 2u);  // what is queued outlives the end
  EXPECT_EQ(queue.pop()->used, 3u);
  EXPECT_FALSE(queue.pop());
}

TEST(CaptureQueue, WaitingReaderLearnsOfTheEnd) {
  for (const bool writer_failed : {false, true}) {
    timing::detail::CaptureQueue queue(8, 2);
    queue.push(chunk_of(1));
    queue.push(chunk_of(2));
    std::future<void> third = std::async(std::launch::async, [&] { queue.push(chunk_of(3)); });
    if (writer_failed) {
      queue.fail(std::make_exception_ptr(Error(9, "disk on fire")));
    } else {
      queue.finish();
    }
    try {
      third.get();
      ADD_FAILURE() << "pushed into a finished queue";
    } catch (const Error& error) {
      EXPECT_STREQ(error.what(),
                   writer_failed ? "disk on fire" : "stream_to_file_for: writer stopped");
      EXPECT_EQ(error.status(), writer_failed ? 9 : OT_ERR_IO);
    }
  }
}

TEST(CaptureQueue, WrittenChunksComeBackAtFullSize) {
  timing::detail::CaptureQueue queue(8, 2);
  timing::detail::CaptureChunk chunk = queue.take_spare();
  const std::uint8_t* const storage = chunk.bytes.data();
  chunk.used = 3;
  queue.push(std::move(chunk));
  queue.recycle(*queue.pop());
  chunk = queue.take_spare();
  EXPECT_EQ(chunk.bytes.data(), storage);
  EXPECT_EQ(chunk.bytes.size(), 8u);
}

}  // namespace
}  // namespace orvo::tests
