"""The real tool when something fails: each call of the driver, and the disk at any byte.

ORVO_EVERY_BYTE tries each size of files; without it a sample of about forty is tried."""

import os

from support.programs import TOOL, ProgramTest, calls_in, payload_of

CAPTURE = "FMPXFSR?T"
# Whatever was recorded of the two runs passes.
TWO_RUNS = TOOL + "--output-root=out --frequencies-hz=10000,20000 --min-tags-per-channel=0 "


class ToolFailures(ProgramTest):
    def test_any_driver_call_ends_the_run_in_good_order(self):
        unreported = ";fail=ot_stop_stream_mode:1:-6:always;fail=ot_close:1:-2"
        for failing, calls, label, more in (  # operation and number of its call
                ("ot_discover:1", "d", "discover", ""),
                ("ot_open_serial:1", "DLo", "open", ""),
                ("ot_identify:1", "DLOiC", "identify", ""),
                ("ot_set_calibration_freq:1", "DLOIfC", "set_calibration_freq", ""),
                ("ot_set_stream_channel_mask:1", "DLOIFmC", "set_stream_channels", ""),
                ("ot_set_packed_delta_config:1", "DLOIFMpC", "set_packed_delta_config", ""),
                ("ot_set_stream_interface:1", "DLOIFMPxC", "set_stream_interface", ""),
                ("ot_set_calibration_freq:2", "DLOIFMPXfC", "set_calibration_freq", ""),
                ("ot_start_stream_mode:1", "DLOIFMPXFsC", "start_stream(mode)", ""),
                ("ot_read_stream_bytes:1", "DLOIFMPXFSrZC", "read_stream_bytes", ""),
                ("ot_read_stream_bytes:1", "DLOIFMPXFSrzc", "read_stream_bytes", unreported),
                ("ot_read_stream_bytes:2", "DLOIFMPXFSRrZC", "read_stream_bytes", ""),
                ("ot_stop_stream_mode:1", "DLOIFMPXFSR?t[Zz]C", "stop_stream_any", ""),
                ("ot_set_calibration_freq:3", f"DLOI{CAPTURE}fC", "set_calibration_freq", ""),
                ("ot_start_stream_mode:2", f"DLOI{CAPTURE}FMPXFsC", "start_stream(mode)", ""),
                ("ot_stop_stream_mode:2", f"DLOI{CAPTURE}FMPXFSR?tZC", "stop_stream_any", ""),
                ("ot_close:1", f"DLOI({CAPTURE}){{2}}c", "", "")):
            # A failing read ends the capture, not the time.
            command = TWO_RUNS + f"--capture-s={1000 if 'read' in failing else 0.02}"
            for how, detail in (":detail=lost", " (lost)"), (":always:effect", ""):
                if "always" in how and failing == "ot_stop_stream_mode:2":
                    continue  # a run without an end
                with self.subTest(failing + how + more):
                    self.remove_outputs()
                    tool = self.run_whole(command, f"fail={failing}:-2{how}{more}")
                    self.assertRegex(calls_in(tool.ledger), rf"^{calls}\.$")
                    said = f"{label}: input/output failure"
                    said += detail if calls.startswith("DLO") else ""
                    self.assertEqual(tool.err, said + "\n" if label else "")
                    self.assertEqual(tool.status, 1 if label else 0)
                    self.assert_recorded(tool.ledger)
                    self.assertEqual((self.root / "latest.json").exists(), not label)
                    self.assertEqual((self.run_dir() / "overflow_frequency.csv").exists(), not label)

    # A recording of 150 bytes waits in a buffer, and its reports fail unseen: what was written shows.
    def test_full_disk_at_any_byte_of_a_recording_and_its_reports(self):
        every = "ORVO_EVERY_BYTE" in os.environ
        for size in range(2300) if every else (*range(13), *range(13, 2300, 97)):
            with self.subTest(size):
                self.remove_outputs()
                tool = self.start(f"prlimit --fsize={size} {TWO_RUNS} --capture-s=0.02",
                                  "pace=bytes:150").finish()
                stem = self.run_dir() / "overflow_frequency"
                recording = stem.with_name(stem.name + "_01.ortime")
                message = ("StreamFileReader: truncated magic\n" if size < 8 else
                           "stream file: truncated header length\n" if size < 12 else
                           "" if payload_of(recording) is not None else
                           "StreamFileReader: truncated JSON header\n")
                self.assertEqual(tool.err, message)
                self.assertEqual(tool.status, 1 if message else 0)
                self.assertLessEqual(recording.stat().st_size, size)
                self.assertRegex(calls_in(tool.ledger), rf"^DLOI({CAPTURE}){{1,2}}C\.$")
                if not message:
                    begin = tool.out.index("Orvo timing packed-delta")
                    summary = tool.out[begin:tool.out.index("latest_summary=")]
                    self.assertEqual(stem.with_suffix(".summary.txt").read_text(), summary[:size])
                    for report in ".csv", ".json":
                        text = stem.with_suffix(report).read_text()
                        self.assertEqual((self.root / f"latest{report}").read_text(), text)
                        self.assertTrue(len(text) == size or text.endswith(('"\n', "}\n")), text)
