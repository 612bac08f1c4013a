"""The real tool when something fails: each call of the driver, and the disk at any byte.

ORVO_EVERY_BYTE tries each size of files; without it those around the end of each file."""

import itertools
import os

from support.programs import TOOL, ProgramTest, calls_in, payload_of

CAPTURE = "FMPXFSR?T"
# Whatever was recorded of the two runs passes.
RUN = TOOL + "--output-root=out --min-tags-per-channel=0 "
TWO_RUNS = RUN + "--frequencies-hz=10000,20000 "
SLOW_RUN = RUN + "--frequencies-hz=1000 "


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

    # Files fill one after the other: the first one that is larger than the limit is missed.
    def test_full_disk_at_any_byte_of_any_file(self):
        for runs, sim in (TWO_RUNS, "pace=bytes:150"), (SLOW_RUN, "pace=ps:50000000000"):
            command = runs + "--capture-s=0.01 "
            self.remove_outputs()
            self.run_whole(command, sim)
            recordings = sorted(self.run_dir().glob("*.ortime"))
            header = recordings[0].stat().st_size - len(payload_of(recordings[0]))
            files = [(file.name, file.stat().st_size, "StreamFileWriter: payload write failed\n")
                     for file in recordings]
            for end, what in (".csv", "overflow CSV"), (".json", "overflow JSON"), (".summary.txt", "text"):
                file = self.run_dir() / f"overflow_frequency{end}"
                files.append((file.name, file.stat().st_size, f"could not write {what} output\n"))
            most = max(size for _, size, _ in files)
            limits = {at - below for at in (header, *(size for _, size, _ in files)) for below in (0, 1)}
            for limit in range(most + 1) if "ORVO_EVERY_BYTE" in os.environ else {0, *limits}:
                with self.subTest(sim + runs, limit=limit):
                    self.remove_outputs()
                    tool = self.run_whole(f"prlimit --fsize={limit} {command}", sim)
                    whole = list(itertools.takewhile(lambda file: file[1] <= limit, files))
                    name, _, message = files[len(whole)] if len(whole) < len(files) else ("", 0, "")
                    calls = f"({CAPTURE}){{{min(len(whole), len(recordings))}}}"
                    if limit < header:
                        message, calls = "StreamFileWriter: failed to write header\n", "FMPXF"
                    elif name.endswith(".ortime"):
                        calls += "FMPXFSR?[TZ]"  # one stop
                    self.assertEqual((tool.err, tool.status), (message, 1 if message else 0))
                    self.assertRegex(calls_in(tool.ledger), rf"^DLOI{calls}C\.$")
                    there = {file.name: file.stat().st_size for file in self.run_dir().iterdir()}
                    self.assertEqual(there, {file: size for file, size, _ in whole} |
                                     ({name: limit} if message else {}))
                    self.assertEqual((self.root / "latest.json").exists(), not message)
