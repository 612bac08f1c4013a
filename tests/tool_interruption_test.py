"""Ctrl-C, SIGTERM and SIGHUP at any moment of a run: no hardware is left streaming, what is begun is
ended, and the process ends by the signal.

ORVO_EVERY_SIGNAL sends each signal after each driver call; without it they take turns."""

import os
from signal import SIGHUP, SIGINT, SIGTERM

from support.programs import TOOL, ProgramTest, calls_in, got_in

SMALL_RUNS = (TOOL + "--output-root=out --capture-s=0.02 --chunk-bytes=4096 "
              "--frequencies-hz=1e5,1e5 --min-tags-per-channel=0")
SMALL = "pace=bytes:9000"


class ToolInterruption(ProgramTest):
    def test_after_any_driver_call(self):
        calls_of_a_run = 36  # about: the number of reads varies
        step = 1 if "ORVO_EVERY_SIGNAL" in os.environ else 4
        for at in range(3, 3 * calls_of_a_run, step):
            signal = (SIGINT, SIGTERM, SIGHUP)[at % 3]
            with self.subTest(f"{signal} after line {at // 3}"):
                self.remove_outputs()
                tool = self.start(SMALL_RUNS, SMALL)
                tool.run_until(lambda: tool.ledger.count("\n") >= at // 3)
                tool.signal(signal)
                before = calls_in(tool.ledger)
                calls = calls_in(tool.finish().ledger)
                self.assert_recorded(tool.ledger)
                self.assertEqual(tool.err, "")
                if tool.status == 0:  # it came too late
                    self.assertRegex(calls, r"^DLOI(FMPXFSR?T){2}C\.$")
                    self.assertRegex(before, "T.*T")
                    continue
                self.assertEqual(tool.status, 128 + signal)
                self.assertRegex(calls, r"^DLOI(FMPXFSR?T){0,2}(FMPXFSR?Z)?C\.?$")
                # What was begun when the signal was noted is ended, and nothing new begins.
                self.assertRegex(calls[len(before):],
                                 r"^D?L?O?I?(F?M?P?X?F?S[TZ]|R?[TZ])?C?\.?$", before)

    # What would take many minutes is abandoned, also where the signal comes twice, as from
    # timeout(1), or from a shell and the kernel for a closed terminal.
    def test_ends_a_long_phase_at_once(self):
        for arguments, sim, reached, calls, signals in (
                ("--capture-s=1000", "", "read_stream_bytes k=5", "DLOIFMPXFSRZC", [SIGINT]),
                ("--capture-s=1000", "pace=bytes:1", "status=-3", "DLOIFMPXFSRZC", [SIGHUP] * 2),
                # A search for a lock, without success, after each byte that is read back.
                ("--capture-s=0.3 --chunk-bytes=1", "silent=1;pace=bytes:2000000", "ot_stop",
                 "DLOIFMPXFSRTC", [SIGTERM] * 2)):
            with self.subTest(reached):
                self.remove_outputs()
                tool = self.start(f"{TOOL} --output-root=out {arguments}", sim)
                tool.run_until(lambda: reached in tool.ledger)
                for signal in signals:
                    tool.signal(signal)
                tool.finish()
                self.assertEqual((tool.status, tool.err), (128 + signals[0], ""))
                self.assertEqual(calls_in(tool.ledger), calls)
                self.assert_recorded(tool.ledger)

    # A recording that nobody reads, like a disk that stalls: the queue is full, and the stream is
    # stopped all the same. What was read is written where the disk goes on.
    def test_while_the_disk_stalls(self):
        disk = self.folder / "disk"
        os.mkfifo(disk)
        for run_dir in self.coming_run_dirs():
            (run_dir / "overflow_frequency_01.ortime").symlink_to(disk)
        reader = os.open(disk, os.O_RDONLY | os.O_NONBLOCK)
        tool = self.start(TOOL + "--output-root=out --capture-s=1000 --chunk-bytes=4096 "
                          "--queue-chunks=2 --frequencies-hz=2e7", "pace=bytes:20000000")
        tool.run_until(lambda: False, 1)
        self.assertIn("Capture 1/1", tool.out)
        self.assertLess(got_in(tool.ledger), 2_000_000)
        tool.signal(SIGTERM)
        self.assertTrue(tool.run_until(lambda: "stop_flag=0" in tool.ledger, 10))
        os.set_blocking(reader, True)
        recorded = b"".join(iter(lambda: os.read(reader, 65536), b""))
        self.assertEqual(len(recorded) - recorded.index(b"}}") - 2, got_in(tool.ledger))
        self.assertEqual(tool.finish().status, 128 + SIGTERM)
        self.assertEqual(calls_in(tool.ledger), "DLOIFMPXFSRZC")
        os.close(reader)

    # The driver's first call waits for a reader of its ledger. No capture is begun after it, and what
    # was said until then is not lost.
    def test_while_the_driver_is_slow(self):
        ledger = self.folder / "ledger"
        os.mkfifo(ledger)
        tool = self.start(TOOL + "--output-root=out", f"ledger={ledger}")
        tool.run_until(lambda: tool.in_signal_set(SIGHUP, "SigCgt"))  # the last of the three
        tool.signal(SIGTERM)
        tool.signal(SIGINT)
        reader = os.open(ledger, os.O_RDONLY | os.O_NONBLOCK)
        tool.finish()
        os.close(reader)
        self.assertEqual(tool.status, 128 + SIGTERM)
        self.assertTrue(tool.out.endswith(", SIM1001\n"), tool.out)

    # A summary that waits for a reader: what is begun is written, then the process ends.
    def test_while_reports_are_written(self):
        self.root.mkdir()
        slow = self.root / "latest_summary.txt"
        os.mkfifo(slow)
        tool = self.start(SMALL_RUNS, SMALL)
        tool.run_until((self.root / "latest.json").exists)
        for signal in SIGTERM, SIGHUP, SIGHUP, SIGINT:
            tool.signal(signal)
        reader = os.open(slow, os.O_RDONLY | os.O_NONBLOCK)
        tool.finish()
        os.close(reader)
        self.assertEqual((tool.status, tool.err), (128 + SIGTERM, ""))
        self.assertIn("latest_json=", tool.out)
        self.assertRegex(calls_in(tool.ledger), "TC$")
