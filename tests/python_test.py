"""Recordings in Python: the numbers of ortime and of the tool, as arrays that own what they show."""

import importlib.util
import json
import math
import os
import pathlib
import pickle
import re
import shutil
import signal
import sys
import tempfile
import threading
import time
import unittest
from concurrent.futures import ThreadPoolExecutor

import numpy as np

import orvo_timing as ot

SANITIZER = os.environ.pop("LD_PRELOAD", "")  # the programs have a sanitizer's runtime of their own
from support.programs import TOOL, shell, stream_file

# The document's, by the package that each needs.
RECIPES = dict(zip(("pandas", "h5py", "numpy"), re.findall(
    "```python\n(.*?)```", pathlib.Path("../docs/python.md").read_text().split("## Recipes")[1], re.S)))


def record(folder, fault):
    """A run of the tool on the simulated instrument; returns its directory."""
    shell(f"{TOOL} --frequencies-hz=1000,100000 --capture-s=0.1 --output-root='{folder}'",
          sim="pace=ps:120000000000;" + fault)
    return next(path for path in folder.iterdir() if path.is_dir())


def plain(value):
    """A document as JSON has it."""
    if isinstance(value, ot.Facts):
        return {name.replace("passed", "pass"): plain(member) for name, member in vars(value).items()}
    return list(map(plain, value)) if isinstance(value, tuple) else value


class Recordings(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.scratch.cleanup)
        cls.folder = pathlib.Path(cls.scratch.name)
        cls.runs = {name: record(cls.folder / name, fault) for name, fault in (
            ("good", ""),
            ("failing", "rate_error_ppm=2:40"),
            ("damaged", "damage=flip@20000,flip@20001,flip@20002"),
            ("shifted", "damage=drop@21000"))}
        cls.file = cls.runs["good"] / "overflow_frequency_02.ortime"

    def test_tags_are_those_of_ortime(self):
        for file in sorted(self.folder.glob("*/*/*.ortime")):
            recording = ot.Recording(file, 8192)
            from_ps, to_ps = (np.quantile(recording.tags()["time_ps"], (0.1, 0.6), method="nearest"))
            for options, wanted in (
                    ("", {}),
                    ("--channel=2", dict(channel=np.uint8(2))),
                    (f"--from-ps={from_ps}", dict(from_ps=from_ps)),
                    (f"--channel=0,3 --to-ps={to_ps}", dict(channel=(0, 3), to_ps=int(to_ps)))):
                shell(f"ortime tags --chunk-bytes=8192 '{file}' -o '{self.folder}/t.npy' " + options)
                expected = np.load(self.folder / "t.npy")
                self.assertGreater(len(expected), 50)
                np.testing.assert_array_equal(recording.tags(**wanted), expected)
                np.testing.assert_array_equal(np.concatenate(list(recording.blocks(7, **wanted))), expected)

    def test_says_its_version_and_what_it_lacks(self):
        self.assertEqual(f"ortime {ot.__version__}\n", shell("ortime --version").stdout)
        no_numpy = "import sys; sys.modules['numpy'] = None; import orvo_timing"
        self.assertIn(f"orvo_timing needs NumPy, which {sys.executable} cannot import\n",
                      shell(f'"{sys.executable}" -c "{no_numpy}"').stderr)

    def test_blocks_of_any_size_are_the_tags(self):
        def blocks_of(max_tags):
            return list(ot.Recording(str(self.file), chunk_bytes=5000).blocks(max_tags))

        tags = ot.Recording(self.file).tags()
        sizes = (77, np.int16(4096), 10**9)
        with ThreadPoolExecutor(2) as pool:
            for max_tags, blocks in zip(sizes, pool.map(blocks_of, sizes)):
                self.assertEqual({len(block) for block in blocks[:-1]} - {max_tags}, set())
                np.testing.assert_array_equal(np.concatenate(blocks), tags)
        recordings, blocks = zip(*ot.iterate([ot.load_run(self.file.parent), ot.Recording(self.file)], 40000,
                                             channel=(channel for channel in range(4))))
        self.assertEqual([(recording.path.name[-8], len(block))
                          for recording, block in zip(recordings, blocks)],
                         [("1", 484), ("2", 40000), ("2", 7972), ("2", 40000), ("2", 7972)])
        np.testing.assert_array_equal(np.concatenate(blocks[3:]), tags)
        (_, block), = ot.iterate(self.file, channel=1, from_ps=tags["time_ps"][4], to_ps=tags["time_ps"][12])
        self.assertEqual(len(block), 2)
        blocks = ot.Recording(self.file).blocks(10**9)
        self.assertEqual([len(block) for block in (*blocks, *blocks)], [len(tags)])
        block = next(iter(ot.Recording(self.file)))  # its own, as all arrays here outlive theirs
        block["time_ps"] += 1
        np.testing.assert_array_equal(block["time_ps"], tags["time_ps"][:len(block)] + 1)

    def test_an_interruption_from_another_thread_loses_nothing(self):
        self.addCleanup(signal.signal, signal.SIGINT,
                        signal.signal(signal.SIGINT, signal.default_int_handler))
        self.addCleanup(sys.setswitchinterval, sys.getswitchinterval())
        sys.setswitchinterval(600)  # it runs only where the decoding thread lets it
        blocks = ot.Recording(self.file, chunk_bytes=1).blocks(10**9)
        threading.Timer(0.02, signal.raise_signal, [signal.SIGINT]).start()
        with self.assertRaises(KeyboardInterrupt):
            next(blocks)
        np.testing.assert_array_equal(next(blocks), ot.Recording(self.file).tags())

    def test_verdicts_are_those_of_the_tool_and_documents_those_of_ortime(self):
        for name, run in self.runs.items():
            reported = plain(ot.load_run(run))
            again = plain(ot.verify(run))
            # Of the shifted one only the beginning is decoded.
            self.assertEqual((reported["pass"], again["pass"]), 2 * (name in ("good", "shifted"),), name)
            document = json.loads(shell(f"ortime verify --json '{run}'").stdout)
            self.assertEqual(again, {**document, "pass": document["verdict"]["pass"]})
            self.assertEqual(reported["settings"], document["settings"])
            report = json.loads((run / "overflow_frequency.json").read_text())["runs"]
            for loaded, judged, there in zip(reported["recordings"], again["recordings"], report, strict=True):
                self.assertEqual(loaded, {name: judged[name] for name in loaded})
                mine = [judged["reported"].pop("channels"), there.pop("channels")]
                self.assertEqual(judged["reported"] | {"stream_file": there["stream_file"]}, there)
                self.assertEqual([channel | {"judged": True} for channel in mine[1]], mine[0])
                one = plain(ot.judge(judged["stream_file"], np.uint32(there["divider"])))
                self.assertEqual(one, judged["judged"] | {"requested_hz": None})
                recording = ot.Recording(judged["stream_file"])
                self.assertEqual((recording.counts, recording.first_ps, recording.last_ps),
                                 (tuple(c["count"] for c in one["channels"]),
                                  min(c["first_ps"] for c in one["channels"]),
                                  max(c["last_ps"] for c in one["channels"])))
        failing = self.runs["failing"]
        self.assertEqual([c.passed for c in ot.load_run(failing).recordings[1].reported.channels],
                         [True, True, False, True])
        for given, passed in ({"channel_mask": 0b1011}, True), ({"tolerance_ppm": 41}, True), \
                ({"tolerance_ppm": 41, "min_tags_per_channel": 10**6}, False), ({}, False):
            self.assertIs(ot.judge(failing / self.file.name, 310, **given).passed, passed)
            self.assertIs(ot.verify(failing, **given).passed, passed)

    # A timer's signal early in its processor time, as Ctrl-C: it ends then, not when all is decoded.
    def test_judging_can_be_interrupted(self):
        def seconds_until(interruption_s):
            signal.setitimer(signal.ITIMER_PROF, interruption_s)
            before = time.process_time()
            try:
                ot.judge(self.file, 310, chunk_bytes=1)
            except KeyboardInterrupt:
                pass
            return time.process_time() - before

        signal.signal(signal.SIGPROF, signal.default_int_handler)
        whole_s = seconds_until(0)
        self.assertLess(seconds_until(whole_s / 20), whole_s / 2)

    def test_a_run_is_whatever_ortime_takes(self):
        root = self.folder / "inf"
        shell(f"{TOOL} --frequencies-hz=1000 --capture-s=0.1 --tolerance-ppm=inf --output-root='{root}'",
              sim="pace=ps:120000000000")
        run_dir = next(path for path in root.iterdir() if path.is_dir())
        for path in root, run_dir, root / "latest.json", str(run_dir / "overflow_frequency.json"):
            run = ot.load_run(path)
            self.assertEqual(run.run_directory, str(run_dir))
            self.assertEqual((run.passed, run.settings.tolerance_ppm), (True, math.inf))
            self.assertEqual(run.recordings[0].stream_file, str(run_dir / "overflow_frequency_01.ortime"))
        copy = self.folder / "cop\udce9"
        shutil.copytree(run_dir, copy)
        self.assertTrue(ot.verify(copy).recordings[0].stream_file.startswith(str(copy)))
        report = copy / "overflow_frequency.json"
        report.write_text(report.read_text().replace('"decoded_tags":', '"decoded_tags":1', 1))
        self.assertIs(ot.verify(copy).passed, False)  # although all passes
        report.unlink()  # as an error leaves it
        run = ot.load_run(copy)
        self.assertEqual((run.passed, run.report, run.recordings[0].reported), (None, None, None))
        self.assertEqual(run.recordings[0].header.mode, "internal")
        (run_dir / "overflow_frequency_01.ortime").unlink()
        with self.assertRaises(FileNotFoundError):
            list(ot.iterate(run_dir))

    def test_headers_are_those_of_ortime(self):
        descriptors = os.listdir("/proc/self/fd")
        header = ot.Recording(self.file).header
        self.assertEqual(os.listdir("/proc/self/fd"), descriptors)
        said = re.findall('^  (\\w+)="?([^"\n]*)"?$', shell(f"ortime info '{self.file}'").stdout,
                          re.M)[:13]
        for name, text in said:
            value = getattr(header, name)
            self.assertEqual(value.name.lower() if hasattr(value, "name") else str(value), text)
        self.assertEqual({name for name, _ in said},
                         {name for name in dir(header) if not name.startswith("_")})

    def test_lock_events_have_what_belongs_to_their_kind(self):
        in_sync = self.folder / "in_sync"  # records of a byte: a sync and its event, then half of one
        in_sync.write_bytes(stream_file(b'{"mode":"external","channel_mask":1,"delta_bits":5}',
                                        b"\x3f" + bytes(10) + b"\x3f\0\x40"))
        found = [event for file, chunk_bytes in ((self.runs["shifted"] / self.file.name, 8192), (in_sync, 11))
                 for event in ot.Recording(file, chunk_bytes).lock_events[:3]]
        kind = ot.LockKind
        info = json.loads(shell(f"ortime info --json '{self.file}'").stdout)
        self.assertEqual([one.name.lower() for one in kind], list(info["recordings"][0]["locks"]["counts"]))
        self.assertEqual(found, [
            ot.LockEvent(kind.LOCKED, bit_offset=3, buffer_bytes=8192),
            ot.LockEvent(kind.IMPLAUSIBLE_DELTA, drops_lock=True, payload_offset_bytes=44040,
                         tags_before=9252, channel=2, delta_ps=121041000761344,
                         prev_ps=1130963591576, record=1296, records=3449),
            ot.LockEvent(kind.LOCKED, payload_offset_bytes=44041, tags_before=9252, drop_bytes=1,
                         bit_offset=3, buffer_bytes=13303),
            ot.LockEvent(kind.LOCKED, buffer_bytes=11),
            ot.LockEvent(kind.INACTIVE_CHANNEL, drops_lock=True, payload_offset_bytes=14,
                         tags_before=1, channel=1, record=2, records=3)])
        self.assertEqual([sum(channel.judged for channel in ot.judge(in_sync, 1, channel_mask=mask).channels)
                          for mask in (None, 0)], [1, 4])  # 0: all
        in_sync.write_bytes(stream_file(b"{}", b""))
        empty = ot.Recording(in_sync)
        self.assertEqual((empty.counts, empty.first_ps, empty.last_ps), ((0, 0, 0, 0), None, None))
        self.assertEqual(repr(found[3]), "LockEvent(LockKind.LOCKED, buffer_bytes=11)")
        for value in (found, ot.Recording(self.file).header, ot.judge(self.file, 310), ot.load_run(self.file.parent)):
            self.assertEqual(pickle.loads(pickle.dumps(value)), value)
        shifted = ot.Recording(self.runs["shifted"] / self.file.name, 8192)
        self.assertEqual(pickle.loads(pickle.dumps(shifted)).lock_events[:3], found[:3])

    def test_errors(self):
        text = self.file.with_name("overflow_frequency.csv")
        undecodable = self.folder / "undecodable"
        undecodable.write_bytes(stream_file(b'{"delta_bits":99}', bytes(9)))
        empty, six_bytes, pipe = (self.folder / name for name in ("empty", "six_bytes", "pip\udce9"))
        empty.write_bytes(b"")
        six_bytes.write_bytes(b"ORTIME")
        os.mkfifo(pipe)
        foreign = self.folder / "foreign.json"
        foreign.write_text('{"pass": true}')
        with ot.Recording(self.file) as closed:
            blocks = iter(closed)
            next(blocks)
        for status, error, message, call in (
                (-2, FileNotFoundError, "no/such", lambda: ot.Recording("no/such")),
                (-2, IsADirectoryError, str(self.folder), lambda: ot.judge(self.folder, 1)),
                (-2, OSError, "a pipe.*pip", lambda: ot.Recording(pipe)),
                (-2, ot.FormatError, "empty", lambda: ot.Recording(empty)),
                (-2, ot.FormatError, "six_bytes", lambda: ot.Recording(six_bytes)),
                (-4, ot.FormatError, "[.]csv", lambda: ot.Recording(text)),
                (-4, ot.FormatError, "undecodable", ot.Recording(undecodable).tags),
                (-4, ot.FormatError, "parse error", lambda: ot.load_run(text)),
                (-4, ot.FormatError, "foreign.json.*verification", lambda: ot.load_run(foreign)),
                (None, FileNotFoundError, "no/such", lambda: ot.load_run("no/such")),
                (None, ot.Error, "neither", lambda: ot.verify(self.folder)),
                (None, ot.Error, "neither", lambda: list(ot.iterate("."))),
                (None, ValueError, "min_tags", lambda: ot.verify(self.runs["good"], min_tags_per_channel=-1)),
                (None, ValueError, "max_tags", lambda: ot.Recording(self.file).blocks(0)),
                (None, ValueError, "channel", lambda: ot.Recording(self.file).tags(channel=(1, 4))),
                (None, TypeError, "from_ps", lambda: ot.Recording(self.file).tags(from_ps=1.5)),
                (None, TypeError, "chunk_bytes", lambda: ot.Recording(self.file, chunk_bytes=1.5)),
                (None, ValueError, "divider", lambda: ot.judge(self.file, 0)),
                (None, ValueError, "tolerance_ppm", lambda: ot.judge(self.file, 1, tolerance_ppm=np.nan)),
                (None, ValueError, "closed", closed.tags),
                (None, ValueError, "closed", closed.__enter__),
                (None, ValueError, "closed", lambda: next(blocks)),
                (None, ValueError, "closed", lambda: closed.lock_events)):
            with self.assertRaisesRegex(error, message) as caught:
                call()
            if status:
                self.assertIsInstance(caught.exception, ot.Error)
                again = pickle.loads(pickle.dumps(caught.exception))
                self.assertEqual((type(again), str(again), again.status),
                                 (type(caught.exception), str(caught.exception), status))
        self.assertTrue(issubclass(ot.FormatError, ValueError))

    def test_recipes_do_what_they_say(self):
        names = {}
        self.addCleanup(os.chdir, os.getcwd())
        os.chdir(self.folder)
        os.symlink(self.file, "overflow_frequency_03.ortime")
        tags = ot.Recording(self.file).tags()
        for package, held in (("pandas", lambda: names["table"]),
                              ("h5py", lambda: names["h5py"].File("tags.h5")),
                              ("numpy", lambda: tags)):
            with self.subTest(package):
                if not importlib.util.find_spec(package):
                    self.skipTest(f"python3-{package} is not installed")
                exec(RECIPES[package], names)
                for name in tags.dtype.names:
                    np.testing.assert_array_equal(held()[name], tags[name])
        channels, window_ps = (0, 1), 25 * 10**6  # events are 10 us apart
        pairs = names["pairs_in"](tags, channels, window_ps)
        self.assertGreater(pairs, len(tags))
        self.assertEqual(names["coincidences"](ot.Recording(self.file), channels, window_ps), pairs)

    def test_types_are_as_the_stubs_say(self):
        if SANITIZER or not importlib.util.find_spec("mypy"):
            self.skipTest("mypy is not installed, or would run with a sanitizer")
        for package, recipe in RECIPES.items():
            (self.folder / f"{package}_recipe.py").write_text(recipe)
        package = pathlib.Path(ot.__file__).parent
        (self.folder / "allowed").write_text("orvo_timing._native[.](Recording|StopFlag|Blocks([.]__init__)?)")
        for check in (f"mypy.stubtest orvo_timing._native --allowlist '{self.folder}/allowed'",
                      "mypy --strict --ignore-missing-imports ../examples/nearest_events.py "
                      f"'{package}' '{self.folder}'/*_recipe.py"):
            done = shell(f"MYPYPATH='{package.parent}' MYPY_CACHE_DIR='{self.folder}/cache' "
                         f"'{sys.executable}' -m {check}")
            self.assertEqual(done.returncode, 0, done.stdout)
