"""What recordings hold besides timestamps, and how they fail, as types of Python's own kinds."""

from __future__ import annotations

import dataclasses
import enum
import errno
import os
from typing import Any

import numpy as np

from . import _native

Tags = np.ndarray[Any, np.dtype[np.void]]


class Error(OSError):
    """A file that cannot be used. status: the decoder's number for it."""

    status: int = _native.STATUS_IO


class FormatError(Error, ValueError):
    """The file is no recording, or holds no records that can be decoded."""

    status = _native.STATUS_FORMAT


class FileNotFound(Error, FileNotFoundError):
    """There is no such file."""


class PermissionDenied(Error, PermissionError):
    """The file may not be read."""


class IsADirectory(Error, IsADirectoryError):
    """The path is a directory."""


def os_error(number: int, path: str) -> Error:
    kind = {errno.ENOENT: FileNotFound, errno.EACCES: PermissionDenied, errno.EPERM: PermissionDenied,
            errno.EISDIR: IsADirectory}.get(number, Error)
    reason = "a pipe, which cannot be read twice" if number == errno.ESPIPE else os.strerror(number)
    return kind(number, reason, path)


class Format(enum.Enum):
    """Record format of a payload."""

    RAW64 = 0
    DELTA32 = 1
    PACKED_DELTA = 2


class Mode(enum.Enum):
    """Source of the events: INTERNAL is calibration, EXTERNAL the inputs."""

    INTERNAL = 0
    EXTERNAL = 1


class Transport(enum.Enum):
    """How the bytes came to the host."""

    UART = 0
    USB = 1
    USB_ASYNC = 2


class LockKind(enum.Enum):
    """What happened to the lock.

    LOCKED: taken. NO_ALIGNMENT, REJECTED_ALIGNMENT: not found. The others: dropped, because the
    records show damage.
    """

    LOCKED = 0
    NO_ALIGNMENT = 1
    REJECTED_ALIGNMENT = 2
    INACTIVE_CHANNEL = 3
    OVERFLOW_IN_SYNC = 4
    SYNC_CHANNEL_MISMATCH = 5
    NONMONOTONIC_SYNC = 6
    IMPLAUSIBLE_SYNC_DELTA = 7
    IMPLAUSIBLE_DELTA = 8
    IMBALANCED = 9


@dataclasses.dataclass(frozen=True)
class Header:
    """What a recording says about its payload.

    channel_mask: bit c for channel c, 0 to 3. tdl_index: 0 to 255. delta_bits: width of one packed
    delta. quantum_ps: packed-delta ticks, in ps: the largest power of two in it. raw64_tag_format:
    "ps" or "raw_cf". created_utc: time of the capture, ISO 8601. application: program that recorded.
    device_product, device_serial: as the instrument says. device_port: where it was attached.
    """

    stream_format: Format
    mode: Mode
    stream_transport: Transport
    channel_mask: int
    tdl_index: int
    delta_bits: int
    quantum_ps: int
    raw64_tag_format: str
    created_utc: str
    application: str
    device_product: str
    device_serial: str
    device_port: str


@dataclasses.dataclass(frozen=True, repr=False)
class LockEvent:
    """One thing that happened to a packed-delta lock. Fields that do not belong to the kind are 0.

    drops_lock: whether the event ended a lock. payload_offset_bytes: payload consumed when it
    happened. tags_before: timestamps decoded before it. drop_bytes: bytes skipped or given up.
    bit_offset: of the alignment, 0 to 7. buffer_bytes: bytes that were searched or wait. synced:
    channels that a rejected alignment syncs. min, max: records or timestamps of the least and the
    most active channel. total: of all active channels.

    record: the one at fault, from 0 in its batch. records: of the whole batch. channel: of the record
    at fault. sync_channel: the channel that was expected. sync_chunks_left: missing from the sync.
    delta_ps: the step, in ps. next_ps: the event's time. prev_ps: the channel's last time.
    """

    kind: LockKind
    drops_lock: bool = False
    payload_offset_bytes: int = 0
    tags_before: int = 0
    drop_bytes: int = 0
    bit_offset: int = 0
    buffer_bytes: int = 0
    synced: int = 0
    min: int = 0
    max: int = 0
    total: int = 0
    record: int = 0
    records: int = 0
    channel: int = 0
    sync_channel: int = 0
    sync_chunks_left: int = 0
    delta_ps: int = 0
    next_ps: int = 0
    prev_ps: int = 0

    def __repr__(self) -> str:
        said = (f"{name}={value}" for name, value in vars(self).items() if name != "kind" and value)
        return f"LockEvent({', '.join((str(self.kind), *said))})"
