"""Recordings of a four-channel time-tagging instrument, as NumPy arrays.

    import orvo_timing as ot
    recording = ot.Recording("overflow_frequency_03.ortime")
    tags = recording.tags()                  # fields channel (uint8) and time_ps (int64)
    for block in recording.blocks():         # the same in memory that does not grow
        ...
    ot.judge("overflow_frequency_03.ortime", divider=310).passed

Times are picoseconds. Decoding needs no instrument and no driver library, and releases the
interpreter's lock. A Recording may be used by several threads, an iterator by one at a time.
"""

from __future__ import annotations

import dataclasses
import json
import os
import pathlib
from typing import Any

from . import _native
from ._native import (
    Error, Format, FormatError, Header, LockEvent, LockKind, Mode, Recording, Transport)

__all__ = ["ChannelResult", "Error", "Format", "FormatError", "Header", "LockEvent", "LockKind",
           "Mode", "Recording", "RunResult", "Transport", "Verification", "judge", "load_run"]

for _public in (Format, Header, LockEvent, LockKind, Mode, Recording, Transport):
    _public.__module__ = __name__


@dataclasses.dataclass(frozen=True)
class ChannelResult:
    """What a recording, or a report about it, says of one channel.

    count: decoded timestamps. first_ps, last_ps: the smallest and the largest of them, in ps; 0 below
    two. measured_hz: their rate; 0 where there is none. ppm_error: of measured_hz against the
    expected rate; 0 where there is none. passed: whether count and ppm_error are good enough.
    """

    count: int
    first_ps: int
    last_ps: int
    measured_hz: float
    ppm_error: float
    passed: bool


@dataclasses.dataclass(frozen=True)
class RunResult:
    """The verdict on one recording: of judge(), or as a report has it.

    divider, effective_hz: of the calibration source, and the rate that it generates with it.
    expected_decoded_hz: the same rate in the instrument's own time. overflow_required: one record
    cannot carry the expected period. decoded_tags: of all channels. channels: by channel number.

    requested_hz: 0 where no report says it. recording: None where the file is missing, or of judge().
    """

    passed: bool
    divider: int
    effective_hz: float
    expected_decoded_hz: float
    overflow_required: bool
    decoded_tags: int
    channels: tuple[ChannelResult, ChannelResult, ChannelResult, ChannelResult]
    requested_hz: float = 0.0
    recording: Recording | None = None


@dataclasses.dataclass(frozen=True)
class Verification:
    """A run directory: its path, its whole JSON report, and a RunResult for each frequency."""

    path: pathlib.Path
    passed: bool
    report: dict[str, Any]
    runs: tuple[RunResult, ...]


def judge(path: str | os.PathLike[str], divider: int, *, channel_mask: int | None = None,
          tolerance_ppm: float = 25.0, min_tags_per_channel: int = 64,
          chunk_bytes: int = 1 << 20) -> RunResult:
    """Judges a recording of the calibration source as the verification tool does.

    divider: of the calibration source, 1 to 2^32 - 1, as the report of the run has it. channel_mask:
    bit c for channel c, 0 for all four; None: the recording's own. tolerance_ppm: largest accepted
    rate error, 0 or more. min_tags_per_channel: fewest timestamps that pass. chunk_bytes: as for
    Recording.

    Raises what Recording raises, and ValueError or TypeError, which names the argument.
    """
    result = _native.judge(path, divider, channel_mask, tolerance_ppm, min_tags_per_channel,
                           chunk_bytes)
    channels = tuple(ChannelResult(**channel) for channel in result.pop("channels"))
    return RunResult(channels=channels, **result)


def load_run(path: str | os.PathLike[str]) -> Verification:
    """Reads a run directory of the verification tool, or the JSON report in it.

    A recording is looked for in that directory first, then where the report says it was made.

    Raises OSError where there is no report, FormatError where it is none.
    """
    report_path = pathlib.Path(path)
    if report_path.is_dir():
        report_path /= "overflow_frequency.json"
    try:
        report = json.loads(report_path.read_text(encoding="utf-8", errors="surrogateescape"))
        runs = tuple(_run_result(run, report_path.parent) for run in report["runs"])
        return Verification(report_path.parent, report["pass"], report, runs)
    except (json.JSONDecodeError, KeyError, TypeError) as error:
        raise FormatError(f"{os.fspath(report_path)} is no report of a verification") from error


def _run_result(run, directory):
    recorded = pathlib.Path(run["stream_file"])
    found = [file for file in (directory / recorded.name, recorded) if file.is_file()]
    return _from_report(
        RunResult, run, channels=tuple(_from_report(ChannelResult, c) for c in run["channels"]),
        recording=Recording(found[0]) if found else None)


def _from_report(result, values, **others):
    """A result whose fields are `values` of a report, which has them under the same names."""
    names = {field.name for field in dataclasses.fields(result)} - {"passed", *others}
    return result(passed=values["pass"], **{name: values[name] for name in names}, **others)
