"""Recordings judged again: `verify`."""

import json

from support.ortime import REPORT, OrtimeTest, recording
from support.programs import payload_of, stream_file

SLOW = "rate_error_ppm=2:-100"


class Verify(OrtimeTest):
    def setUp(self):
        """By the header channels 0 to 2 count; channel 2 is slow. The report judges all four."""
        super().setUp()
        self.add_run(100, SLOW, "--channel-mask=7")
        self.report["channel_mask"] = 15
        self.save_report()

    def test_judges_a_stream_file(self):
        file = recording(1)
        self.assertEqual(self.ortime(f"verify {file} --divider 01000 --channels 1,0"), 0)
        self.assertEqual(self.out, f"""tolerance_ppm=25
min_tags_per_channel=64
channel_mask=3
packed_delta_bits=16
packed_delta_quantum_ps=8
origin:
  tolerance_ppm="default"
  min_tags_per_channel="default"
  channel_mask="option"
  packed_delta_bits="header"
  packed_delta_quantum_ps="header"
run effective_hz=30978.261 expected_decoded_hz=30981.359 divider=1000 overflow_required=true \
pass=true payload_bytes=1449 decoded_tags=300
  stream_file="{file}"
  ch0 count=100 first_ps=1000000000160 last_ps=1003195470056 measured_hz=30981.358993219 \
ppm_error=-0.000395 pass=true judged=true
  ch1 count=100 first_ps=1000000000416 last_ps=1003195470304 measured_hz=30981.359070782 \
ppm_error=0.002108 pass=true judged=true
  ch2 count=100 first_ps=1000000000600 last_ps=1003195790072 measured_hz=30978.260885891 \
ppm_error=-99.999473 pass=false judged=false
  ch3 count=0 pass=false judged=false
pass=true
""")
        for options, headline in ("--channels 0,1", "PASS"), ("", "FAIL"):
            self.ortime(f"verify {file} --divider 1000 --json {options}")
            self.assertEqual(json.loads(self.out)["verdict"]["headline"], headline)
        for options, status, said in (
                ("--divider 1000", 2, "channel_mask=7\n"),
                ("--divider 1000 --tolerance-ppm 101", 0, "tolerance_ppm=101\n"),
                ("--divider 1000 --tolerance-ppm 0", 2, "tolerance_ppm=0\n"),
                ("--divider 1005 --tolerance-ppm inf", 0, "tolerance_ppm=inf\n"),
                ("--divider 1000 --channels 0,1 --min-tags-per-channel 101", 2, "channel=101\n"),
                (f"--divider 1000 --min-tags-per-channel {2**64 - 1}", 2, f"={2**64 - 1}\n"),
                ("--divider 1001 --channels 0,1", 2, " ppm_error=999.999604 pass=false "),
                # 1000.27 and 1000.59 times slower than the source.
                ("--requested-hz 30970 --channels 0,1", 0, "run requested_hz=30970.000 "),
                ("--requested-hz 30960 --channels 0,1", 2, " divider=1001 "),
                # Nearer to half the source's rate, but in time to all of it.
                ("--requested-hz 22000000", 2, " divider=2 "),
                ("--requested-hz 1e300", 2, " divider=1 "),
                ("--requested-hz 1e-300", 2, " divider=4294967295 ")):
            with self.subTest(options):
                self.assertEqual(self.ortime(f"verify {file} {options}"), status)
                self.assertIn(said, self.out)
                self.assertEqual(self.err, "")

    def test_no_pass_where_recordings_and_report_disagree(self):
        self.assertEqual(self.ortime("verify ."), 2)  # for channels 2 and 3
        self.assertEqual(self.err, "")
        self.assertTrue(self.out.endswith("\npass=false\n"))
        for given, status in ("--channels 0,1", 0), ("--min-tags-per-channel 101", 2):
            self.assertEqual(self.ortime("verify . " + given), status)
            self.assertEqual(self.err, "")  # another judgement was asked for
        self.add_run(99, SLOW, "--channel-mask=7")
        (self.here / recording(2)).replace(self.here / recording(1))
        self.report["runs"].pop()
        self.report["channel_mask"] = 15
        self.save_report()
        for mask in "", " --channels 0,1":  # although all that counts has passed
            self.assertEqual(self.ortime("verify ." + mask), 3)
            self.assertTrue(self.err.startswith(
                "ortime: run 1: payload_bytes=1435 (report: 1449)\n"
                "ortime: run 1: decoded_tags=297 (report: 300)\n"
                "ortime: run 1: ch0 count=99 (report: 100)\n"), self.err)
            self.assertIn("\nortime: recordings and report disagree in 14 numbers: ", self.err)
            self.assertTrue(self.out.endswith("\npass=false disagreements=14\n"), self.out)

    def test_names_each_verdict_that_the_report_has_otherwise(self):
        run = self.report["runs"][0]
        for verdict in self.report, run, run["channels"][2], run["channels"][3]:
            verdict["pass"] = True
        self.save_report()
        self.assertEqual(self.ortime("verify ."), 3)
        self.assertIn((
            "ortime: run 1: pass=false (report: true)\n"
            "ortime: run 1: ch2 pass=false (report: true)\n"
            "ortime: run 1: ch3 pass=false (report: true)\n"
            "ortime: pass of the whole run=false (report: true)\n"), self.err)
        self.assertIn("or made with another --min-tags-per-channel or --tolerance-ppm?\n", self.err)

    def test_judges_what_is_there_and_names_what_is_missing(self):
        run = self.report["runs"][0]
        self.report["runs"] = [{**run, "stream_file": "lost.ortime"}, run,
                               {**run, "stream_file": "damaged.ortime"}]
        (self.here / "damaged.ortime").write_text("plain text")
        self.save_report()
        self.assertEqual(self.ortime("verify ."), 1)
        self.assertNotIn("disagree", self.err)
        self.assertEqual(self.ortime("verify . --channels 0,1"), 1)
        missing = 'recording "lost.ortime" is missing: '
        self.assertTrue(self.err.startswith("ortime: run 1: " + missing))
        self.assertIn('\nortime: run 3: "./damaged.ortime": not an Orvo timing stream file', self.err)
        self.assertIn("\n  ch0 count=100 ", self.out)
        self.assertTrue(self.out.endswith("\npass=false unjudged=2\n"), self.out)
        self.assertEqual(self.ortime("tags ."), 1)
        self.assertIn('"." holds 3 recordings: choose one with --run N', self.err)
        self.assertEqual(self.ortime("tags . --run 4"), 1)
        self.assertIn('there is no recording 4: "." has 3', self.err)
        self.assertEqual(self.ortime("tags . --run 3"), 1)
        self.assertIn('"./damaged.ortime": not an Orvo timing stream file', self.err)
        self.assertEqual(self.ortime("info ."), 1)
        self.assertTrue(self.err.startswith("ortime: " + missing))
        run["decoded_tags"] = 301  # another status, if all could be judged
        self.save_report()
        self.assertEqual(self.ortime("verify . --channels 0,1 --json"), 1)
        self.assertIn("\nortime: recordings and report disagree in 1 number: ", self.err)
        document = json.loads(self.out)
        lost, judged, _ = document["recordings"]
        self.assertIn("error", lost)
        self.assertEqual(judged["differences"], [
            {"channel": None, "name": "decoded_tags", "reported": 301, "judged": 300,
             "words": "decoded_tags=300 (report: 301)"}])
        channel = judged["judged"]["channels"][2]
        self.assertAlmostEqual(channel.pop("ppm_error"), run["channels"][2].pop("ppm_error"), delta=1e-6)
        self.assertAlmostEqual(channel.pop("measured_hz"), run["channels"][2].pop("measured_hz"), delta=1e-9)
        self.assertEqual(channel, {**run["channels"][2], "judged": False})
        self.assertEqual((document["schema"], document["settings"]["channel_mask"]), (1, 3))
        self.assertEqual(document["settings"]["origin"]["channel_mask"], "option")
        verdict = document["verdict"]
        self.assertEqual([verdict[name] for name in ("pass", "reported_pass", "unjudged", "disagreements")],
                         [False, False, 2, 1])

    def test_says_what_was_taken_for_an_odd_header(self):
        whole = (self.here / recording(1)).read_bytes()
        end = whole.index(b"}}") + 2
        header, payload = whole[12:end].decode(), whole[end:]
        for old, new, status, warning in (
                (header, "", 2, "is incomplete; taken: stream_format=packed_delta mode=external "
                 "channel_mask=15 delta_bits=16 quantum_ps=8\n"),
                ("orvo_timing_raw_stream_capture", "other", 0, "is that of another kind or version of file"),
                ('"schema_version":1', '"schema_version":2', 0, "is that of another kind or version of file"),
                ('"channel_mask":7', '"channel_mask":23', 0, "is incomplete; taken: channel_mask=7\n"),
                ('"channel_mask"', '"mask"', 2, "is incomplete; taken: channel_mask=15\n")):
            with self.subTest(new):
                (self.here / "odd").write_bytes(
                    stream_file(header.replace(old, new).encode(), payload))
                self.assertEqual(self.ortime("verify odd --divider 1000 --tolerance-ppm 101"), status)
                self.assertTrue(self.err.startswith(f'ortime: "odd": its header {warning}'), self.err)
                self.assertTrue(self.out.endswith(f"\npass={'false' if status else 'true'}\n"), self.out)

    def test_takes_no_width_and_no_quantum_for_the_usual(self):
        self.write_stream("usual", payload_of(self.here / recording(1)), mode="internal", channel_mask=7,
                          packed_delta_config={"delta_bits": 0, "quantum_ps": 0})
        self.assertEqual(self.ortime("verify usual --divider 1000 --channels 0,1"), 0)
        self.assertIn("overflow_required=true pass=true payload_bytes=1449 decoded_tags=300", self.out)

    def test_refuses_what_cannot_be_judged(self):
        self.write_stream("undecodable", packed_delta_config={"delta_bits": 99, "quantum_ps": 8})
        (self.here / REPORT).unlink()
        for words, error in (
                ("missing --divider 1", 'cannot open "missing": No such file or directory'),
                ("missing", 'cannot open "missing": No such file or directory'),
                ("undecodable --divider 1", "records that cannot be decoded: packed_delta of 99 bits"),
                (".", '"." has no report: it was stopped, an error ended it, or another program recorded it; judge its '
                 "recordings with")):
            self.assertEqual(self.ortime("verify " + words), 1)
            self.assertIn(error, self.err)
            self.assertEqual(self.out, "")
