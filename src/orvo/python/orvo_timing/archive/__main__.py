"""A table of all recordings below some folders, judged again, and a summary for a person."""

from __future__ import annotations

import argparse
import collections
import contextlib
import csv
import logging
import os
import shutil
import signal
import sys
import time
import warnings
from collections.abc import Iterator
from typing import IO, NoReturn

from .. import _native
from .._types import Error
from . import COLUMNS, Row, Settings, pool_for, rows
from .folders import amount, without_links

ERROR, FAILED, DISAGREE, USAGE, INTERRUPTED, CLOSED_PIPE = 1, 2, 3, 64, 130, 141
NAME = "orvo_timing.archive"
# Of the summary; the last two only where there are any.
KINDS = ("pass", "fail", "disagree", "missing", "unreadable", "no report", "being written")
GROUPS_SHOWN = 20


class Arguments(argparse.ArgumentParser):
    def error(self, message: str) -> NoReturn:
        self.exit(USAGE, f"{self.prog}: {message}\nTry '{self.prog} --help'.\n")


def tolerance(text: str) -> float:
    if not float(text) >= 0:
        raise ValueError
    return float(text)


def count(text: str) -> int:
    if not 0 <= int(text) < 1 << 63:
        raise ValueError
    return int(text)


def chunk(text: str) -> int:
    if not 1 <= int(text) <= 1 << 30:
        raise ValueError
    return int(text)


def arguments() -> argparse.Namespace:
    parser = Arguments("python3 -m orvo_timing.archive", description=(
        "Judges all recordings below the folders again, as 'ortime verify' does: a table with a row for "
        "each, and a summary."), epilog=(
        "Exit status: 0 success; 1 an error, or a recording that could not be judged; 2 a recording "
        "failed; 3 recordings and reports disagree; 64 wrong usage; 130 interrupted."))
    parser.add_argument("roots", metavar="ROOT", nargs="+", help="a folder with runs somewhere below it")
    parser.add_argument("-o", "--output", default="-", metavar="FILE",
                        help="the table, as CSV [standard output]")
    parser.add_argument("--tolerance-ppm", type=tolerance, metavar="PPM",
                        help="largest accepted rate error [that of each report]")
    parser.add_argument("--min-tags-per-channel", type=count, metavar="N",
                        help="fewest timestamps that pass [64]")
    parser.add_argument("--chunk-bytes", type=chunk, default=1 << 20, metavar="N",
                        help="payload bytes decoded at a time [1048576]")
    parser.add_argument("--scheduler", metavar="ADDRESS",
                        help="Dask scheduler whose workers judge, as tcp://HOST:8786 [threads here]")
    return parser.parse_args()


def cell(value: object) -> object:
    """What a spreadsheet would take for a formula begins with an apostrophe; true and false are those
    of the document."""
    if isinstance(value, bool):
        return "true" if value else "false"
    return f"'{value}" if isinstance(value, str) and value[:1] in tuple("=+-@\t\r") else value


@contextlib.contextmanager
def table(name: str) -> Iterator[IO[str]]:
    """Opens standard output, for "-", or a file that is there under its name once it is whole."""
    how = {"newline": "", "encoding": "utf-8", "errors": "surrogateescape"}
    name = name if name == "-" else os.path.realpath(name)
    if name == "-" or (os.path.exists(name) and not os.path.isfile(name)):  # such as a pipe
        with open(1 if name == "-" else name, "w", closefd=name != "-", **how) as out:  # type: ignore
            yield out
        return
    folder, base = os.path.split(name)
    temporary = os.path.join(folder, f".{base}.{os.getpid()}")
    try:
        with open(temporary, "x", **how) as out:  # type: ignore[call-overload]
            yield out
        os.replace(temporary, name)
    except BaseException:
        with contextlib.suppress(FileNotFoundError):
            os.remove(temporary)
        raise


def say(words: str) -> None:
    if sys.stderr is not None:
        print("".join(c if c.isprintable() or c == "\n" else "?" for c in words), file=sys.stderr)


class Progress:
    """A line that is written over, where standard error is a terminal and the table is elsewhere."""

    def __init__(self, output: str) -> None:
        self.shown = sys.stderr is not None and sys.stderr.isatty() and not (
            output == "-" and os.isatty(1))
        self.recordings = self.size_bytes = 0  # of all
        self.next_s = 0.0

    def show(self, summary: Summary) -> None:
        now_s = time.monotonic()
        if not self.shown or now_s < self.next_s:
            return
        self.next_s = now_s + 0.25
        rate = max(summary.payload_bytes / max(summary.elapsed_s(), 1e-3), 1)
        left_s = int(max(self.size_bytes - summary.payload_bytes, 0) / rate)
        line = (f"{summary.recordings} of {max(self.recordings, summary.recordings)} recordings, "
                f"{rate / 1e6:.0f} MB/s, {left_s // 60}:{left_s % 60:02} left")
        print(f"\r{line[:shutil.get_terminal_size().columns - 1]}\x1b[K", end="", file=sys.stderr, flush=True)

    def clear(self) -> None:
        if self.shown:
            print("\r\x1b[K", end="", file=sys.stderr, flush=True)


class Summary:
    """What the rows come to. Groups are instruments where headers name one, else folders of results."""

    def __init__(self) -> None:
        self.began_s = time.monotonic()
        self.runs = self.recordings = self.payload_bytes = 0
        self.groups: dict[str, collections.Counter[str]] = {}
        self.last_run = ""

    def add(self, row: Row) -> None:
        kind = row["state"] if row["state"] != "judged" else (
            "disagree" if row["differences"] else "pass" if row["pass"] else "fail")
        kind = "unreadable" if kind == "no folder" else kind
        device = (row["device_product"], row["device_serial"], row["device_port"])
        group = " ".join(filter(None, device)) or os.path.dirname(row["run_directory"])
        counts = self.groups.setdefault(group, collections.Counter())
        counts[kind] += 1
        if row["stream_file"] is not None:
            counts["recordings"] += 1
            self.recordings += 1
            self.payload_bytes += row["payload_bytes"] or 0
        if row["state"] != "no folder" and row["run_directory"] != self.last_run:
            self.runs += 1
            self.last_run = row["run_directory"]

    def elapsed_s(self) -> float:
        return time.monotonic() - self.began_s

    def total(self) -> collections.Counter[str]:
        return sum(self.groups.values(), collections.Counter())

    def lines(self) -> list[list[str]]:
        """A title, the groups, those first that are not all passes, and the total."""
        total = self.total()
        titles = ["recordings", *KINDS[:5], *(kind for kind in KINDS[5:] if total[kind])]
        groups = sorted(self.groups.items(), key=lambda group: (
            group[1].total() == group[1]["pass"] + group[1]["recordings"], group[0]))
        shown = [*groups[:GROUPS_SHOWN], ("all", total)]
        return [["", *titles], *([name, *(str(counts[title]) for title in titles)]
                                 for name, counts in shown)]

    def text(self) -> str:
        lines = self.lines()
        width = max(len(line[0]) for line in lines)
        text = ""
        for name, *numbers in lines:
            columns = (f"  {number:>{len(title)}}" for number, title in zip(numbers, lines[0][1:]))
            text += f"{name:{width}}{''.join(columns)}\n"
        if len(self.groups) > GROUPS_SHOWN:
            text += f"and {len(self.groups) - GROUPS_SHOWN} groups more, which stand in the table\n"
        seconds = self.elapsed_s()
        return text + (f"{self.recordings} recordings of {self.runs} runs in {seconds:.1f} s: "
                       f"{self.payload_bytes / seconds / 1e6:.0f} MB/s, "
                       f"{self.recordings / seconds:.0f} recordings/s")

    def status(self) -> int:
        total = self.total()
        return (ERROR if total["missing"] or total["unreadable"] or total["no report"] or not total
                else DISAGREE if total["disagree"] else FAILED if total["fail"] else 0)


def stop_at_ctrl_c(stop: _native.StopFlag) -> None:
    """The first time; the second one ends at once."""
    def first(*_: object) -> None:
        stop.set()
        signal.signal(signal.SIGINT, signal.SIG_DFL)

    if signal.getsignal(signal.SIGINT) is not signal.SIG_IGN:
        signal.signal(signal.SIGINT, first)


def run(options: argparse.Namespace, stop: _native.StopFlag) -> int:
    summary, progress, error = Summary(), Progress(options.output), ""
    settings = Settings(options.tolerance_ppm, options.min_tags_per_channel, options.chunk_bytes)
    with pool_for(options.scheduler, stop) as pool:
        stop_at_ctrl_c(stop)
        with table(options.output) as out:
            writer = csv.writer(out)
            writer.writerow(COLUMNS)
            roots = without_links(options.roots, stop)
            if progress.shown:
                progress.recordings, progress.size_bytes = amount(roots, stop)
            try:
                for row in rows(roots, settings, pool):
                    writer.writerow([cell(row[column]) for column in COLUMNS])
                    summary.add(row)
                    progress.show(summary)
            except Error as problem:
                error = f"{problem}; this is not all"
            finally:
                progress.clear()
            interrupted = stop.is_set()
    ended = error or "interrupted: this is not all" * interrupted
    if not ended and not summary.groups:
        ended = "no run is there"
    say(summary.text() + (f"\n{NAME}: {ended}" if ended else ""))
    return ERROR if error else INTERRUPTED if interrupted else summary.status()


def main() -> int:
    logging.disable()  # the scheduler's and its client's, which say at length what is said here
    warnings.simplefilter("ignore")
    sys.unraisablehook = lambda _: None
    stop = _native.StopFlag()
    try:
        return run(arguments(), stop)
    except KeyboardInterrupt:  # before there was anything to write
        return INTERRUPTED
    except BrokenPipeError:
        return CLOSED_PIPE
    except Error as error:
        say(f"{NAME}: {error}")
    except OSError as error:
        say(f"{NAME}: cannot write the table: {error.strerror}")
    return ERROR


if __name__ == "__main__":
    sys.exit(main())
