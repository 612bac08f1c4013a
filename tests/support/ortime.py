"""ortime on runs of the tool, and on recordings written byte by byte."""

import json
import os
import pathlib
import re
import shutil

from support.programs import TOOL, ProgramTest, shell, stream_file

GOLDEN = pathlib.Path(__file__).parents[1] / "golden"
DIVIDER = 1000  # of the calibration source
PERIOD_PS = DIVIDER * 1e12 * 0.9999 * 23 / 712_500_000
REPORT = "overflow_frequency.json"

HEADER = {"file_type": "orvo_timing_raw_stream_capture", "schema_version": 1, "created_utc": "now",
          "application": "test", "device_product": "", "device_serial": "", "device_port": "",
          "stream_format": "packed_delta", "mode": "external", "stream_transport": "usb",
          "raw64_tag_format": "ps", "channel_mask": 15, "tdl_index": 0,
          "packed_delta_config": {"delta_bits": 16, "quantum_ps": 8}}
# Damage of a record amid a sync.
LOST_LOCK = "damage=flip@68507,flip@68508,flip@68509"


def recording(run):
    return f"overflow_frequency_{run:02}.ortime"


class OrtimeTest(ProgramTest):
    """A test in a folder that becomes a run directory, run by run."""

    def setUp(self):
        super().setUp()
        self.here = self.folder / "run"
        self.here.mkdir()
        self.report = {}

    def add_run(self, periods, sim="", arguments=""):
        """Adds a run of the tool whose stream and capture last so many periods, without jitter; `sim`
        and the arguments may change each of these."""
        self.remove_outputs()
        end_ps = int((periods - 0.5) * PERIOD_PS)
        self.run_whole(f"{TOOL}--output-root=out --frequencies-hz=30978 --chunk-bytes=4096 "
                       f"--capture-s={periods * PERIOD_PS * 1e-12:.6f} {arguments}",
                       f"jitter_ps=0;pace=ps:{end_ps};{sim}")
        added = json.loads((self.run_dir() / REPORT).read_text())
        runs = self.report.get("runs", [])
        file = self.here / recording(len(runs) + 1)
        shutil.copy(self.run_dir() / recording(1), file)
        added["runs"][0].update(stream_file=str(file), requested_hz=31000)
        self.report = {**added, "runs": runs + added["runs"],
                       "pass": added["pass"] and self.report.get("pass", True)}
        self.save_report()
        return added["runs"][0]

    def save_report(self, folder=None):
        text = json.dumps(self.report, indent=1, separators=(",", ":"), ensure_ascii=False)
        text = text.replace("Infinity", "inf")  # as the tool has it
        ((folder or self.here) / REPORT).write_text(text, errors="surrogateescape")

    def write_stream(self, name, payload=b"", **header):
        """A stream file; a character of its header is a byte."""
        text = json.dumps({**HEADER, **header}, ensure_ascii=False).encode("latin-1")
        (self.here / name).write_bytes(stream_file(text, payload))

    def write_tags(self, tags, name="a.ortime", **header):
        """A recording of channels and times in picosecond records."""
        payload = b"".join((channel << 61 | time_ps).to_bytes(8, "big") for channel, time_ps in tags)
        self.write_stream(name, payload, stream_format="raw64", **header)

    def ortime(self, words):
        """Runs a command in that folder, which is "." in what it says; sets `out` and `err`."""
        done = shell("ortime " + words, self.here)
        self.out, self.err = (text.replace(str(self.here), ".") for text in (done.stdout, done.stderr))
        return done.returncode

    def assert_golden(self, name, text):
        """That a text is, but for places, times and versions, the file of that name in golden/, which
        somebody has looked at; ORVO_WRITE_GOLDEN makes the file."""
        text = text.replace(str(self.here), ".")
        text = re.sub(r"20\d\d-\d\d-\d\d[T ][0-9:.]+(Z| UTC)", "TIME", text)
        text = re.sub(r"(ortime\W+)\d+\.\d+\.\d+", r"\1VERSION", text)
        if "ORVO_WRITE_GOLDEN" in os.environ:
            (GOLDEN / name).write_text(text)
        self.assertEqual(text, (GOLDEN / name).read_text())
