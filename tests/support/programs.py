"""The real programs, run as a shell runs them: what they say, and what they leave."""

import codecs
import contextlib
import math
import os
import pathlib
import re
import select
import shutil
import subprocess
import tempfile
import time
import unittest

os.environ["TZ"] = "NPT-5:45"  # local time is not UTC
time.tzset()
TOOL = "ot-simulated ot_verify_overflow_frequency "  # to be followed by its arguments
# Without what a person has set for the tool, and with the programs on the search path.
ENVIRONMENT = {name: text for name, text in os.environ.items() if not name.startswith("ORVO_")}
ENVIRONMENT["PATH"] = f"{os.path.abspath(os.environ['ORVO_BIN'])}:{os.environ['PATH']}"


class Process:
    """A shell's command, from its start on, ignoring no signal; `sim` is its ORVO_SIM. What it has said
    by now is in `out`, `err` and `ledger`; `status` is its exit's, or 128 and the signal that ended it."""

    def __init__(self, folder, command, sim=""):
        pipes = {name: os.pipe() for name in ("out", "err", "ledger")}
        ends = {name: end for name, (_, end) in pipes.items()}
        environment = {**ENVIRONMENT, "ORVO_SIM": f"ledger=/dev/fd/{ends['ledger']};{sim}"}
        self.child = subprocess.Popen(
            "exec env --default-signal setpriv --pdeathsig KILL " + command, shell=True, cwd=folder,
            env=environment, stdout=ends["out"], stderr=ends["err"], pass_fds=[ends["ledger"]])
        for end in ends.values():
            os.close(end)
        self.pipes = {name: pipe for name, (pipe, _) in pipes.items()}
        self.decoders = {name: codecs.getincrementaldecoder("utf-8")("surrogateescape") for name in pipes}
        self.out = self.err = self.ledger = ""
        self.status = None

    def take_in(self):
        """Takes in what it has said, or waits a millisecond for it."""
        for pipe in select.select(list(self.pipes.values()), [], [], 0.001)[0]:
            name = next(name for name in self.pipes if self.pipes[name] == pipe)
            block = os.read(pipe, 65536)
            setattr(self, name, getattr(self, name) + self.decoders[name].decode(block))
            if not block:
                self.close(name)

    def close(self, name):
        """Stops reading what it says there."""
        os.close(self.pipes.pop(name))

    def run_until(self, condition, limit_s=60):
        """Takes in what it says until the condition holds (True), it has ended or the time is over
        (False)."""
        end = time.monotonic() + limit_s
        while not condition():
            if not self.pipes or time.monotonic() > end:
                return False
            self.take_in()
        return True

    def finish(self):
        self.run_until(lambda: False, math.inf)
        code = self.child.wait()
        self.status = 128 - code if code < 0 else code
        self.err = self.err.replace("liborvo_timing.so.0: simulated instrument; "
                                    "results say nothing about a real one\n", "")
        return self

    def in_signal_set(self, number, name):
        """Whether a signal is in such a set as SigCgt, those that have a handler."""
        status = pathlib.Path(f"/proc/{self.child.pid}/status").read_text()
        return int(re.search(rf"^{name}:\s*(\w+)", status, re.M)[1], 16) >> (number - 1) & 1

    def signal(self, number):
        """Returns when it has been taken, because signals of a kind do not queue."""
        os.kill(self.child.pid, number)
        self.run_until(lambda: not self.in_signal_set(number, "ShdPnd"))
        self.take_in()

    def has_open(self, folder):
        """Whether it has a file there, or the folder itself."""
        for descriptor in pathlib.Path(f"/proc/{self.child.pid}/fd").iterdir():
            with contextlib.suppress(FileNotFoundError):  # closed by now
                if os.readlink(descriptor).startswith(str(folder)):
                    return True
        return False

    def stop(self):
        self.child.kill()
        self.finish()


def shell(command, folder=None, sim=""):
    """What a shell's command ended with and said."""
    return subprocess.run(command, shell=True, cwd=folder, env={**ENVIRONMENT, "ORVO_SIM": sim},
                          capture_output=True, encoding="utf-8", errors="surrogateescape", check=False)


def lines_with(text, start):
    return "".join(line + "\n" for line in text.splitlines() if line.startswith(start))


def stream_file(header, payload=b""):
    return b"ORTIME1\n" + len(header).to_bytes(4, "little") + header + payload


def stamp(seconds):
    """The name of the folder of a run that starts then."""
    return time.strftime("%Y%m%d_%H%M%S", time.localtime(seconds))


def got_in(ledger):
    """Bytes that the driver's reads have delivered."""
    return sum(map(int, re.findall(r"^ot_read_stream_bytes .* got=(\d+) status=0", ledger, re.M)))


def payload_of(file):
    """What follows the header of a stream file; None where none is."""
    data = file.read_bytes()
    end = data.find(b"}}")
    return data[end + 2:] if data.startswith(b"ORTIME1\n") and end >= 0 else None


LETTERS = {"ot_discover": "D", "ot_discover_free": "L", "ot_open_serial": "O", "ot_identify": "I",
           "ot_set_calibration_freq": "F", "ot_set_stream_channel_mask": "M",
           "ot_set_packed_delta_config": "P", "ot_set_stream_interface": "X",
           "ot_start_stream_mode": "S", "ot_read_stream_bytes": "R", "ot_stop_stream_mode": "T",
           "ot_close": "C", "misuse": "!", "end": "."}


def calls_in(ledger):
    """Its driver calls, a letter each, but one for reads in a row: Z for a stop with flag 0, small for
    one that failed, "!" for a misuse, "." for the orderly end."""
    calls = ""
    for line in ledger.splitlines():
        letter = "Z" if "stop_flag=0" in line else LETTERS.get(line.split(" ")[0], "")
        status = re.search(r" status=(-?\d+)", line)
        if status and status[1] not in (("0", "-3") if letter == "R" else ("0",)):
            letter = letter.lower()
        if letter != "R" or not calls.endswith("R"):
            calls += letter
    return calls


class ProgramTest(unittest.TestCase):
    """A test in a folder of its own."""

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="orvo tést ")).resolve()
        self.addCleanup(shutil.rmtree, self.folder)
        self.root = self.folder / "out"  # of the tool's outputs
        self.cases = 0
        self.addCleanup(lambda: print(f"{self.id()}: cases: {self.cases or 1}"))

    def subTest(self, *arguments, **parameters):  # unittest's own, counted
        self.cases += 1
        return super().subTest(*arguments, **parameters)

    def start(self, command, sim=""):
        process = Process(self.folder, command, sim)
        self.addCleanup(process.stop)
        return process

    def run_whole(self, command, sim=""):
        """From its start to its end. Again where the machine did not let the tool run, so that a
        capture's time was over before its stream: what that left behind shows nothing and goes."""
        for _ in range(200):
            done = self.start(command, sim).finish()
            # No read said that there is no more of the stream before it was stopped as complete.
            early = re.search(r"ot_(read|start).* status=0\not_stop.* stop_flag=1 ", done.ledger)
            if "pace=" not in sim or not early:
                break
            shutil.rmtree(lines_with(done.out, "Output: ")[8:-1])
        return done

    def run_dir(self):
        """The only folder in the output root; None if there is none."""
        found = [path for path in self.root.iterdir() if path.is_dir()] if self.root.is_dir() else []
        self.assertLess(len(found), 2)
        return found[0] if found else None

    def coming_run_dirs(self):
        """Makes the directories of starts within the next minute."""
        now = time.time()
        for run_dir in [self.root / stamp(now + second) for second in range(60)]:
            run_dir.mkdir(parents=True)
            yield run_dir

    def remove_outputs(self):
        shutil.rmtree(self.root, ignore_errors=True)

    def assert_recorded(self, ledger):
        """The recordings hold what the streams have delivered."""
        run_dir = self.run_dir()
        recorded = [len(payload_of(file)) for file in run_dir.glob("*.ortime")] if run_dir else []
        self.assertEqual(sum(recorded), got_in(ledger))
