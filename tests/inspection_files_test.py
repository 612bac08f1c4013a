"""ortime's command line, and stream files looked into: `info`, `tags`, and what both tell."""

import json
import os
import select
import random
import re
import shutil
import subprocess

from support.ortime import LOST_LOCK, OrtimeTest
from support.programs import ENVIRONMENT, shell


class InspectionFiles(OrtimeTest):
    def test_usage_errors_name_the_fault_and_where_to_look(self):
        (self.here / "f").touch()
        (self.here / "hard").hardlink_to(self.here / "f")
        (self.here / "link").symlink_to("target")
        for words, told in (
                ("", "a command is missing"),
                ("--frobnicate", "a command is missing"),
                ("'\x1b[2J' x", r"'\x1b[2J' is no command"),
                ("info --chunk-bytes 99999999999999999999 x", "is not an integer from 1 to 1073741824"),
                ("tags x --channel 4",
                 "--channels: '4' is not an integer from 0 to 3\nTry 'ortime tags --help'"),
                ("tags x --format npy", "npy needs a file"),
                ("tags x -o t.npz", "'t.npz': ends neither in .csv nor in .npy"),
                ("tags x -o t.csv --format npy", "does not match --format"),
                ("tags x --from-ps 5 --to-ps 5", "must be greater than --from-ps"),
                ("tags f --run 1", "--run: needs a run directory"),
                ("verify f", "'f': is a stream file"),
                ("verify -", "is a stream file"),
                ("verify . --divider 3", "'.': is a run"),
                ("tags . --run 0", "'0' is not an integer from 1"),
                ("verify f --divider 4294967296", "from 1 to 4294967295"),
                ("verify f --divider 0", "from 1 to 4294967295"),
                ("verify f --requested-hz nan", "'nan' is not a number greater than 0"),
                ("verify f --requested-hz 0", "'0' is not a number greater than 0"),
                ("verify f --divider 3 --min-tags-per-channel -1", "is not an integer from 0"),
                ("verify f --divider 3 --tolerance-ppm nan", "of at least 0"),
                ("verify f --divider 3 --tolerance-ppm abc", "'abc' is not a number of at least 0"),
                ("report x", "--output or --json is required"),
                ("report x -o ''", "the name is empty"),
                *((f"report x -o {outputs}", "needs a file of its own") for outputs in (
                    "t --json ./t", "link --json target", "f --json hard", "- --json /dev/stdout"))):
            with self.subTest(words):
                self.assertEqual(self.ortime(words), 64)
                self.assertIn(told, self.err)
                self.assertIn("--help'", self.err)

    def tags(self, name, options=""):
        """What `tags` writes to a file."""
        self.assertEqual(self.ortime(f"tags a.ortime -o {name} {options}"), 0, self.err)
        return (self.here / name).read_bytes()

    def test_tags_in_every_format(self):
        self.write_tags([(0, 5), (3, 258), (1, 7), (0, 5)])
        self.assertEqual(self.tags("t"), b"channel,time_ps\n0,5\n3,258\n1,7\n0,5\n")
        self.assertEqual(self.tags("t.csv", "--to-ps 258 --channel 0 --channel 3,0"),
                         b"channel,time_ps\n0,5\n0,5\n")
        self.assertEqual(self.tags("t.csv", "--from-ps 258"), b"channel,time_ps\n3,258\n")
        self.assertEqual(self.tags("t.csv", "--to-ps 7"), b"channel,time_ps\n0,5\n0,5\n")
        text = (b"{'descr': [('channel', '|u1'), ('time_ps', '<i8')], 'fortran_order': False, "
                b"'shape': (2,), }")
        self.assertEqual(self.tags("t.NPY", "--from-ps 6 --to-ps 259"),
                         b"\x93NUMPY\x01\x00\x76\x00" + text.ljust(117) + b"\n"
                         b"\3\2\1\0\0\0\0\0\0\1\7\0\0\0\0\0\0\0")
        many = [(i % 4, i * 1000) for i in range(200_000)]  # more than are written at once
        self.write_tags(many)
        self.assertEqual(self.tags("t", "--chunk-bytes 1000").decode(), "channel,time_ps\n" + "".join(
            f"{channel},{time_ps}\n" for channel, time_ps in many))
        self.assertEqual(len(self.tags("t.npy")), 128 + 9 * 200_000)
        (self.here / "a.ortime").rename(self.here / "tags")  # called like a command
        self.assertEqual(self.ortime("tags --channels 1 tags"), 0)
        self.assertTrue(self.out.startswith("channel,time_ps\n1,1000\n1,5000\n"))
        (self.here / "tags").rename(self.here / "--tags_1")
        done = shell("""bash -c 'trap "" PIPE; ortime tags -- --tags_1 | head -n 2; echo ${PIPESTATUS[0]}'""",
                     self.here)
        self.assertEqual((done.stdout, done.stderr), ("channel,time_ps\n0,0\n141\n", ""))

    def test_a_terminal_is_left_as_it_was(self):
        self.write_tags([(0, 5)])
        ours, theirs = os.openpty()
        self.addCleanup(os.close, ours)
        with open(theirs, "wb") as terminal:
            subprocess.run([shutil.which("ortime", path=ENVIRONMENT["PATH"]), "info", "a.ortime"], cwd=self.here,
                           stderr=terminal, stdout=subprocess.DEVNULL, check=True)
        shown = b""
        while not shown.endswith(b"\r\x1b[K") and select.select([ours], [], [], 5)[0]:  # not all at once
            shown += os.read(ours, 10_000)
        self.assertIn(b"100 %  0 of 0 MB", shown)
        self.assertTrue(shown.endswith(b"\r\x1b[K"), shown)

    def test_outputs_are_whole_or_absent_and_never_inputs(self):
        self.write_tags([(0, 5)])
        recording = self.here / "a.ortime"
        before = recording.read_bytes()
        (self.here / "hard").hardlink_to(recording)
        (self.here / "link").symlink_to(recording)
        self.write_stream("undecodable", packed_delta_config={"delta_bits": 99, "quantum_ps": 8})
        for output, error in (
                ("a.ortime --format csv", "is an input file"),
                ("hard", "is an input file"),
                ("link", "is an input file"),
                ("/dev/full", 'ortime: cannot write "/dev/full": No space left on device'),
                ("./", "Is a directory"),
                ("missing/t", "No such file or directory"),
                ("/dev/fd/99999999999", "cannot create")):  # not standard input
            with self.subTest(output):
                self.assertEqual(self.ortime("tags a.ortime -o " + output), 1)
                self.assertIn(error, self.err)
                self.assertEqual(recording.read_bytes(), before)
        self.assertEqual(self.ortime("tags - -o hard <a.ortime"), 1)
        self.write_tags([(0, n) for n in range(1000)], "long")
        done = shell("ulimit -f 1; ortime tags long -o t", self.here)
        self.assertEqual((done.returncode, done.stderr), (1, 'ortime: cannot write "t": File too large\n'))
        (self.here / "t.part").write_text("of somebody")
        target = self.here / "t"
        target.write_text("older")
        target.chmod(0o600)
        (self.here / "to_t").symlink_to(target)
        self.assertEqual(self.tags("to_t"), b"channel,time_ps\n0,5\n")  # what the link leads to
        self.assertEqual(target.read_bytes(), b"channel,time_ps\n0,5\n")
        self.assertEqual(target.stat().st_mode & 0o777, 0o600)
        (self.here / "below").mkdir()
        (self.here / "below/to_new").symlink_to("new")
        self.tags("below/to_new")
        self.assertEqual((self.here / "below/new").stat().st_mode, recording.stat().st_mode)
        self.assertEqual(self.ortime("tags undecodable"), 1)
        self.assertIn("records that cannot be decoded: packed_delta of 99 bits", self.err)
        self.assertEqual((self.here / "t.part").read_text(), "of somebody")
        # The recordings and links, the outputs and their links: nothing unfinished.
        self.assertEqual(len(list(self.here.glob("**/*"))), 11)

    def test_two_at_once_write_whole_files(self):
        self.write_tags([(0, 5)])
        os.mkfifo(self.here / "pipe")
        first = self.start("ortime tags - -o run/t <run/pipe")
        with open(self.here / "pipe", "wb", buffering=0) as pipe:  # which keeps the first one waiting
            pipe.write((self.here / "a.ortime").read_bytes())
            self.assertTrue(first.run_until(lambda: list(self.here.glob("t.*"))))
            whole = self.tags("t")
            pipe.write(bytes(8))
        self.assertEqual(first.finish().status, 0, first.err)
        self.assertEqual((self.here / "t").read_bytes(), whole + b"0,0\n")

    def test_info_tells_channels_in_disorder(self):
        self.write_tags([(0, 10), (1, 1), (0, 40), (0, 30), (0, 30)],
                        application="\x7F[31m\xff\xc2\x9b \xc3\xbc\n")
        self.assertEqual(self.ortime("info a.ortime --chunk-bytes 8"), 0)
        self.assertIn('\n  application="\\x7f[31m\\xff\\x9b ü\\n"\n', self.out)
        self.assertIn("""
undecoded_bytes=0
decoded_bytes=40
judged:
  payload_bytes=40
  decoded_tags=5
  channels:
    channel=0 count=4 first_ps=10 last_ps=40 measured_hz=100000000000.000000000 judged=true
    channel=1 count=1 judged=true
    channel=2 count=0 judged=true
    channel=3 count=0 judged=true
""", self.out)
        self.assertIn("  channel=0 intervals=3 shortest_interval_ps=-10 longest_interval_ps=30 ", self.out)
        self.assertIn('words="time goes back once, by 10 ps at the most"\n', self.out)
        (self.here / "bad").write_text("no stream file")
        self.assertEqual(self.ortime("info --json bad a.ortime"), 1)
        self.assertEqual(self.err, 'ortime: "bad": not an Orvo timing stream file\n')
        bad, good = json.loads(self.out)["recordings"]
        self.assertEqual(bad["error"], '"bad": not an Orvo timing stream file')
        self.assertEqual(good["channels"][0]["shortest_interval_ps"], -10)
        self.assertIsNone(good["judged"]["channels"][1]["measured_hz"])
        self.assertIsNone(good["channels"][0]["extra_events"])  # of the inputs nobody knows
        self.assertIsNone(good["judged"]["pass"])

    def test_locks_are_dated_by_the_tag_before(self):
        self.add_run(4000, LOST_LOCK)
        self.assertEqual(self.ortime("info overflow_frequency_01.ortime --chunk-bytes 4096"), 0)
        self.assertIn('\ndivider_from="intervals"\n', self.out)
        self.assertEqual(self.out.count(" expected_interval_ps=32277473.684 "), 4)
        self.assertIn("\nlocks:\n  taken=2\n  dropped=1\n  skipped_bytes=26\n", self.out)
        self.assertTrue(self.out.endswith("""
  events:
    kind="locked" payload_offset_bytes=2 tags_before=0 \
detail="locked bits=16 drop_bytes=2 bit_offset=2 raw_bytes=4094"
    kind="sync_channel_mismatch" payload_offset_bytes=68511 tags_before=14336 \
time_ps=1115650189136 detail="drop sync channel mismatch ch=2 expected=0 record=1252 chunks_left=3"
    kind="locked" payload_offset_bytes=68535 tags_before=14336 time_ps=1115650189136 \
detail="locked bits=16 drop_bytes=24 bit_offset=2 raw_bytes=5193"
  events_left_out=0
"""), self.out)

    def test_any_times_are_counted_once(self):
        source = random.Random(1)
        self.write_tags([(source.randrange(4), source.getrandbits(61) >> source.randrange(61))
                         for _ in range(40_000)])
        self.assertEqual(self.ortime("info a.ortime"), 0)
        info = self.out
        self.assertEqual(self.ortime("verify a.ortime --divider 1"), 2)
        channels = re.findall(r"  ch(.) count=(\d+ first_ps=\d+ last_ps=\d+ )", self.out)
        self.assertEqual(len(channels), 4)
        for channel, numbers in channels:
            self.assertIn(f"  channel={channel} count={numbers}", info)

    def test_skew_is_that_of_the_nearest_event(self):
        for skew_ps in 248, -248, 3_000_000, -3_000_000:
            for order in 1, -1:  # of the two channels in the stream
                tags = []
                for i in range(1, 1001):
                    tags += [(0, i * 10_000_000), (1, i * 10_000_000 + skew_ps + i % 2 * 8 - 4)][::order]
                self.write_tags(tags, mode="internal")
                self.assertEqual(self.ortime("info a.ortime"), 0)
                self.assertIn(f' skew={{"count":1000,"mean_ps":{skew_ps}.0,"median_ps":{skew_ps}.0,'
                              '"standard_deviation_ps":4.0}', self.out)
