"""Run directories as the tool leaves them, and what else may be found in their place."""

import fcntl
import os
import shutil

from support.ortime import REPORT, OrtimeTest, recording


class RunDirectory(OrtimeTest):
    def setUp(self):
        super().setUp()
        self.run_of_report = self.add_run(100)

    def test_is_refused_with_a_damaged_report(self):
        shutil.copy(self.run_dir() / REPORT, self.here)
        report = (self.here / REPORT).read_text()
        for old, new, error in (
                (report, "[" * 1_000_000, ": parse error at line 1,"),
                (report, " " * ((64 << 20) + 1), " is too large: more than 64 MiB"),
                ('"overflow_f', '"f', ": (/verification) is not overflow_frequency"),
                (":15,", ":256,", ": (/channel_mask) is not an integer from 0 to 255"),
                (":25.000,", ":infinite,", ": parse error at line 9,"),
                ('ps":1000000000160', f'ps":{2**63}',
                 ": (/runs/0/channels/0/first_ps) is not an integer from -9"),
                ('"count":100', '"count":1.5', ": (/runs/0/channels/0/count) is not an integer from 0 to 18"),
                ('"channel":0', '"channel":1', ": (/runs/0/channels/0/channel) is not 0"),
                ('"channels":[', '"channels":[0,', ": (/runs/0/channels) has not 4 elements"),
                ('"runs":[', '"runs":[],"x":[', ": (/runs) is empty"),
                (str(self.run_dir() / recording(1)), "", ": (/runs/0/stream_file) is not a path"),
                (str(self.run_dir() / recording(1)), "a\\u0000", ": (/runs/0/stream_file) is not a path")):
            with self.subTest(error):
                self.assertIn(old, report)
                (self.here / REPORT).write_text(report.replace(old, new, 1))
                self.assertEqual(self.ortime("verify ."), 1)
                self.assertTrue(self.err.startswith(f'ortime: "./{REPORT}"{error}'), self.err)
        self.run_of_report.update(payload_bytes=1, decoded_tags=2)
        for channel in self.run_of_report["channels"]:
            channel["first_ps"] = -5
        self.save_report()
        self.assertEqual(self.ortime("verify ."), 3)
        self.assertIn("run 1: ch0 first_ps=1000000000160 (report: -5)\n", self.err)
        self.assertEqual(self.ortime("report . --json -"), 0)
        self.assertIn(" ch3 first_ps=1000000000928 (report: -5)\",", self.out)  # as many as are named
        (self.here / REPORT).write_text(" " * (60 << 20) + report)
        self.assertEqual(self.ortime("verify ."), 0, self.err)  # as with very many runs

    def test_looks_for_recordings_in_the_directory_that_was_named_first(self):
        there = self.here / os.fsdecode(b'b\xE9 \xC3\xA9"\\\n')  # no UTF-8
        named = '"./b\\xe9 é\\"\\\\\\n"'
        file, away = self.here / "c.ortime", self.here / "away"

        def verify_of(folder):
            self.run_of_report["stream_file"] = str(folder / "c.ortime")
            self.save_report()
            return self.ortime("verify .")

        (self.here / recording(1)).rename(away)
        self.assertEqual(verify_of(there), 1)
        self.assertIn('ortime: run 1: recording "c.ortime" is missing: it is neither in "." nor '
                      f"where it was recorded, {named}", self.err)
        there.mkdir()
        shutil.copy(away, there / "c.ortime")
        self.assertEqual(verify_of(there), 0)
        elsewhere = f'ortime: 1 of 1 recordings are not in ".": read where they were recorded, {named}\n'
        self.assertEqual(self.err, elsewhere)
        self.assertEqual(self.ortime("report . --json -"), 0)
        self.assertIn('"stream_file":"./b\uFFFD é\\"\\\\\\n/c.ortime"', self.out)
        shutil.copy(away, file)
        for folder in there, self.here / "b?":  # which may have been another name
            self.assertEqual(verify_of(folder), 0)
            self.assertIn('\n  stream_file="./c.ortime"\n', self.out)
            self.assertEqual(self.err, "")
        file.unlink()
        file.mkdir()
        self.assertEqual(verify_of(there), 0)
        self.assertEqual(self.err, elsewhere)

    def test_is_taken_by_every_name_that_the_tool_leaves(self):
        root = self.here / "root"
        older, newer = root / "20261124_160312", root / "20261125_080000"
        for folder in older, newer:
            folder.mkdir(parents=True)
            self.run_of_report["stream_file"] = str(folder / recording(1))
            shutil.copy(self.here / recording(1), folder)
            self.save_report(folder)
        shutil.copy(newer / REPORT, root / "latest.json")
        shutil.copytree(newer, root / "later_than_any")
        (self.here / "link").symlink_to(newer)
        for path in "root", f"root/{newer.name}", "root/latest.json", "link", f"root/{newer.name}/{REPORT}":
            with self.subTest(path):
                self.assertEqual(self.ortime("verify " + path), 0)
                self.assertIn(f'="./root/{newer.name}/{recording(1)}"\n', self.out)
                newest = f'ortime: newest run: "./root/{newer.name}"\n'
                self.assertEqual(self.err, newest if path == "root" else "")
        newest = root / "20261126_000000"
        newest.mkdir()
        self.assertEqual(self.ortime("verify root/20261126_000000"), 1)
        self.assertIn(f"holds neither {REPORT} nor a recording nor run directories", self.err)
        left_none = "has no report: it was stopped, an error ended it, or another program recorded it"
        for file, is_held, reason in ((None, False, left_none), (recording(1), False, left_none),
                                      (recording(1), True, "is still running"),
                                      (REPORT, True, "is still running")):
            if file:
                shutil.copy(newer / file, newest)
            held = os.open(newest, os.O_RDONLY)
            if is_held:
                fcntl.flock(held, fcntl.LOCK_EX)
            for command in "verify root", "report root -o page.html":
                with self.subTest(command, file=file):
                    self.assertEqual(self.ortime(command), 1)
                    self.assertEqual(self.err, (
                        f'ortime: the newest run, "./root/{newest.name}", {reason}; name its folder to look '
                        f'at it, or an older one\'s: "./root/{newer.name}"\n'))
            if is_held:
                self.assertEqual(self.ortime(f"report root/{newest.name} -o page.html"), 0)
                self.assertEqual("No verdict: the run is still running" in (self.here / "page.html").read_text(),
                                 file != REPORT)
            os.close(held)
        self.assertEqual(self.ortime("verify root"), 0)
        os.mkfifo(self.here / "pipe.json")
        for words, error in (("verify missing.json", 'cannot open "missing.json": No such file or directory'),
                             ("verify pipe.json", 'cannot open "./pipe.json": Operation not supported'),
                             (f"report {recording(1)} -o p", f'"{recording(1)}" is a recording: name its run'),
                             ("info - <root", "standard input is a directory: name a stream file in it")):
            self.assertEqual(self.ortime(words), 1)
            self.assertEqual(self.err, f"ortime: {error}\n")

    def test_without_a_report_has_its_recordings(self):
        run = self.here / "run"
        (run / recording(3)).mkdir(parents=True)  # no file
        (run / "other.ortime").touch()
        for number in 1, 2, 99, 100:
            (run / recording(number)).touch()
        self.assertEqual(self.ortime("info run"), 1)
        self.assertEqual(self.err, "".join(f'ortime: "./run/{recording(number)}" is no recording: it is empty\n'
                                           for number in (1, 2, 99, 100)))
