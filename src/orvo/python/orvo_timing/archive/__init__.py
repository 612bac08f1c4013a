"""Judging the recordings of many runs again, on one machine or many.

archive() yields a row for each recording; `python3 -m orvo_timing.archive` makes a table of them.
docs/archive.md is its manual.
"""

from __future__ import annotations

import collections
import concurrent.futures
import contextlib
import os
import types
from collections.abc import Callable, Iterator
from typing import Any, NamedTuple

from .. import _native
from .._types import Error
from .folders import folders, without_links

# What is known of a recording; None where there is nothing to know. `state` is one of
#   judged         again, as `ortime verify` does: `pass`, and whether there are `differences`
#   no report      was made by a run that has none: counts alone
#   being written  the run, which is still running; a row without a recording
#   missing        not in the folder of its run
#   unreadable     the recording or, without a stream_file, the report of a run: see `error`
#   no folder      nothing that can be read
COLUMNS = (
    "run_directory", "stream_file", "state", "start_utc", "device_product", "device_serial",
    "device_port", "requested_hz", "divider", "reported_pass", "pass", "differences",
    "worst_channel", "ppm_error", "ch0_count", "ch1_count", "ch2_count", "ch3_count",
    "decoded_share", "payload_bytes", "error")
Row = dict[str, Any]

Judging = concurrent.futures.Future[Row]
WINDOW = 1000  # recordings that are worked on, or done and not yet asked for
TICK_S = 0.1


class Settings(NamedTuple):
    tolerance_ppm: float | None
    min_tags_per_channel: int | None
    chunk_bytes: int


class Unit(NamedTuple):
    """One recording to judge. contradiction: of the verdict on the whole run, where its parts say
    otherwise."""

    run_directory: str
    number: int
    stream_file: str
    contradiction: str


class Stopped(Exception):
    """The flag was set."""


class Pool(NamedTuple):
    """Where units are judged: on threads or on a cluster."""

    submit: Callable[[Unit, Settings], Judging]
    check: Callable[[], None]  # raises Error where nothing will come of it any more
    is_far: bool
    stop: _native.StopFlag


def archive(*roots: str | os.PathLike[str], tolerance_ppm: float | None = None,
            min_tags_per_channel: int | None = None, chunk_bytes: int = 1 << 20,
            scheduler: str | None = None) -> Iterator[Row]:
    """Judges every recording below the roots again, as verify() does; yields a row each, a dict.

    Rows come in the order of paths. COLUMNS in orvo_timing.archive names what they hold: the members
    of docs/facts.md. The settings are those of verify(), for all runs alike. Links to folders are
    followed, and no folder is looked into twice.

    scheduler: address of a Dask scheduler, such as "tcp://host:8786"; None: threads, one for each
    processor of this process.

    What cannot be judged is a row with its `error`. Raises Error where the scheduler or a worker
    cannot do what is asked of it, once the rows that are done have been yielded.
    """
    settings = Settings(tolerance_ppm, min_tags_per_channel, chunk_bytes)
    stop = _native.StopFlag()
    with pool_for(scheduler, stop) as pool:
        yield from rows(without_links(roots, stop), settings, pool)


def pool_for(scheduler: str | None,
             stop: _native.StopFlag) -> contextlib.AbstractContextManager[Pool]:
    if scheduler is None:
        return threads(stop)
    from .cluster import cluster  # with all of Dask
    return cluster(scheduler, stop)


@contextlib.contextmanager
def threads(stop: _native.StopFlag) -> Iterator[Pool]:
    with concurrent.futures.ThreadPoolExecutor(len(os.sched_getaffinity(0))) as executor:
        def submit(unit: Unit, settings: Settings) -> Judging:
            return executor.submit(judge_unit, unit, settings, stop)

        try:
            yield Pool(submit, lambda: None, False, stop)
        finally:
            stop.set()
            executor.shutdown(cancel_futures=True)


def rows(roots: list[str], settings: Settings, pool: Pool) -> Iterator[Row]:
    """The rows of all that is below the roots, of which none lies below another one. Ends early once
    the flag of the pool is set, with those that are done."""
    window: collections.deque[tuple[Unit | Row, Judging]] = collections.deque()

    def first() -> Row:
        unit, future = window[0]
        row = outcome(unit, future) if isinstance(unit, Unit) else unit
        window.popleft()
        return row

    def outcome(unit: Unit, future: Judging) -> Row:
        if not wait_for(future, pool):
            # Whoever is near a recording that ends workers dies with it: it is tried alone.
            for _, other in list(window)[1:]:
                wait_for(other, pool)
            future = pool.submit(unit, settings)
            if not wait_for(future, pool):
                return row_of(unit.run_directory, unit.stream_file, "unreadable",
                              "ended four workers, one after another")
        row = future.result()
        if is_unseen(row):
            raise Error(f"a worker does not see {unit.stream_file!r}: recordings are read "
                        "by their absolute paths from a folder that all share")
        return row

    def is_unseen(row: Row) -> bool:
        return pool.is_far and row["state"] == "missing" and os.path.exists(row["stream_file"])

    try:
        for unit in units(roots, pool.stop):
            window.append((unit, pool.submit(unit, settings) if isinstance(unit, Unit)
                           else finished(unit)))
            while window and (len(window) >= WINDOW or window[0][1].done()):
                yield first()
        while window:
            yield first()
    except (Stopped, Error) as problem:
        for _, future in window:
            if future.done() and not future.cancelled() and not future.exception():
                if not is_unseen(future.result()):
                    yield future.result()
        if isinstance(problem, Error):
            raise
    finally:
        for _, future in window:
            future.cancel()


def finished(row: Row) -> Judging:
    future = Judging()
    future.set_result(row)
    return future


def wait_for(future: Judging, pool: Pool) -> bool:
    """Whether it has a result, and is not what ends workers. Raises Error where no unit would have."""
    while not future.done():
        pool.check()
        if pool.stop.is_set():
            raise Stopped
        concurrent.futures.wait([future], TICK_S)
    if future.cancelled():
        pool.check()
        raise Error("the scheduler has dropped a recording")
    problem = future.exception()
    if pool.stop.is_set() and problem:
        raise Stopped
    if type(problem).__name__ == "KilledWorker":
        return False
    if isinstance(problem, Exception) and pool.is_far and not isinstance(problem, ValueError):
        raise Error(f"a worker cannot judge: {problem}; has it this version of orvo_timing?")
    return True


def units(roots: list[str], stop: _native.StopFlag) -> Iterator[Unit | Row]:
    """In the order of paths; a row where there is nothing to judge."""
    for root in roots:
        for folder in folders(root):
            if stop.is_set():
                raise Stopped
            if folder.error is not None:
                yield row_of(folder.path, None, "no folder", folder.error)
            elif folder.is_run:
                yield from units_of(folder.path)


def units_of(run_directory: str) -> Iterator[Unit | Row]:
    try:
        being_written, contradiction, files = _native.outline(run_directory)
    except (Error, OSError) as error:
        yield row_of(run_directory, None, "unreadable", str(error))
        return
    if being_written:
        yield row_of(run_directory, None, "being written")
        return
    for number, file in enumerate(files):
        yield Unit(run_directory, number, file, contradiction if number == 0 else "")


def judge_unit(unit: Unit, settings: Settings, stop: _native.StopFlag | None = None) -> Row:
    row = row_of(unit.run_directory, unit.stream_file, "unreadable")
    try:
        recording = _native.verify(
            unit.run_directory, settings.tolerance_ppm, settings.min_tags_per_channel, None,
            settings.chunk_bytes, types.SimpleNamespace, unit.number, stop)
        fill(row, recording, unit.contradiction if settings[:2] == (None, None) else "")
    except (Error, OSError, MemoryError) as error:
        row["error"] = str(error) or "not enough memory"
    if row["error"] is not None and not os.path.exists(unit.stream_file):
        row["state"] = row["error"] = "missing"
    return row


def row_of(run_directory: str, stream_file: str | None, state: str, error: str | None = None) -> Row:
    return {**dict.fromkeys(COLUMNS), "run_directory": run_directory, "stream_file": stream_file,
            "state": state, "differences": "", "error": error}


def fill(row: Row, recording: Any, contradiction: str) -> None:
    """Takes over what the document says of the recording."""
    row["error"] = recording.error
    row["payload_bytes"] = recording.payload_bytes
    if recording.header is not None:
        row["start_utc"] = recording.header.created_utc
        for name in ("device_product", "device_serial", "device_port"):
            row[name] = getattr(recording.header, name)
    if recording.reported is not None:
        row.update(requested_hz=recording.reported.requested_hz, divider=recording.reported.divider,
                   reported_pass=recording.reported.passed)
    if recording.judged is None:
        return
    row["state"] = "judged" if recording.reported is not None else "no report"
    if recording.reported is None:
        row["error"] = f"the run {_native.NO_REPORT}"
    row["pass"] = recording.judged.passed
    row["differences"] = "; ".join(filter(None, (
        contradiction, *(difference.words for difference in recording.differences))))
    channels = recording.judged.channels
    row.update({f"ch{channel.channel}_count": channel.count for channel in channels})
    counting = [channel for channel in channels if channel.judged]
    if recording.expected_events and counting:
        row["decoded_share"] = min(1.0, min(channel.count for channel in counting)
                                   / recording.expected_events)
    if recording.reported is not None and counting:  # a silent channel is the worst
        worst = max(counting, key=lambda channel: (channel.ppm_error is None,
                                                   abs(channel.ppm_error or 0)))
        row["worst_channel"], row["ppm_error"] = worst.channel, worst.ppm_error
