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
        self.assertEqual(self.ortime(f"verify {file} --divider 01000 --channel_mask 0B11"), 0)
        self.assertEqual(self.out, f"""tolerance_ppm=25
min_tags_per_channel=64
channel_mask=0x03
run effective_hz=30978.261 expected_decoded_hz=30981.359 divider=1000 overflow_required=true \
payload_bytes=1449 decoded_tags=300 pass=true
  stream_file="{file}"
  ch0 count=100 first_ps=1000000000160 last_ps=1003195470056 measured_hz=30981.358993219 \
ppm_error=-0.000395 pass=true
  ch1 count=100 first_ps=1000000000416 last_ps=1003195470304 measured_hz=30981.359070782 \
ppm_error=0.002108 pass=true
  ch2 count=100 first_ps=1000000000600 last_ps=1003195790072 measured_hz=30978.260885891 \
ppm_error=-99.999473 pass=false judged=false
  ch3 count=0 first_ps=0 last_ps=0 measured_hz=0.000000000 ppm_error=0.000000 pass=false judged=false
pass=true
""")
        for options, status, said in (
                ("--divider 1000", 2, "channel_mask=0x07\n"),
                ("--divider 1000 --tolerance-ppm 101", 0, "tolerance_ppm=101\n"),
                ("--divider 1000 --tolerance-ppm 0", 2, "tolerance_ppm=0\n"),
                ("--divider 1005 --tolerance-ppm inf", 0, "tolerance_ppm=inf\n"),
                ("--divider 1000 --channel-mask 3 --min-tags-per-channel 101", 2, "channel=101\n"),
                (f"--divider 1000 --min-tags-per-channel {2**64 - 1}", 2, f"={2**64 - 1}\n"),
                ("--divider 1001 --channel-mask 3", 2, " ppm_error=999.999604 pass=false\n"),
                # 1000.27 and 1000.59 times slower than the source.
                ("--requested-hz 30970 --channel-mask 3", 0, "run requested_hz=30970.000 "),
                ("--requested-hz 30960 --channel-mask 3", 2, " divider=1001 "),
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
        self.assertEqual(self.ortime("verify . --channel-mask 3"), 0)
        self.assertEqual(self.err, "")  # another judgement was asked for
        self.add_run(99, SLOW, "--channel-mask=7")
        (self.here / recording(2)).replace(self.here / recording(1))
        self.report["runs"].pop()
        self.report["channel_mask"] = 15
        self.save_report()
        for mask in "", " --channel-mask 3":  # although all that counts has passed
            self.assertEqual(self.ortime("verify ." + mask), 3)
            self.assertTrue(self.err.startswith(
                "ortime: run 1: payload_bytes=1435 differs from the report: 1449\n"
                "ortime: run 1: decoded_tags=297 differs from the report: 300\n"
                "ortime: run 1: ch0 count=99 differs from the report: 100\n"), self.err)
            self.assertIn("\nortime: recordings and report disagree in 14 numbers: ", self.err)
            self.assertTrue(self.out.endswith("\npass=false disagreements=14\n"), self.out)

    def test_names_each_verdict_that_the_report_has_otherwise(self):
        run = self.report["runs"][0]
        for verdict in self.report, run, run["channels"][2], run["channels"][3]:
            verdict["pass"] = True
        self.save_report()
        self.assertEqual(self.ortime("verify ."), 3)
        self.assertTrue(self.err.startswith(
            "ortime: run 1: pass=false differs from the report: true\n"
            "ortime: run 1: ch2 pass=false differs from the report: true\n"
            "ortime: run 1: ch3 pass=false differs from the report: true\n"
            "ortime: pass=false differs from the report: true\n"), self.err)
        self.assertIn("or made with another --min-tags-per-channel or --tolerance-ppm?\n", self.err)

    def test_judges_what_is_there_and_names_what_is_missing(self):
        run = self.report["runs"][0]
        self.report["runs"] = [{**run, "stream_file": "lost.ortime"}, run,
                               {**run, "stream_file": "damaged.ortime"}]
        (self.here / "damaged.ortime").write_text("plain text")
        self.save_report()
        self.assertEqual(self.ortime("verify . --channel-mask 3"), 1)
        self.assertTrue(self.err.startswith('ortime: run 1: recording "lost.ortime" is missing: '))
        self.assertIn('\nortime: run 3: "./damaged.ortime": not an Orvo timing stream file', self.err)
        self.assertIn("\n  ch0 count=100 ", self.out)
        self.assertTrue(self.out.endswith("\npass=false unjudged=2\n"), self.out)
        self.assertEqual(self.ortime("tags ."), 1)
        self.assertIn('"." holds 3 recordings: choose one with --run N', self.err)
        run["decoded_tags"] = 301  # another status, if all could be judged
        self.save_report()
        self.assertEqual(self.ortime("verify . --channel-mask 3 --json"), 1)
        document = json.loads(self.out)
        lost, judged, _ = document.pop("runs")
        self.assertIn("error", lost)
        self.assertEqual(judged["differences"], [
            {"name": "decoded_tags", "reported": 301, "decoded": 300}])
        self.assertEqual(judged["channels"][2], {**run["channels"][2], "judged": False})
        self.assertEqual(document, {"tolerance_ppm": 25.0, "min_tags_per_channel": 64,
                                    "channel_mask": 3, "unjudged": 2, "disagreements": 1,
                                    "pass": False})

    def test_says_what_was_taken_for_an_odd_header(self):
        whole = (self.here / recording(1)).read_bytes()
        end = whole.index(b"}}") + 2
        header, payload = whole[12:end].decode(), whole[end:]
        for old, new, status, warning in (
                (header, "", 2, "is empty; taken: channel_mask=15 delta_bits=16 "),
                (header, "[7]", 2, "is no JSON object; taken: channel_mask=15 delta_bits=16 "),
                ("orvo_timing_raw_stream_capture", "other", 0,
                 "is that of another kind of file; read all the same"),
                ('"schema_version":1', '"schema_version":2', 0,
                 "has schema_version 2, not 1; read all the same"),
                ('"channel_mask"', '"mask"', 2, "is incomplete; taken: channel_mask=")):
            with self.subTest(new):
                (self.here / "odd").write_bytes(
                    stream_file(header.replace(old, new).encode(), payload))
                self.assertEqual(self.ortime("verify odd --divider 1000 --tolerance-ppm 101"), status)
                self.assertTrue(self.err.startswith(f'ortime: "odd": its header {warning}'), self.err)
                self.assertTrue(self.out.endswith(f"\npass={'false' if status else 'true'}\n"), self.out)

    def test_takes_no_width_and_no_quantum_for_the_usual(self):
        self.write_stream("usual", payload_of(self.here / recording(1)), mode="internal", channel_mask=7,
                          packed_delta_config={"delta_bits": 0, "quantum_ps": 0})
        self.assertEqual(self.ortime("verify usual --divider 1000 --channel-mask 3"), 0)
        self.assertIn("overflow_required=true payload_bytes=1449 decoded_tags=300 pass=true", self.out)

    def test_refuses_what_cannot_be_judged(self):
        self.write_stream("undecodable", packed_delta_config={"delta_bits": 99, "quantum_ps": 8})
        (self.here / REPORT).unlink()
        for words, error in (
                ("missing --divider 1", 'cannot open "missing": No such file or directory'),
                ("undecodable --divider 1", "records that cannot be decoded: packed_delta of 99 bits"),
                (".", '"." left no report: it was stopped, or an error ended it; judge its recordings with')):
            self.assertEqual(self.ortime("verify " + words), 1)
            self.assertIn(error, self.err)
            self.assertEqual(self.out, "")
