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

from . import _native
from ._native import (
    Error, Format, FormatError, Header, LockEvent, LockKind, Mode, Recording, Transport)

__all__ = ["ChannelResult", "Error", "Format", "FormatError", "Header", "LockEvent", "LockKind",
           "Mode", "Recording", "RunResult", "Transport", "Verification", "judge", "load_run"]

for _public in (Format, Header, LockEvent, LockKind, Mode, Recording, Transport):
    _public.__module__ = __name__


@dataclasses.dataclass(frozen=True)
class ChannelResult:
    """What a recording, or a report about it, says of one channel."""

    count: int  #: decoded timestamps
    first_ps: int  #: smallest timestamp; 0 below two timestamps, like the next
    last_ps: int  #: largest timestamp
    measured_hz: float  #: 0 where it cannot be measured
    ppm_error: float  #: of measured_hz against the expected rate; 0 without one
    passed: bool


@dataclasses.dataclass(frozen=True)
class RunResult:
    """The verdict on one recording: of judge(), or as a report has it."""

    passed: bool
    divider: int  #: of the calibration source
    effective_hz: float  #: rate that the calibration source generates
    expected_decoded_hz: float  #: the same in the instrument's own time
    overflow_required: bool  #: one record cannot carry the expected period
    decoded_tags: int  #: of all channels
    channels: tuple  #: four ChannelResult, by channel number
    requested_hz: float = 0.0  #: 0 where no report says it
    recording: Recording | None = None  #: None where the file is missing, or of judge()


@dataclasses.dataclass(frozen=True)
class Verification:
    """A run directory: its report and its recordings."""

    path: pathlib.Path  #: the directory
    passed: bool
    report: dict  #: the whole JSON report
    runs: tuple  #: RunResult, in the order of the frequencies


def judge(path, divider, *, channel_mask=None, tolerance_ppm=25.0, min_tags_per_channel=64,
          chunk_bytes=1 << 20):
    """Judges a recording of the calibration source as the verification tool does.

    path: str or os.PathLike. divider: of the calibration source, 1 to 2^32 - 1, as the report of the
    run has it. channel_mask: bit c for channel c, 0 for all four; None: the recording's own.
    tolerance_ppm: largest accepted rate error, 0 or more. min_tags_per_channel: fewest timestamps
    that pass. chunk_bytes: as for Recording.

    Returns a RunResult. Raises what Recording raises, and ValueError, which names the argument.
    """
    result = _native.judge(path, divider, channel_mask, tolerance_ppm, min_tags_per_channel,
                           chunk_bytes)
    channels = tuple(ChannelResult(**channel) for channel in result.pop("channels"))
    return RunResult(channels=channels, **result)


def load_run(path):
    """Reads a run directory of the verification tool, or the JSON report in it.

    A recording is looked for in that directory first, then where the report says it was made.

    Returns a Verification. Raises OSError where there is no report, FormatError where it is none.
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
    names = {field.name for field in dataclasses.fields(ChannelResult)}
    channels = tuple(
        ChannelResult(passed=c["pass"], **{name: c[name] for name in names - {"passed"}})
        for c in run["channels"])
    recorded = pathlib.Path(run["stream_file"])
    found = [file for file in (directory / recorded.name, recorded) if file.is_file()]
    return RunResult(
        passed=run["pass"], channels=channels, recording=Recording(found[0]) if found else None,
        **{name: run[name] for name in ("divider", "effective_hz", "expected_decoded_hz",
                                        "overflow_required", "decoded_tags", "requested_hz")})
