"""Recordings in Python: the numbers of ortime, as arrays that own what they show."""

import ast
import csv
import gc
import io
import os
import pathlib
import subprocess
import sys
import tempfile
import threading
import unittest

import numpy as np

import orvo_timing as ot

BIN = pathlib.Path(os.environ["ORVO_BIN"])
os.environ.pop("LD_PRELOAD", None)  # the programs have a sanitizer's runtime of their own


def record(folder, sim):
    """A run of the tool on the simulated instrument; returns its directory."""
    settings = {**os.environ, "ORVO_SIM": sim}
    subprocess.run(
        [BIN / "ot-simulated", BIN / "ot_verify_overflow_frequency", "--frequencies-hz=1000,100000",
         "--capture-s=0.1", f"--output-root={folder}"],
        env=settings, capture_output=True, cwd=folder, check=False)
    return next(path for path in pathlib.Path(folder).iterdir() if path.is_dir())


def ortime(*arguments):
    return subprocess.run([BIN / "ortime", *arguments], capture_output=True, text=True, check=False)


class Recordings(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.runs = {}
        for name, sim in (("good", "pace=ps:120000000000"),
                          ("failing", "pace=ps:120000000000;rate_error_ppm=2:40"),
                          ("damaged", "pace=ps:120000000000;damage=flip@20000,flip@20001,flip@20002")):
            folder = pathlib.Path(cls.folder.name) / name
            folder.mkdir()
            cls.runs[name] = record(folder, sim)
        cls.file = cls.runs["good"] / "overflow_frequency_02.ortime"

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def test_tags_are_those_of_ortime(self):
        for run in self.runs.values():
            for file in sorted(run.glob("*.ortime")):
                rows = csv.reader(io.StringIO(ortime("tags", str(file)).stdout))
                next(rows)
                expected = [(int(channel), int(time)) for channel, time in rows]
                self.assertGreater(len(expected), 50)
                self.assertEqual(ot.Recording(file).tags().tolist(), expected)

    def test_blocks_of_any_size_are_the_tags(self):
        recording = ot.Recording(str(self.file), chunk_bytes=5000)
        tags = recording.tags()
        for max_tags in (1, 7, 4096, 10**9):
            blocks = list(recording.blocks(max_tags)) if max_tags > 1 else [
                block for block, _ in zip(recording.blocks(1), range(100))]
            self.assertTrue(all(len(block) == max_tags for block in blocks[:-1]))
            joined = np.concatenate(blocks)
            np.testing.assert_array_equal(joined, tags[:len(joined)])
            self.assertEqual(len(joined), len(tags) if max_tags > 1 else 100)

    def test_verdicts_are_those_of_the_report(self):
        for name, run in self.runs.items():
            verification = ot.load_run(run)
            self.assertEqual(verification.passed, name == "good", name)
            for reported in verification.runs:
                judged = ot.judge(reported.recording.path, reported.divider)
                self.assertEqual(judged.passed, reported.passed)
                for ours, theirs in zip(judged.channels, reported.channels):
                    self.assertEqual((ours.count, ours.first_ps, ours.last_ps, ours.passed),
                                     (theirs.count, theirs.first_ps, theirs.last_ps, theirs.passed))
                    self.assertAlmostEqual(ours.ppm_error, theirs.ppm_error, delta=1e-6)
        self.assertFalse(ot.load_run(self.runs["failing"]).runs[1].channels[2].passed)

    def test_lock_events(self):
        recording = ot.Recording(self.runs["damaged"] / self.file.name)
        kinds = [event.kind for event in recording.lock_events]
        self.assertEqual(kinds[0], ot.LockKind.LOCKED)
        self.assertTrue(any(event.drops_lock for event in recording.lock_events))
        self.assertEqual([event.kind for event in ot.Recording(self.file).lock_events], kinds[:1])

    def test_errors(self):
        with self.assertRaises(FileNotFoundError):
            ot.Recording("/no/such/file.ortime")
        text = pathlib.Path(self.folder.name) / "text"
        text.write_text("no recording, but long enough to have a magic")
        with self.assertRaises(ot.FormatError) as caught:
            ot.Recording(text)
        self.assertIsInstance(caught.exception, ValueError)
        self.assertEqual(caught.exception.status, ot.FormatError.status)
        with self.assertRaises(ot.FormatError):
            ot.load_run(text)
        header = b'{"stream_format":"packed_delta","delta_bits":99}'
        text.write_bytes(b"ORTIME1\n" + len(header).to_bytes(4, "little") + header + bytes(999))
        with self.assertRaises(ot.FormatError):
            ot.Recording(text).tags()
        with self.assertRaisesRegex(ValueError, "max_tags"):
            ot.Recording(self.file).blocks(0)
        with self.assertRaisesRegex(ValueError, "divider"):
            ot.judge(self.file, -1)
        with ot.Recording(self.file) as recording:
            pass
        with self.assertRaisesRegex(ValueError, "closed"):
            recording.tags()

    def test_arrays_outlive_the_recording(self):
        recording = ot.Recording(self.file)
        tags, block = recording.tags(), next(iter(recording))
        expected = tags.copy()
        del recording
        gc.collect()
        np.testing.assert_array_equal(tags, expected)
        np.testing.assert_array_equal(block, expected[:len(block)])
        block["time_ps"] += 1

    def test_threads_with_a_recording_each(self):
        expected = ot.Recording(self.file).tags()["time_ps"].sum()
        sums = []

        def work():
            recording = ot.Recording(self.file, chunk_bytes=3000)
            sums.append(sum(int(block["time_ps"].sum()) for block in recording.blocks(1000)))

        threads = [threading.Thread(target=work) for _ in range(2)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(sums, [int(expected)] * 2)

    def test_stubs_name_what_there_is(self):
        stub = pathlib.Path(ot.__file__).with_suffix(".pyi")
        stubbed = {}
        for node in ast.parse(stub.read_text()).body:
            if isinstance(node, ast.ClassDef):
                stubbed[node.name] = {getattr(item, "name", None) or item.target.id
                                      for item in node.body if not isinstance(item, ast.Expr)}
            elif isinstance(node, ast.FunctionDef):
                stubbed[node.name] = {argument.arg for argument in
                                      node.args.args + node.args.kwonlyargs}
        self.assertEqual(sorted(stubbed), ot.__all__)
        for name, members in stubbed.items():
            there = getattr(ot, name)
            self.assertTrue(there.__doc__, name)
            if isinstance(there, type):
                fields = set(getattr(there, "__dataclass_fields__", ()))
                public = {member for member in vars(there) if not member.startswith("_")
                          and member not in ("name", "value")}
                dunder = {member for member in members if member.startswith("_")}
                self.assertEqual(public | fields | dunder, members, name)
                self.assertTrue(all(hasattr(there, member) for member in dunder), name)
            else:
                code = there.__code__
                count = code.co_argcount + code.co_kwonlyargcount
                self.assertEqual(set(code.co_varnames[:count]), members, name)


if __name__ == "__main__":
    unittest.main()
