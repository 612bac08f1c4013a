"""An archive of runs judged again: its table, on threads and on a cluster."""

import csv
import fcntl
import importlib.util
import json
import os
import shutil
import signal
import socket
import sys
import unittest

preloaded = os.environ.pop("LD_PRELOAD", "")  # by a sanitizer, for the module alone
import orvo_timing as ot
from orvo_timing._native import StopFlag
from orvo_timing.archive import Pool, Settings, fill, finished, row_of, rows as rows_of
from support.programs import TOOL, ProgramTest, shell

PYTHON = f"env LD_PRELOAD='{preloaded}' '{sys.executable}' -m "
ARCHIVE = PYTHON + "orvo_timing.archive "
DASK = PYTHON + "distributed.cli.dask_"
FIRST, SECOND = "overflow_frequency_01.ortime", "overflow_frequency_02.ortime"
SLOWLY = "--chunk-bytes=1 "


class ArchiveTest(ProgramTest):
    def setUp(self):
        super().setUp()
        for name, sim in ("good", ""), ("drift", "rate_error_ppm=2:-40"):
            shell(f"{TOOL}--frequencies-hz=1000,100000 --capture-s=0.1 --output-root=runs/{name}",
                  self.folder, "pace=ps:120000000000;" + sim)
            next((self.folder / "runs" / name).glob("2*")).rename(self.folder / name)
        shutil.rmtree(self.folder / "runs")

    def add(self, name):
        return shutil.copytree(self.folder / "good", self.folder / "all" / name)

    def table(self, roots, **status):
        done = shell(f"{ARCHIVE}{roots} -o table.csv", self.folder)
        self.summary = done.stderr
        self.assertEqual(done.returncode, status["status"], done.stderr)
        with open(self.folder / "table.csv", newline="", encoding="utf-8",
                  errors="surrogateescape") as file:
            return list(csv.DictReader(file))


class Archive(ArchiveTest):
    def test_each_recording_has_its_row(self):
        cut, missing, report, odd, stopped, tampered, held = map(
            self.add, ("cut", "missing", "report", "odd\udcff\n", "stopped", "tampered", "written"))
        shutil.move(self.folder / "drift", self.folder / "all")
        (cut / FIRST).write_bytes((cut / FIRST).read_bytes()[:-100])
        (missing / FIRST).unlink()  # although it is still where it was recorded
        told = json.loads((missing / "overflow_frequency.json").read_text())["runs"][0]["stream_file"]
        shutil.copytree(self.folder / "good", (self.folder / told).parent)
        (odd / FIRST).write_text("a foreign file")
        (report / "overflow_frequency.json").write_text("{}")
        (stopped / "overflow_frequency.json").unlink()
        text = (tampered / "overflow_frequency.json").read_text()
        (tampered / "overflow_frequency.json").write_text(text.replace('"pass":true', '"pass":false', 1))
        for file, sign in (tampered / SECOND, b"="), (cut / SECOND, b"-"):
            begin, time, end = file.read_bytes().partition(b'"created_utc":"2')
            file.write_bytes(begin + time[:-1] + sign + end)
        descriptor = os.open(held, os.O_RDONLY)
        self.addCleanup(os.close, descriptor)
        fcntl.flock(descriptor, fcntl.LOCK_EX)
        rows = self.table("all nowhere", status=1)
        found = [(row["run_directory"].rpartition("/")[2], row["state"], row["reported_pass"], row["pass"],
                  row["differences"][:13], row["worst_channel"] == "2") for row in rows]
        same = ("judged", "true", "true", "", False)
        self.assertEqual([row[:5] + (row[5] and row[0] == "drift",) for row in found], [
            ("cut", "judged", "true", "true", "payload_bytes", False), ("cut", *same),
            ("drift", "judged", "false", "false", "", True), ("drift", "judged", "false", "false", "", True),
            ("missing", "missing", "true", "", "", False), ("missing", *same),
            ("odd\udcff\n", "unreadable", "true", "", "", False), ("odd\udcff\n", *same),
            ("report", "unreadable", "", "", "", False),
            ("stopped", "no report", "", "", "", False), ("stopped", "no report", "", "", "", False),
            ("tampered", "judged", "true", "true", "pass of the w", False), ("tampered", *same),
            ("written", "being written", "", "", "", False), ("nowhere", "no folder", "", "", "", False)])
        self.assertAlmostEqual(float(rows[2]["ppm_error"]), -40, 3)
        self.assertEqual([(row["error"][-30:], row["requested_hz"], row["divider"]) for row in (
            rows[4], rows[-1])], [("missing", "1000.0", "30978"), ("No such file or directory", "", "")])
        self.assertGreater(int(rows[9]["ch3_count"]), 50)
        self.assertEqual([rows[i]["start_utc"][:5] for i in (12, 1)], ["'=026", "'-026"])  # no formulas
        self.assertEqual([row["error"] for row in rows if row["state"] in ("judged", "being written")],
                         9 * [""])

    def test_folders_and_links_count_once(self):
        run = self.add("a/b")
        (run / "circle").symlink_to("../..")
        (self.folder / "link").symlink_to("all/a")
        shutil.copytree(run, self.folder / "all/a/hard", copy_function=os.link, symlinks=True)
        rows = self.table("all/a/b link all .//all/a", status=0)
        self.assertEqual([row["stream_file"] for row in rows], [
            str(self.folder / "all/a" / place) for place in (
                f"b/{FIRST}", f"b/{SECOND}", f"hard/{FIRST}", f"hard/{SECOND}")])
        self.assertIn("4 recordings of 2 runs", self.summary)
        for roots, status in ("all", 0), ("drift", 2), ("all/a/b --min-tags-per-channel=9999999", 2), \
                ("all all/nowhere", 1):
            self.table(roots, status=status)
        (run / FIRST).write_bytes((run / FIRST).read_bytes()[:-100])
        self.table("all drift", status=3)
        (self.folder / "empty").mkdir()
        self.table("empty", status=1)

    def test_a_silent_channel_is_the_worst_and_a_link_stays_one(self):
        recording = ot.verify(self.folder / "drift").recordings[1]
        recording.judged.channels[0].judged, recording.judged.channels[0].count = False, 0
        recording.judged.channels[3].ppm_error = None
        row = row_of("", "", "")
        fill(row, recording, "")
        self.assertEqual((row["worst_channel"], row["ppm_error"], row["decoded_share"] > 0.9), (3, None, True))
        (self.folder / "table.csv").symlink_to("real.csv")
        self.table("good", status=0)
        self.assertTrue((self.folder / "table.csv").is_symlink())
        (self.folder / "good" / FIRST).unlink()
        self.table("good", status=1)

    def test_ends_at_control_c_with_what_is_done(self):
        for number in range(100):
            self.add(f"{number:03}")
        process = self.start(f"{ARCHIVE}{SLOWLY} all")
        self.assertTrue(process.run_until(lambda: process.out))
        process.signal(signal.SIGINT)
        process.finish()
        self.assertEqual(process.status, 130)
        self.assertTrue(process.err.endswith("this is not all\n"), process.err)
        self.assertTrue(process.out.endswith("\r\n"))
        self.assertLess(process.out.count("\n"), 201)
        self.assertEqual(shell(f"{ARCHIVE} all | head -n 1", self.folder).stderr, "")


    def test_says_what_a_cluster_lacks(self):
        def submit(unit, _):  # to a worker that sees one of two recordings
            state = "missing" if unit.number else "judged"
            return finished(row_of(unit.run_directory, unit.stream_file, state))

        found = []
        with self.assertRaisesRegex(ot.Error, f"a worker does not see '.*{SECOND}'"):
            for row in rows_of([str(self.folder / "good")], Settings(None, None, 1),
                               Pool(submit, lambda: None, True, StopFlag())):
                found.append(row["state"])
        self.assertEqual(found, ["judged"])
        no_dask = ("import runpy, sys; sys.modules['distributed'] = None; "
                   "runpy.run_module('orvo_timing.archive', run_name='__main__')")
        done = shell(f'{PYTHON[:-3]}-c "{no_dask}" good --scheduler tcp://127.0.0.1:1', self.folder)
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertRegex(done.stderr, "^orvo_timing.archive: a scheduler needs Dask, package "
                                      "python3-distributed: .*\n$")


class Cluster(ArchiveTest):
    def test_cluster_makes_the_same_table(self):
        if not importlib.util.find_spec("distributed"):
            print("python3-distributed is missing")  # for ctest, which shows no reasons
            self.skipTest("python3-distributed is missing")
        for number in range(50):
            self.add(f"{number:03}")
        self.table(SLOWLY + "all drift", status=2)
        with socket.create_server(("127.0.0.1", 0)) as unused:
            address = f"127.0.0.1:{unused.getsockname()[1]}"
        scheduler = self.start(f"{DASK}scheduler --no-dashboard --host {address}")
        # A worker could take the port first.
        self.assertTrue(scheduler.run_until(lambda: "Scheduler at" in scheduler.err), scheduler.err)

        def worker(environment=""):
            process = self.start(f"env {environment} {DASK}worker tcp://{address} --no-nanny "
                                 "--nthreads 1 --host 127.0.0.1 --no-dashboard")
            self.assertTrue(process.run_until(lambda: "Registered to" in process.err), process.err)
            return process

        (self.folder / "bare").mkdir()
        (self.folder / "bare/orvo_timing.py").write_text("raise ModuleNotFoundError('not here')")
        bare = worker(f"PYTHONPATH='{self.folder}/bare'")
        done = shell(f"{ARCHIVE}drift --scheduler tcp://{address}", self.folder)
        self.assertEqual((done.returncode, done.stderr.splitlines()[-1]), (
            1, "orvo_timing.archive: a worker cannot judge: not here; has it this version of "
               "orvo_timing?; this is not all"))
        bare.stop()
        workers = [worker(), worker()]
        process = self.start(f"{ARCHIVE}{SLOWLY}all drift --scheduler tcp://{address}")
        self.assertTrue(process.run_until(lambda: process.out), process.err)
        os.kill(workers[0].child.pid, signal.SIGKILL)
        process.finish()
        self.assertEqual(process.status, 2, process.err)
        self.assertEqual(process.out.encode(errors="surrogateescape"), (self.folder / "table.csv").read_bytes())
        process = self.start(f"{ARCHIVE}{SLOWLY}all --scheduler tcp://{address}")
        self.assertTrue(process.run_until(lambda: process.out), process.err)
        os.kill(scheduler.child.pid, signal.SIGKILL)
        process.finish()
        self.assertEqual(process.status, 1)
        self.assertIn("has gone away; this is not all\n", process.err)
        done = shell(f"{ARCHIVE}all --scheduler tcp://{address}", self.folder)
        self.assertEqual((done.returncode, done.stderr), (
            1, f"orvo_timing.archive: no scheduler answers at tcp://{address} within 5 seconds\n"))


if __name__ == "__main__":
    unittest.main()
