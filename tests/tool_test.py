"""The real tool on the simulated instrument: console, statuses, files, and calls of the driver."""

import contextlib
import fcntl
import os
import pathlib
import pty
import re
import shutil
import struct
import termios
import time

from support.programs import ENVIRONMENT, TOOL, ProgramTest, lines_with, stamp

# 20 ms of instrument time, which the first reads get at once: the same bytes in every run.
SIM = "pace=ps:20000000000;"
# A ledger's end: closed once, and nothing that the instrument may complain about was asked of it.
CLOSED = "ot_close k=1 thread=1 status=0\nend misuses=0\n"
SETTINGS = "ot_verify_overflow_frequency.ini"

GOLDEN = pathlib.Path(__file__).parent / "golden"


def channels_in(summary):
    """Count and verdict of each channel that it shows, such as "201+ 200- "."""
    found = re.findall(r"^  ch. count=(\d+) .*pass=(true|false)$", summary, re.M)
    return "".join(count + ("+ " if passed == "true" else "- ") for count, passed in found)


class Tool(ProgramTest):
    def setUp(self):
        super().setUp()
        self.root = self.folder / 'o"u\\t'
        (self.folder / SETTINGS).write_text(
            'output_root = o"u\\t  # in the working directory\n'
            "capture_s = 0.05\nfrequencies_hz = 10000\ntolerance_ppm = 10\n")

    def run_tool(self, sim, arguments="", before=""):
        """Runs it with an empty output root."""
        self.remove_outputs()
        return self.run_whole(before + TOOL + arguments, SIM + sim)

    # The first part has too few timestamps; the last one passes, at a divider (16) that is not the
    # quotient of the frequencies (15.49) rounded.
    def test_prints_and_writes_all_of_its_results(self):
        os.environ["TZ"] = ENVIRONMENT["TZ"] = "<+14>-14"
        time.tzset()
        before = time.time()
        tool = self.run_tool("silent=3", "'--frequencies-hz=1000;2e6' capture-s=0.0625 "
                             "--packed-bits=16 --packed-quantum-ps=16 --channel-mask=5 "
                             "--tolerance-ppm=39.5")
        self.assertEqual((tool.status, tool.err), (2, ""))
        start = self.run_dir().name
        self.assertTrue(stamp(before) <= start <= stamp(time.time()), start)

        def shown(text):
            return text.replace(str(self.folder), "HERE").replace(start, "START")

        summary = (GOLDEN / "overflow_frequency.summary.txt").read_text()
        self.assertEqual(shown(tool.out), f"""Config: HERE/{SETTINGS}
Output: HERE/o"u\\t/START
Device: Orvo timing instrument, simulated, SIM1001
Capture 1/2: requested 1000.000 Hz/channel
Capture 2/2: requested 2000000.000 Hz/channel
{summary}latest_summary=HERE/o"u\\t/latest_summary.txt
latest_json=HERE/o"u\\t/latest.json
""")
        for end, latest in ((".csv", "latest.csv"), (".json", "latest.json"),
                            (".summary.txt", "latest_summary.txt")):
            name = "overflow_frequency" + end
            for file in self.run_dir() / name, self.root / latest:
                self.assertEqual(shown(file.read_text()), (GOLDEN / name).read_text())

    def test_a_long_capture_says_on_a_terminal_how_far_it_is(self):
        for columns, capture_s, shown in (40, 2.6, True), (0, 2.6, True), (80, 0.5, False):
            with self.subTest(columns=columns, capture_s=capture_s):
                self.remove_outputs()
                child, terminal = pty.fork()
                if child == 0:
                    fcntl.ioctl(2, termios.TIOCSWINSZ, struct.pack("4H", 24, columns, 0, 0))
                    os.chdir(self.folder)
                    os.execvpe("sh", ["sh", "-c", f"exec {TOOL} --capture-s={capture_s} >out"], ENVIRONMENT)
                said = b""
                with contextlib.suppress(OSError):  # how a terminal ends
                    while block := os.read(terminal, 4096):
                        said += block
                os.close(terminal)
                self.assertEqual(os.waitpid(child, 0)[1], 0)
                self.assertEqual(b"MB" in said, shown)
                texts = said.decode().split("\r\n")[1].split("\r\x1b[K") if shown else ["", ""]
                self.assertEqual((texts[0], texts[-1]), ("", ""))  # gone at the end
                for text in texts[1:-1]:
                    self.assertLess(len(text), columns or 80)
                    self.assertRegex(text, r"^[0-3] of 3 s, \d\.\d MB recorded, \d\.\d MB/s, ")
                self.assertNotIn("MB", (self.folder / "out").read_text())

    def test_judges_each_channel(self):
        every = "201+ 201+ 201+ 201+ "
        for sim, arguments, status, channels in (
                ("", "", 0, every),
                ("rate_error_ppm=2:40", "--tolerance-ppm=25", 2, "201+ 201+ 201- 201+ "),
                ("rate_error_ppm=2:-24.9", "--tolerance-ppm=25", 0, every),
                ("silent=1,3", "--channel-mask=5", 0, "201+ 201+ "),
                ("silent=1", "", 2, "0- 0- 0- 0- "),  # all have to sync
                ("lose=1:3@100,3:7@150", "--channel-mask=0xFB", 2, "201+ 198- 194- "),
                ("", "--packed-bits=40", 0, every),  # the instrument takes 31
                ("", "--min-tags-per-channel=201 --channel-mask=0x10", 0, every),  # no mask: all
                ("", "--min-tags-per-channel=202", 2, "201- 201- 201- 201- "),
                ("noise_bytes=1000", "--packed-bits=8", 0, every),
                ("clock_ps=14315125000000", "--packed-bits=31", 0, every),  # it wraps on the way
                ("fail=ot_read_stream_bytes:1:-3;fail=ot_read_stream_bytes:2:0", "", 0, every),
                ("fail=ot_read_stream_bytes:1:-3:effect", "", 2, "0- 0- 0- 0- ")):
            with self.subTest(sim + arguments):
                tool = self.run_tool(sim, arguments)
                self.assertEqual(tool.status, status, tool.err)
                self.assertEqual(channels_in(tool.out), channels)
                self.assertTrue(tool.ledger.endswith(CLOSED))

    def test_hands_its_settings_to_the_driver(self):
        tool = self.run_tool("", "--channel-mask=0x15 --tdl-index=300 --packed-bits=24 "
                             "--chunk-bytes=100 --packed-quantum-ps=0x10 --frequencies-hz=12345.5 "
                             "--queue-chunks=0")
        self.assertEqual(tool.status, 0, tool.err)
        self.assertEqual(lines_with(tool.ledger, "ot_set_") + lines_with(tool.ledger, "ot_st"), """\
ot_set_calibration_freq k=1 thread=1 freq_hz=12345.500000 status=0
ot_set_stream_channel_mask k=1 thread=1 mask=5 status=0
ot_set_packed_delta_config k=1 thread=1 bits=24 quantum_ps=16 status=0
ot_set_stream_interface k=1 thread=1 transport=1 format=2 status=0
ot_set_calibration_freq k=2 thread=1 freq_hz=12345.500000 status=0
ot_start_stream_mode k=1 thread=1 mode=0 tdl_index=44 status=0
ot_stop_stream_mode k=1 thread=1 stop_flag=1 status=0
""")
        self.assertRegex(lines_with(tool.ledger, "ot_read_"),
                         r"\A(ot_read_stream_bytes .* capacity=4096 timeout_ms=20 .*\n)+\Z")

    def test_ends_before_anything_is_touched(self):
        usage = self.run_tool("", "--help").out
        self.assertTrue(usage.startswith("ot_verify_overflow_frequency\n\nVerify packed-delta"))
        self.root.write_text("a file")  # below which no folder can be made
        invalid = "invalid overflow_frequency configuration\n"
        no_folder = ("filesystem error: cannot create directories: Not a directory "
                     f"[{self.root}/")
        for arguments, status, out, err in (
                ("--capture-s=fast -- -h", 0, usage, ""),
                ("/? --capture-s=0", 0, usage, ""),
                ("capture_s=nan", 64, "", invalid),
                ("--packed-quantum-ps=0x10000 --HELP --help=1", 64, "", invalid),
                ("--packed-bits=0", 64, "", invalid),
                ("--packed-bits=0 --channel-mask=+-0b1", 1, "", "stoul\n"),
                ("--tdl-index=0b1" + 64 * "0", 1, "", "stoul\n"),
                ("--capture-s=0 --tolerance-ppm=1e999", 1, "", "stod\n"),
                ("--chunk-bytes=18446744073709551616", 1, "", "stoull\n"),
                ("-packed-bits=0 --packed-bits ----tdl-index=x", 1, "", no_folder),
                ("'--output-root=o\"u\\t/a-b=c'", 1, "", no_folder + "a-b=c/")):
            with self.subTest(arguments):
                tool = self.run_whole(TOOL + arguments)
                self.assertEqual((tool.status, tool.out), (status, out))
                self.assertEqual(tool.err[:len(err)], err)
                self.assertEqual(bool(tool.err), bool(err))
                self.assertEqual(sorted(os.listdir(self.folder)), ['o"u\\t', SETTINGS])

    def test_waits_for_a_start_of_the_same_second(self):
        others = [os.open(folder, os.O_RDONLY) for folder in self.coming_run_dirs()]
        for other in others:
            fcntl.flock(other, fcntl.LOCK_EX)
        tool = self.start(TOOL + "--min-tags-per-channel=0", SIM)
        self.assertTrue(tool.run_until(lambda: tool.err, 20))
        self.assertEqual(tool.ledger, "")
        for other in others:
            os.close(other)
        self.assertEqual(tool.finish().status, 0, tool.err)
        used = lines_with(tool.out, "Output: ")[len("Output: "):]
        self.assertEqual(tool.err, "waiting for another program that uses " + used)

    def test_numbers_its_recordings(self):
        frequencies = "2e4,2e4,2e4,2e4,2e4,2e4,2e4,2e4,2e4,1e4"
        self.assertEqual(self.run_tool("", "--frequencies-hz=" + frequencies).status, 0)
        names = sorted(file.name for file in self.run_dir().glob("*.ortime"))
        self.assertEqual(names, [f"overflow_frequency_{run:02}.ortime" for run in range(1, 11)])

    def test_reads_the_first_configuration_file(self):
        tool = shutil.which("ot_verify_overflow_frequency", path=ENVIRONMENT["PATH"])
        for place in "bin", "elsewhere", ".":
            (self.folder / place).mkdir(exist_ok=True)
            (self.folder / place / "tool").symlink_to(tool)
        (self.folder / "bin" / SETTINGS).touch()

        def config_of(program):
            said = self.run_whole(f'env PATH=".:$PATH" ot-simulated {program} --output-root=out',
                                  "instruments=0").out
            return lines_with(said, "Config: ").replace(str(self.folder), "HERE")

        self.assertEqual(config_of("bin/tool"), f"Config: HERE/bin/{SETTINGS}\n")
        self.assertEqual(config_of("tool"), f"Config: HERE/{SETTINGS}\n")
        self.assertEqual(config_of("elsewhere/tool"), f"Config: HERE/{SETTINGS}\n")
        (self.folder / SETTINGS).unlink()
        self.assertRegex(config_of("tool"), f"/verification/{SETTINGS}\n$")

    def test_chooses_the_instrument(self):
        for environment, arguments, serial, discovers in (
                ("ORVO_TIMING_PORT=", "", "SIM1001", True),
                ("ORVO_TIMING_PORT=sim:1", "", "SIM1002", False),
                ("ORVO_TIMING_PORT=sim:1", "--control-port=sim:2", "SIM1003", False),
                ("ORVO_TIMING_USB_SERIAL=SIM1002", "--usb-serial=SIM1003", "SIM1003", True)):
            with self.subTest(environment + arguments):
                tool = self.run_tool("instruments=3;fail=ot_set_calibration_freq:1:-2", arguments,
                                     f"env {environment} ")
                self.assertEqual(lines_with(tool.out, "Device: "),
                                 f"Device: Orvo timing instrument, simulated, {serial}\n")
                self.assertEqual("ot_discover" in tool.ledger, discovers)

    def test_names_what_it_did_not_find(self):
        self.assertEqual(self.run_tool("instruments=0").err, "open_first: no ORVO device found\n")
        self.assertEqual(self.run_tool("", "--control-port=/dev/x").err, "open: not found\n")
        # The unfinished line shows which step failed.
        self.assertTrue(self.run_tool("fail=ot_identify:1:-2").out.endswith("\nDevice: "))

    def test_needs_no_console(self):
        def expect_results(tool):
            self.assertEqual(tool.status, 0, tool.err)
            # The ledger is a file opened early: it would be the one to take in the console's text.
            self.assertNotIn("Output: ", tool.ledger)
            self.assert_recorded(tool.ledger)
            summary = (self.root / "latest_summary.txt").read_text()
            self.assertTrue(summary.endswith(" pass=true\n"))
            self.remove_outputs()

        command = TOOL + "--min-tags-per-channel=0 "
        for after in "", "Device", "Capture 1":  # its reader leaves
            tool = self.start(command, SIM)
            tool.run_until(lambda: after in tool.out)
            tool.close("out")
            expect_results(tool.finish())
        for closed in ("<&-", ">&-", "2>&-", "<&- >&-", "<&- 2>&-", ">&- 2>&-", "<&- >&- 2>&-"):
            with self.subTest(closed):  # with lines for standard error, too
                expect_results(
                    self.start(f"env ORVO_PACKED_DEBUG=1 {command} {closed}", SIM).finish())
        self.assertEqual(self.start(TOOL + "--capture-s=0 <&- >&- 2>&-").finish().status, 64)
