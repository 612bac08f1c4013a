"""Recordings of a four-channel time-tagging instrument, as NumPy arrays.

    import orvo_timing as ot
    recording = ot.Recording("overflow_frequency_03.ortime")
    tags = recording.tags()                  # fields channel (uint8) and time_ps (int64)
    for block in recording.blocks():         # the same in memory that does not grow
        ...
    recording.tags(channel=1, from_ps=0, to_ps=10**12), recording.counts, recording.last_ps
    for recording, block in ot.iterate(paths):
        ...
    ot.judge("overflow_frequency_03.ortime", divider=310).passed

Times are picoseconds. Decoding needs no instrument and no driver library, and releases the
interpreter's lock. A Recording may be used by several threads, an iterator by one at a time.
"""

from __future__ import annotations

import os
import sys
import types
from collections.abc import Iterable, Iterator
from typing import cast, Union

try:
    import numpy as _numpy
except ImportError as error:
    raise ImportError(f"orvo_timing needs NumPy, which {sys.executable} cannot import") from error

from . import _native
from ._native import Recording, __version__
from ._types import (
    Error, Format, FormatError, Header, LockEvent, LockKind, Mode, Tags, Transport, os_error)
from .archive import archive

__all__ = ["Error", "Facts", "Format", "FormatError", "Header", "LockEvent", "LockKind", "Mode",
           "Recording", "Tags", "Transport", "__version__", "archive", "iterate", "judge", "load_run",
           "verify"]

for _public in (Error, Format, FormatError, Header, LockEvent, LockKind, Mode, Recording, Transport):
    _public.__module__ = __name__


class Facts(types.SimpleNamespace):
    """What is known of a run: the document that ortime prints as JSON, its members as attributes.

    docs/facts.md has a table of them. What is an object there is a Facts here, a list is a tuple, and
    what has no value is None; `pass` is called `passed`.
    """


def judge(path: str | os.PathLike[str], divider: int, *, channel_mask: int | None = None,
          tolerance_ppm: float = 25.0, min_tags_per_channel: int = 64,
          chunk_bytes: int = 1 << 20) -> Facts:
    """Judges a recording of the calibration source as the verification tool does.

    divider: of the calibration source, 1 to 2^32 - 1, as the report of the run has it. channel_mask:
    bit c for channel c, 0 for all four; None: the recording's own. tolerance_ppm: largest accepted
    rate error, 0 or more. min_tags_per_channel: fewest timestamps that pass. chunk_bytes: as for
    Recording.

    The result is what verify() has as `judged`: `passed`, `effective_hz` (what the source generates),
    `expected_decoded_hz` (the same in the instrument's own time), `overflow_required` (one record
    cannot carry the period), `decoded_tags`, and `channels`, all four, with `count`, `first_ps`,
    `last_ps`, `measured_hz`, `ppm_error` and `passed`.

    Raises what Recording raises, and ValueError or TypeError, which names the argument.
    """
    result: Facts = _native.judge(path, divider, tolerance_ppm, min_tags_per_channel, channel_mask,
                                  chunk_bytes, Facts)
    return result


def _require(path: str | os.PathLike[str]) -> None:
    try:
        os.stat(path)
    except OSError as error:
        raise os_error(error.errno or 0, os.fsdecode(path)) from error


def load_run(path: str | os.PathLike[str]) -> Facts:
    """What is known of a run without decoding its recordings.

    path: whatever ortime calls a run: a run directory, a JSON report, latest.json, or a folder of
    results for its newest run.

    `passed` is what the report claims, None where there is none; verify() looks whether it is so.
    Each of `recordings` has `reported`, the run as the report has it, and `stream_file`, where its
    recording is now: Recording(stream_file).

    Raises Error: FormatError where the report is none, a FileNotFoundError where there is nothing.
    """
    _require(path)
    run: Facts = _native.load_run(path, Facts)
    run.passed = run.verdict.reported_passed
    return run


def verify(path: str | os.PathLike[str], *, tolerance_ppm: float | None = None,
           min_tags_per_channel: int | None = None, channel_mask: int | None = None,
           chunk_bytes: int = 1 << 20) -> Facts:
    """Judges the recordings of a run again, as ortime verify does, and says what differs.

    path: as for load_run(). The others: as for judge(); None: as the report has it.

    `passed`: all recordings were judged, passed, and are what the report says. Each of `recordings`
    has `reported`, `judged` and the `differences` of the two.

    Raises what load_run() and judge() raise; a recording that cannot be read has its `error`.
    """
    _require(path)
    run: Facts = _native.verify(path, tolerance_ppm, min_tags_per_channel, channel_mask, chunk_bytes,
                                Facts)
    run.passed = run.verdict.passed
    return run


Source = Union[str, "os.PathLike[str]", Recording, Facts]


def iterate(sources: Source | Iterable[Source], max_tags: int = 1 << 14, *,
            channel: int | Iterable[int] | None = None, from_ps: int | None = None,
            to_ps: int | None = None) -> Iterator[tuple[Recording, Tags]]:
    """Iterates over the blocks of many recordings, each with the recording that it is from.

    sources: one or more of: a recording, its path, a run of load_run(), a directory as for load_run().
    One file is open at a time. The others: as for Recording.blocks().

    Raises what Recording and load_run() raise, where a recording is missing, too.
    """
    if isinstance(channel, Iterable):
        channel = tuple(channel)  # for each recording
    one = isinstance(sources, (str, os.PathLike, Recording, Facts))
    for source in cast(Iterable[Source], (sources,) if one else sources):
        for recording in _recordings_of(source):
            for block in recording.blocks(max_tags, channel=channel, from_ps=from_ps, to_ps=to_ps):
                yield recording, block


def _recordings_of(source: Source) -> Iterable[Recording]:
    if isinstance(source, Recording):
        return (source,)
    if not isinstance(source, Facts):
        if not os.path.isdir(source):
            return (Recording(source),)
        source = load_run(source)
    return (Recording(recording.stream_file) for recording in source.recordings)
