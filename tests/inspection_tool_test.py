"""The two programs together: what the tool found in its recordings, ortime finds again."""

import json
import os
import re

from support.programs import TOOL, ProgramTest, lines_with


class InspectionTool(ProgramTest):
    def setUp(self):
        super().setUp()
        self.root = self.folder / os.fsdecode(b"no \xE9 UTF-8")

    def record(self, sim, arguments=""):
        """Runs the tool on 0.1 s of what an instrument says."""
        self.remove_outputs()
        return self.run_whole(f"{TOOL} --capture-s=0.1 --output-root='{self.root.name}' {arguments}",
                              "pace=ps:100000000000;" + sim)

    def test_finds_the_same_numbers_in_every_recording(self):
        for sim in ("", "rate_error_ppm=2:40", "lose=1:3@50,3:7@100", "silent=1",
                    "damage=flip@150000,flip@150001,flip@150002,flip@150003",
                    "pace=ps:50000000000"):  # ends early
            with self.subTest(sim):
                recorded = self.record(sim)
                self.assertEqual(recorded.status, 2 if sim else 0, recorded.err)
                again = self.run_whole(f"ortime verify '{self.run_dir()}'")
                self.assertEqual(again.status, recorded.status)
                self.assertNotIn("(report: ", again.err)  # which names each number that does
                short = "run 3: only 50 ms of a capture of 100 ms decoded"
                self.assertEqual(short in again.err, sim.startswith("pace"), again.err)
                runs = [[sorted(line.split()) for line in text.splitlines() if line.startswith("run ")]
                        for text in (re.sub(" payload_bytes=[0-9]+", "", again.out), recorded.out)]
                self.assertEqual(runs[0], runs[1])

    # Its intervals are of 15 ticks, which one record just holds, and of 16, which take two.
    def test_counts_intervals_that_take_overflow_records(self):
        self.record("jitter_ps=0;pace=ps:1000000000",
                    "--frequencies-hz=1936141 --packed-bits=4 --packed-quantum-ps=32768")
        info = json.loads(self.run_whole(f"ortime info --json '{self.run_dir()}'").out)["recordings"][0]
        for channel, judged in zip(info["channels"], info["judged"]["channels"], strict=True):
            ticks = (judged["last_ps"] - judged["first_ps"]) >> 15
            self.assertEqual(channel["with_overflow"], ticks - 15 * channel["intervals"])

    def test_takes_what_the_tool_leaves_by_every_way(self):
        self.assertEqual(self.record("", "--tolerance-ppm=inf").status, 0)
        file = f"'{self.run_dir()}/overflow_frequency_01.ortime'"
        tags = self.run_whole(f"ortime tags {file}").out
        self.assertGreater(len(tags), 1000)
        for words in f"- <{file}", f"--run=1 '{self.run_dir()}'":
            self.assertEqual(self.run_whole("ortime tags " + words).out, tags)
        for command, status, end in ((f"verify '{self.root}/latest.json'", 0, "pass=true\n"),
                                     (f"verify - --requested-hz=1000 <{file}", 0, "pass=true\n"),
                                     (f"info {file} >/dev/full", 1, ""), (f"info {file} >&-", 1, "")):
            with self.subTest(command):
                ortime = self.run_whole("ortime " + command)
                self.assertEqual(ortime.status, status, ortime.err)
                self.assertTrue(ortime.out.endswith(end), ortime.out)
        told = [re.sub("\n(stream_file|file_bytes)=.*", "", "\n" + self.run_whole(command).out)
                for command in (f"ortime info {file}", f"cat {file} | ortime info -")]
        self.assertEqual(told[0], told[1])
        verify = "ortime verify - --requested-hz=1000 "
        self.assertEqual(self.run_whole(f"cat {file} | {verify}").out, self.run_whole(f"{verify}<{file}").out)
