// Timed capture against a scripted driver: calls, file and error of every way it can go.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "orvo/timing/device/capture_queue.h"
#include "orvo/timing/device/device.h"
#include "orvo/timing/error.h"
#include "orvo/timing/stream_header.h"
#include "support/scratch.h"
#include "support/scripted_driver.h"

namespace orvo::tests {
namespace {

using timing::Format;
using timing::Mode;
using Seconds = std::chrono::duration<double>;

constexpr Seconds kUntilFailure = std::chrono::minutes(1);

const std::string kMask = "set_stream_channel_mask 255; ";
const std::string kPacked = "set_packed_delta_config 12 4/16 8; ";
const std::string kInterface = "set_stream_interface 1 2; ";
const std::string kStart = "set_calibration_freq 1000/0; start 0 3; ";
const std::string kSetUp = kMask + kPacked + kInterface + kStart;
const std::string kRead = "read 4096 20/0; ";

class Capture : public testing::Test {
 protected:
  Capture() { driver = {}; }

  std::uint64_t run(Seconds duration, Mode mode = Mode::internal,
                    Format format = Format::packed_delta) {
    return device.stream_to_file_for(path, duration, mode, format, 0xFF, 3, 1000, 12, 4,
                                     timing::Transport::usb, chunk_bytes, 0);
  }
  /// Repeats a capture until its time was enough for all of `reads`.
  std::uint64_t run_through(const std::vector<ScriptedDriver::Read>& reads) {
    for (Seconds duration = std::chrono::milliseconds(20);; duration *= 2) {
      driver.take_calls();
      driver.reads = reads;
      const std::uint64_t captured = run(duration);
      if (driver.reads.empty()) return captured;
    }
  }
  std::string error() {
    return error_of([&] { run(kUntilFailure); });
  }

  /// The header's text.
  [[nodiscard]] std::string text() const {
    const std::string file = read_file(path);
    return file.substr(12, file.find("}}") + 2 - 12);
  }

  ScratchDirectory scratch;
  timing::Device device = timing::Device::open("p", 9600);
  std::string path = scratch.file("capture.ortime");
  std::uint64_t chunk_bytes = 0;
};

TEST_F(Capture, ReadsBecomeThePayloadInOrder) {
  const std::string full(4096, 'x');
  EXPECT_EQ(run_through(
                {{OT_OK, "ten bytes."}, {OT_OK, ""}, {-3, "no data"}, {OT_OK, full}, {OT_OK, "z"}}),
            4107u);
  EXPECT_EQ(device.stream_state.reads, 3u);
  EXPECT_EQ(payload_of(path), "ten bytes." + full + "z");
  EXPECT_EQ(driver.take_calls(), kSetUp + kRead + kRead + kRead + kRead + kRead + "stop 1; ");
}

TEST_F(Capture, BytesThatAreClaimedButNotWrittenAreZeros) {
  driver.reads = {{OT_OK, std::string(5000, 'x')}};
  std::string expected = std::string(4096, 'x') + std::string(904, '\0');
  for (const ScriptedDriver::Read& read :
       {ScriptedDriver::Read{OT_OK, "long"}, {OT_OK, "y"}, {OT_OK, "z", 3}}) {
    driver.reads.insert(driver.reads.end(), 9, read);  // more than there are chunks
    for (int i = 0; i < 9; ++i) expected += read.bytes + std::string(read.claimed, '\0');
  }
  driver.reads.push_back({-2, ""});
  EXPECT_EQ(error(), "read_stream_bytes: status text (detail) [-2]");
  EXPECT_EQ(payload_of(path), expected);
}

TEST_F(Capture, HeaderSaysWhatIsRecordedAlsoInNoTime) {
  constexpr Seconds kNoNumber(std::numeric_limits<double>::quiet_NaN());
  const struct {
    Seconds duration;
    Mode mode;
    Format format;
    std::uint8_t delta_bits;
    std::uint16_t quantum_ps;
    const char* tag_format;
    std::string calls;
  } cases[] = {
      {Seconds(0), Mode::internal, Format::packed_delta, 16, 8, "ps",
       kPacked + kInterface + kStart},
      {Seconds(-1), Mode::external, Format::packed_delta, 16, 8, "ps",
       kPacked + kInterface + "start 1 3; "},
      {kNoNumber, Mode::internal, Format::raw64, 12, 4, "raw_cf",
       "set_stream_interface 1 0; " + kStart},
      {Seconds(0), Mode::external, Format::raw64, 12, 4, "ps",
       "set_stream_interface 1 0; start 1 3; "},
      {Seconds(0), Mode::internal, Format::delta32, 12, 4, "ps",
       "set_stream_interface 1 1; " + kStart},
  };
  driver.reads = {{OT_OK, "unread"}};
  for (const auto& c : cases) {
    EXPECT_EQ(run(c.duration, c.mode, c.format), 0u);
    EXPECT_EQ(driver.take_calls(), kMask + c.calls + "stop 1; ");
    EXPECT_EQ(device.stream_mode, c.mode);
    timing::StreamFileHeader expected;
    expected.stream_format = c.format;
    expected.mode = c.mode;
    expected.tdl_index = 3;
    expected.delta_bits = c.delta_bits;
    expected.quantum_ps = c.quantum_ps;
    expected.raw64_tag_format = c.tag_format;
    expected.created_utc = timing::detail::stream_header_from_json(text()).created_utc;
    EXPECT_EQ(text(), timing::detail::stream_header_to_json(expected));
    EXPECT_EQ(payload_of(path), "");
  }
  driver.effective_bits = 20;
  driver.effective_quantum_ps = 300;
  run(Seconds(0));
  EXPECT_TRUE(text().ends_with(R"({"delta_bits":20,"quantum_ps":300}})")) << text();
}

TEST_F(Capture, DetailIsAskedBeforeTheStreamIsAbandoned) {
  driver.reads = {{OT_OK, "kept"}, {42, "lost"}};
  EXPECT_EQ(error(), "read_stream_bytes: status text (detail) [42]");
  EXPECT_EQ(driver.take_calls(), kSetUp + kRead + kRead + "last_error; status_string 42; stop 0; ");
  EXPECT_EQ(payload_of(path), "kept");
  EXPECT_EQ(device.stream_state.payload_bytes, 4u);
  run(Seconds(0));
  EXPECT_EQ(device.stream_state.payload_bytes, 0u);  // of the present stream
}

TEST_F(Capture, WhatNothingFollowsIsInTheFileAtOnce) {
  driver.reads = {{OT_OK, "first"}, {OT_OK, " and last"}};
  EXPECT_THROW(
      device.capture({.path = path,
                      .duration = std::chrono::seconds(20),
                      .interrupted = [&] { return payload_of(path) == "first and last"; }}),
      timing::Interrupted);
  EXPECT_TRUE(driver.take_calls().ends_with("stop 0; "));
}

TEST_F(Capture, WriterFailureStopsTheStreamAndIsReportedInsteadOfALaterOne) {
  const FileSizeLimit limit(4096);  // more than the header
  chunk_bytes = 1 << 20;
  const std::string chunk(chunk_bytes, 'x');
  for (const bool fails_later : {false, true}) {
    driver.reads.assign(fails_later ? 1 : 8, {OT_OK, chunk});
    driver.reads.push_back({-6, ""});
    EXPECT_EQ(error(), "StreamFileWriter: payload write failed [-2]");
    const std::string calls = driver.take_calls();
    EXPECT_TRUE(calls.ends_with("stop 0; ")) << calls;
    EXPECT_EQ(calls.find("stop 1"), std::string::npos) << calls;
  }
  const std::string failed = "StreamFileWriter: payload write failed [-2]";
  EXPECT_EQ(error_of([&] { run_through({{OT_OK, chunk}}); }), failed);  // the last of the file
  EXPECT_TRUE(driver.take_calls().ends_with("/0; stop 1; "));
}

// Two threads that come and go as they like: chunks and pauses of random sizes, the end or a
// failure in any state of the queue; and first, many chunks without a pause, so that two that touch
// the queue at once show, and in time only where the writer wakes a reader that waits: by itself it
// looks every 10 ms. Worth most under the thread sanitizer.
TEST(CaptureQueue, LosesNothingAndAlwaysEnds) {
  const auto start = std::chrono::steady_clock::now();
  unsigned scene = 0;
  const auto pause = [&scene](std::mt19937& random) {
    if (scene == 0) return;
    if (random() % 16 == 0) std::this_thread::yield();
    if (random() % 64 == 0) std::this_thread::sleep_for(std::chrono::microseconds(random() % 60));
  };
  for (; scene < 200; ++scene) {
    SCOPED_TRACE(scene);
    std::mt19937 random(scene), writers(~scene);
    const std::uint64_t limit = 1 + random() % 5, chunk_bytes = 1 + random() % 200;
    const std::uint64_t pushes = scene == 0 ? 100'000 : random() % 300;
    const std::uint64_t fails_at =
        scene == 0 ? pushes : random() % (random() % 2 == 0 ? 300 : 30'000);  // or never
    const std::uint64_t most_pushed = std::min(pushes, fails_at + 1 + limit);
    const bool fails_when_full = scene % 2 == 0;
    timing::detail::CaptureQueue queue(chunk_bytes, limit);
    std::atomic<std::uint64_t> pushed = 0;
    std::string written, expected;  // a number's low byte as often as its chunk has bytes
    std::thread writer([&] {
      try {
        for (std::uint64_t popped = 0; auto chunk = queue.pop(); ++popped) {
          pause(writers);
          if (popped == fails_at) {
            while (fails_when_full && pushed < most_pushed) std::this_thread::yield();
            throw timing::Error(9, "disk on fire");
          }
          written.append(reinterpret_cast<const char*>(chunk->bytes.data()), chunk->used);
          static_cast<void>(queue.recycle(std::move(*chunk)));
        }
      } catch (...) {
        queue.fail(std::current_exception());
      }
    });
    const std::string error = error_of([&] {
      for (; pushed < pushes; ++pushed) {
        timing::detail::CaptureChunk chunk = queue.take_spare();
        EXPECT_EQ(chunk.bytes.size(), chunk_bytes);
        pause(random);
        chunk.set_used(1 + random() % (chunk_bytes + 7));  // now and then more than was asked for
        std::fill_n(chunk.bytes.begin(), chunk.used, static_cast<std::uint8_t>(pushed));
        if (pushed < fails_at) expected.append(chunk.used, static_cast<char>(pushed));
        queue.push(std::move(chunk));
      }
    });
    queue.finish();
    writer.join();
    EXPECT_TRUE(written == expected);
    EXPECT_EQ(queue.error() != nullptr, fails_at < pushes);
    EXPECT_EQ(error, pushed < pushes ? "disk on fire [9]" : "no error");
    EXPECT_LE(pushed, most_pushed);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::minutes(2));
}

}  // namespace
}  // namespace orvo::tests
