"""The page about a run: `report`."""

import bisect
import html
import json
import operator
import re
import shutil
import statistics
import time

from support.ortime import LOST_LOCK, PERIOD_PS, OrtimeTest, recording
from support.programs import payload_of

PERIODS = 400
# All channels are silent for 0.9 s.
JUMP = "lose=" + ",".join(f"{channel}:28000@{{0}}" for channel in range(4))


def words_of(page, begin, end):
    """The text of the page between the two, without tags and empty lines, with plain spaces."""
    text = page[page.index(begin):]
    text = text[:text.index(end)]
    text = re.sub('<p class="verdict ([a-z]+)">', r"\1: ", text)
    text = re.sub("\n+", "\n", re.sub("<[^>]*>", "", text))
    return html.unescape(re.sub("[\u00A0\u202F]", " ", text))


def findings_of(page):
    """How the verdict looks, and all that is said before the results."""
    return words_of(page, '<p class="verdict ', "<dl>")


def numbers_of(times, reference, largest_plain_ps):
    """What the document has of a channel with these times, worked out one by one."""
    intervals = [b - a for a, b in zip(times, times[1:])]
    gaps = [interval for interval in intervals if interval >= 1.5 * PERIOD_PS]
    nearest = (min(reference[max(0, i - 1):i + 1], key=lambda other: abs(time - other))
               for time in times for i in (bisect.bisect(reference, time),))
    spreads = {"deviation": [interval - PERIOD_PS for interval in intervals
                             if abs(interval - PERIOD_PS) < PERIOD_PS / 2]}
    if times is not reference:
        spreads["skew"] = [skew for skew in map(operator.sub, times, nearest) if abs(skew) < PERIOD_PS / 2]
    numbers = {
        "expected_interval_ps": PERIOD_PS, "intervals": len(intervals), "gaps": len(gaps),
        "shortest_interval_ps": min(intervals), "longest_interval_ps": max(intervals),
        "smallest_deviation_ps": min(intervals) - PERIOD_PS,
        "largest_deviation_ps": max(intervals) - PERIOD_PS,
        "missing_events": sum(round(gap / PERIOD_PS) - 1 for gap in gaps),
        "extra_events": sum(0 <= 2 * interval <= PERIOD_PS for interval in intervals),
        "backward_steps": sum(interval < 0 for interval in intervals),
        "with_overflow": sum(interval > largest_plain_ps for interval in intervals)}
    for name, values in spreads.items():
        numbers |= {f"{name} count": len(values), f"{name} mean_ps": statistics.fmean(values),
                    f"{name} median_ps": statistics.median(values),
                    f"{name} standard_deviation_ps": statistics.pstdev(values)}
    return numbers


class Report(OrtimeTest):
    def page(self, periods=PERIODS, options=""):
        """The page about the runs, whose captures took so many periods."""
        self.report["capture_s"] = periods * PERIOD_PS * 1e-12
        self.save_report()
        return self.page_of_directory(options)

    def page_of_directory(self, options=""):
        self.status = self.ortime("report . -o page.html --json page.json --chunk-bytes 4096 " + options)
        page = (self.here / "page.html").read_text()
        self.assert_well_formed(page)
        return page

    def assert_well_formed(self, page):
        opened = []
        for end, name, empty in re.findall(r"<(/?)([a-z0-9]+)(?:\s[^<>]*?)?(/?)>", page):
            if end:
                self.assertEqual(opened.pop(), name)
            elif not empty and name not in ("meta", "br"):
                opened.append(name)
        self.assertEqual(opened, [])
        self.assertNotRegex(page, "{{|<script|https?:|[^a-z](nan|inf)[^a-z]")

    # Of each: what the simulated instrument does, how long the capture was, and its runs, in periods.
    def test_says_what_is_so(self):
        said = ""
        for sim, capture_periods, *periods in (
                ("", 400, 400),
                ("rate_error_ppm=1:-9", 133, 400),
                ("", 447, 400),  # a tenth and three periods are missing
                ("", 400, 100, 120),
                ("lose=1:1@300,2:1@100,2:2@300", 400, 400),
                ("lose=1:1@300,2:1@200", 400, 400),
                ("lose=2:2@300", 400, 400, 200, 350, 400, 400),
                ("rate_error_ppm=2:40", 400, 400, 400),
                ("rate_error_ppm=1:40,2:40", 400, 400),
                ("rate_error_ppm=2:25.004", 4000, 4000),
                ("jitter_ps=2000000", 400, 400),
                ("", 20, 20),
                ("", 10, 10, 20),
                ("", 400, 20),
                ("silent=2", 1000, 1000),
                ("silent=2", 100, 100),
                ("damage=drop@2000", 800, 800),
                ("damage=flip@300,flip@301", 400, 400, 400),
                ("damage=flip@240,flip@241,flip@242", 60, 60),
                ("damage=flip@280,flip@281,flip@282", 80, 80),
                ("damage=flip@1000,flip@1001,flip@1002", 400, 400),
                (JUMP.format(400), 400, 28402)):
            with self.subTest(sim):
                self.report = {}
                for number in periods:
                    self.add_run(number, sim, "--channel-mask=6 --capture-s=0.03")
                page = self.page(capture_periods)
                self.assertEqual(self.status, 0, self.err)
                said += f"* {sim} {periods} of {capture_periods}\n{findings_of(page)}"
                self.assertNotEqual("<figure>" in page,
                                    "No charts: no channel has two timestamps." in page)
        self.report = {}
        self.add_run(20, "", "--frequencies-hz=0.5")
        self.add_run(20)
        said += "* one at 0.5 Hz, one too short\n" + findings_of(self.page(20))
        self.report = {}
        self.add_run(400, "rate_error_ppm=3:-9")
        self.report["channel_mask"] = 7
        self.assert_golden("findings.txt", said + "* channel 3 does not count\n" + findings_of(self.page(400)))

    def assert_golden_page(self, name, page):
        numbers = (self.here / "page.json").read_text()
        self.assert_golden(name + ".html", page)
        self.assert_golden(name + ".json",
                           re.sub(r'("(?:channel|columns|[a-z]+_histogram)":)', r"\n\1", numbers))

    def test_lost_locks_are_marked_and_listed(self):
        self.add_run(7600, LOST_LOCK)
        page = self.page(7600)
        self.assertIn("""The run failed.
Run 1 at 31 kHz: the stream is damaged, and the decoder lost its place once: 145 231 of 145 258 bytes \
decoded, 26 skipped while resynchronising, 1 undecoded at the end.
""", findings_of(page))
        self.assertIn("<title>lock lost, 115.7\u00A0ms<", page)
        self.assertIn("<title>lock taken again, 123.9\u00A0ms<", page)
        self.assertEqual(words_of(page, "<figcaption>", "</figcaption>"), """
▼ lock lost
▲ lock taken again
○ farthest out, on a logarithmic scale
▮ strong: within a standard deviation of the mean
""")
        self.assertEqual(words_of(page, "<h3>Lock history", "</ul>"), """Lock history
Payload byte 2: records begin here, 2 bytes skipped before.
Payload byte 68 511, after the timestamp at 115.7 ms: place lost: a record of channel 2 interrupts a sync.
Payload byte 68 535, after the timestamp at 115.7 ms: records begin here, 24 bytes skipped before.
""")
        self.assertEqual(self.ortime("verify . --chunk_bytes=4096"), 2)
        self.assertEqual(self.ortime("verify ."), 3)  # what follows a lost lock depends on the pieces
        self.assertTrue(self.err.startswith(
            "ortime: run 1: the stream is damaged, and the decoder lost its place once: 68 509 of 145 258 "
            "bytes decoded"), self.err)
        self.report = {}
        self.add_run(43_400, f"{JUMP.format(7400)};{LOST_LOCK}", "--capture-s=0.1")
        self.assertIn("<p>1 of 1\u00A0lost lock not marked.</p>", self.page(7400))  # amid damage
        self.write_tags([(1, n * 5 * 10**12 % (3333 << 32)) for n in range(200)], recording(1))
        self.assertIn("Run 1 at 31 kHz: its timestamps span 995 s, more than a capture of 238.9 ms can hold.",
                      findings_of(self.page(7400)))
        self.assertIn("<p>19 of 69\u00A0returns of the clock to 0 not marked.</p>", self.page(30 * 10**9))

    # A run that passed, on the way of which the clock returns to 0; one with a fast channel, jitter and
    # lost events; two whose recordings were replaced, by times that step back and by an event that is
    # early; and one without any.
    def test_all_is_as_it_was_looked_at(self):
        needed = "--min-tags-per-channel=10"
        settings = "--packed-bits=22 " + needed
        self.add_run(24, "clock_ps=14315125600000", settings)
        self.add_run(24, "lose=2:1@8,3:2@14;rate_error_ppm=3:300;jitter_ps=3000", settings)
        for sim in "", "", "silent=0":
            self.add_run(24, sim, settings)
        for run, periods in (3, (0, 1, 2, 2, 3, 1.5, 4, 5, 6.75, 7, 8, 0.5, 9, 90, 10, 90000, 11, 12)), \
                (4, (*range(23), 22.4)):
            self.write_tags([(channel, int(1e12 + n * PERIOD_PS + channel * 100))
                             for n in periods for channel in (3, 2)], recording(run), mode="internal")
        self.report["channel_mask"] = 12
        page = self.page(24, "--title='Odd_& even' " + needed)
        self.assert_golden_page("report", page)
        self.ortime("info " + " ".join(map(recording, range(1, 6))))
        self.assert_golden("info.txt", self.out)
        self.ortime("verify . " + needed)
        self.assert_golden("verify.txt", self.out + self.err)

    def test_guesses_no_setting(self):
        for given, periods, status in (("--min-tags-per-channel=5", 20, 0),
                                       ("--min-tags-per-channel=300", 100, 2),
                                       ("--tolerance-ppm=0.0024", 100, 0)):
            self.report = {}
            self.add_run(periods, "", given + " --channel-mask=3")
            for words, expected, look in ("", 3, "doubt: PASS, but"), (given, status, "pass: PASS\n"):
                with self.subTest(given, words=words):
                    self.assertEqual(self.ortime("verify . " + words), expected)
                    said = self.err + findings_of(self.page(periods, words))
                    self.assertEqual(said.count("made with another --min-tags-per-channel or --tolerance-"),
                                     0 if words else 2, said)
                    self.assertIn("fail: FAIL\n" if status else look, said)

    def test_folds_what_passed(self):
        for _ in range(13):
            self.add_run(PERIODS)
        self.add_run(PERIODS, "rate_error_ppm=1:-20,2:10")
        self.add_run(PERIODS, "rate_error_ppm=2:-40")
        self.add_run(100)  # passes, but most is missing
        page = self.page()
        self.assertEqual(re.findall("<details( open)?>", page), 14 * [""] + 2 * [" open"])
        # Of many runs, one row for each that passed, with the largest error.
        self.assertEqual(len(re.findall('<td class="(good|bad)">', page)), 14 + 4 + 4)
        row = page.index('<td>1</td><td class="good">✓ pass</td><td>−19.999737</td>')
        self.assertEqual(page[row:page.index("</tr>", row)].count('<path class="good"'), 4)
        self.assertIn('<a href="#run-15">Run 15 at 31\u00A0kHz, channel 2</a>: 40.0', page)
        self.assertIn('id="run-16"', page)

    def test_known_facts_are_said_and_unknown_text_is_text(self):
        self.add_run(PERIODS, "clock_ps=14315120000000")
        self.report.update(packed_delta_bits=17, packed_delta_quantum_ps=16)
        self.write_stream(recording(1), payload_of(self.here / recording(1)), mode="internal",
                          device_product='<b>"O\'Neill" \xff', device_serial="<i>")
        page = self.page(PERIODS, "--title='<script>bench&\"4\"</script>\x1b\x7f\x85µ'")
        for wanted in ("<h1>&lt;script&gt;bench&amp;&quot;4&quot;&lt;/script&gt;???µ <small>",
                       "<title>PASS: &lt;script&gt;", "<dd>17 bits, quantum 16 ps</dd>",
                       "<dd>±25 ppm</dd>", "<dd>&lt;b&gt;&quot;O&apos;Neill&quot; \uFFFD</dd>", "<dd>&lt;i&gt;</dd>",
                       "<title>clock returned to 0, 5.997\u00A0µs<"):
            self.assertIn(wanted, page)
        run = self.report["runs"][0]
        told = json.dumps(self.report)
        run.update(divider=0, effective_hz=0.0, expected_decoded_hz=0.0, overflow_required=False)
        for channel in run["channels"]:
            channel["ppm_error"] = 0.0
        self.assertEqual(findings_of(self.page()), """doubt: PASS, but not every rate was compared
The run passed. No rate was compared.
Run 1 at 31 kHz, channels 0 to 3: passed by its count alone, without a rate to compare.
""")
        self.assertEqual(self.ortime("verify ."), 0)
        self.assertIn("\nortime: run 1: channel 3: passed by its count alone, without a rate to", self.err)
        self.report = json.loads(told)
        self.save_report()
        self.assertIn('class="rates"', page)
        for tolerance_ppm in 0, "inf":  # against which nothing can be drawn
            self.assertEqual(self.ortime(f"report . -o page.html --tolerance-ppm={tolerance_ppm}"), 0)
            self.assertNotIn('class="rates"', (self.here / "page.html").read_text())
        self.report["pass"] = False
        self.assertTrue(findings_of(self.page()).startswith("fail: FAIL\nThe report marks the whole "))
        shutil.copytree(self.here, self.folder / "<b>")
        self.assertEqual(self.ortime("report '../<b>' -o page.html"), 0)
        self.assertNotRegex((self.here / "page.html").read_text(), "<b>")

    def test_missing_and_foreign_recordings(self):
        for periods in PERIODS, PERIODS, PERIODS, PERIODS - 1:
            self.add_run(periods)
        (self.here / recording(2)).unlink()
        (self.here / recording(4)).replace(self.here / recording(3))
        self.report["runs"].pop()
        self.report["runs"][1]["stream_file"] = f"/<u>/{recording(2)}"
        page = self.page()
        self.assertNotIn("<u>", page)
        self.assertEqual(self.status, 1)
        self.assertIn(f'ortime: run 2: recording "{recording(2)}" is missing: ', self.err)
        findings = findings_of(page)
        self.assertTrue(findings.startswith("doubt: PASS, but the recordings say otherwise\n"), findings)
        self.assertIn("Run 2 at 31 kHz: its recording was not judged: recording ", findings)
        self.assertIn("Run 3 at 31 kHz: the recording does not decode to what the report says: "
                      "payload_bytes=7641 (report: 7660); ", findings)
        self.assertEqual(page.count('class="advice"'), 2)
        self.assertIn("Name the folder that holds the recordings, or put them beside the report.", findings)
        self.assertEqual(page.count("<figure>"), 2)
        (self.here / recording(3)).write_text("no recording")
        findings = findings_of(self.page())
        self.assertTrue(findings.startswith("doubt: PASS, but 2 of 3 recordings could not be judged\n"), findings)

    # A run of the tool; external inputs, of which nobody knows when an event is missing, one of them outside
    # of the mask; a recording with too little to say what to expect; and a file that is none.
    def test_without_a_report_nothing_is_passed_or_failed_as_it_was_looked_at(self):
        self.add_run(24, "rate_error_ppm=0:5000,1:-5000;lose=3:1@20")
        (self.here / "overflow_frequency.json").unlink()
        self.write_tags([(channel, 1_000_000 * i + channel) for i in (*range(20), 39, *range(41, 60))
                         for channel in (1, 3)], recording(2), channel_mask=2)
        self.write_tags([(2, 5), (0, 7), (0, 1007)], recording(3), mode="internal", channel_mask=21)
        (self.here / recording(4)).write_text("no recording")
        page = self.page_of_directory()
        self.assertEqual(self.status, 1)
        self.assertIn("its header is incomplete; taken: channel_mask=5\n", self.err)
        self.assertIn(time.strftime(" on %Y-%m-%d %H:", time.gmtime()), page)
        self.assertNotRegex(words_of(page, "<body>", "</body>"), "✓|✗|PASS|FAIL")
        self.assert_golden_page("no_report", page)

    def test_is_whole_or_absent_and_never_replaces_what_it_is_made_from(self):
        self.add_run(PERIODS)
        self.assertEqual(self.ortime("report . -o page.html --json missing/page.json"), 1)
        self.assertEqual(list(self.here.glob("page*")), [])
        for words in (f"report . -o {recording(1)}", "report . --json overflow_frequency.json",
                      f"tags . --format=csv -o {recording(1)}"):
            self.assertEqual(self.ortime(words), 1)
            self.assertIn("is an input file", self.err)
        self.assertEqual(self.ortime("verify ."), 0)


class Figures(OrtimeTest):
    def test_every_shape_is_in_its_panel_as_it_was_looked_at_and_sums_are_exact(self):
        drawn = ""
        for jitter_ps, bits, runs in (0, 8, 1), (240, 24, 2), (5000, 16, 1), (10**6, 31, 40), (10**8, 16, 1):
            self.report = {}
            self.add_run(1500, f"lose=3:2@700,1:1@900;jitter_ps={jitter_ps}",
                         f"--tolerance-ppm=1e5 --packed-bits={bits}")
            self.report["runs"] *= runs
            self.save_report()
            self.assertEqual(self.ortime("report . -o page.html --json page.json"), 0, self.err)
            page = (self.here / "page.html").read_text()
            figure = page[page.index("<figure>"):page.index("</figure>")]
            drawn += f"* {jitter_ps} ps\n" + "\n".join(re.findall("^<(?:text|line|svg [cx]).*", figure, re.M)) + "\n"
            rows = re.findall(r'aria-label="Channel.*?\n</svg>', page, re.S)
            self.assertEqual(len(rows), 4 * runs)
            for row in rows:
                bars = re.findall(r'"bar" x="(.*?)%" y="(.*?)" width="(.*?)%" height="(.*?)"', row)
                self.assertTrue(bars)
                for x, y, width, height in (map(float, bar) for bar in bars):
                    self.assertIn(x, (69, 86))
                    self.assertTrue(width < 14 and 23 <= y and y + height <= 95, row)
                for x, *ends in re.findall(r"M([0-9.e+-]+) ([0-9.-]+)V([0-9.-]+)", row):
                    self.assertTrue(float(x) <= 1000 and all(0 <= float(y) <= 72 for y in ends), row)
                self.assertGreater(row.count('class="tick"'), 1)
            self.ortime(f"tags {recording(1)}")
            times = [[], [], [], []]
            for line in self.out.split()[1:]:
                times[int(line[0])].append(int(line[2:]))
            run = json.loads((self.here / "page.json").read_text())["recordings"][0]
            most = 300 if runs > 12 else 1000
            self.assertTrue(all(most / 2 < len(series["columns"]) <= most for series in run["series"]))
            for channel in run["channels"]:
                own = times[channel["channel"]]
                for name, number in numbers_of(own, times[0], (1 << bits) - 1 << 3).items():
                    shown = channel
                    for part in name.split():
                        shown = shown[part]
                    in_wide_bins = "median" in name and jitter_ps >= 10**6
                    self.assertAlmostEqual(shown, number, delta=jitter_ps / 50 if in_wide_bins else 5e-4, msg=name)
        self.assert_golden("figures.txt", drawn)
