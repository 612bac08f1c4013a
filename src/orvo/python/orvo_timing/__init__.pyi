import enum
import os
import pathlib
from collections.abc import Iterator
from dataclasses import dataclass
from typing import Any

import numpy as np

class Error(Exception):
    status: int

class FormatError(Error, ValueError):
    status: int

class Format(enum.Enum):
    RAW64: int
    DELTA32: int
    PACKED_DELTA: int

class Mode(enum.Enum):
    INTERNAL: int
    EXTERNAL: int

class Transport(enum.Enum):
    UART: int
    USB: int
    USB_ASYNC: int

class LockKind(enum.Enum):
    LOCKED: int
    NO_ALIGNMENT: int
    REJECTED_ALIGNMENT: int
    INACTIVE_CHANNEL: int
    OVERFLOW_IN_SYNC: int
    SYNC_CHANNEL_MISMATCH: int
    NONMONOTONIC_SYNC: int
    IMPLAUSIBLE_SYNC_DELTA: int
    IMPLAUSIBLE_DELTA: int
    IMBALANCED: int

class Header:
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

class LockEvent:
    kind: LockKind
    drops_lock: bool
    payload_offset_bytes: int
    tags_before: int
    drop_bytes: int
    bit_offset: int
    buffer_bytes: int
    synced: int
    min: int
    max: int
    total: int
    record: int
    records: int
    channel: int
    sync_channel: int
    sync_chunks_left: int
    delta_ps: int
    next_ps: int
    prev_ps: int

class Recording:
    path: pathlib.Path
    header: Header
    lock_events: list[LockEvent]
    def __init__(self, path: str | os.PathLike[str], chunk_bytes: int = ...) -> None: ...
    def tags(self) -> np.ndarray[Any, np.dtype[np.void]]: ...
    def blocks(self, max_tags: int = ...) -> Iterator[np.ndarray[Any, np.dtype[np.void]]]: ...
    def close(self) -> None: ...
    def __iter__(self) -> Iterator[np.ndarray[Any, np.dtype[np.void]]]: ...
    def __enter__(self) -> Recording: ...
    def __exit__(self, *args: object) -> None: ...

@dataclass(frozen=True)
class ChannelResult:
    count: int
    first_ps: int
    last_ps: int
    measured_hz: float
    ppm_error: float
    passed: bool

@dataclass(frozen=True)
class RunResult:
    passed: bool
    divider: int
    effective_hz: float
    expected_decoded_hz: float
    overflow_required: bool
    decoded_tags: int
    channels: tuple[ChannelResult, ChannelResult, ChannelResult, ChannelResult]
    requested_hz: float = ...
    recording: Recording | None = ...

@dataclass(frozen=True)
class Verification:
    path: pathlib.Path
    passed: bool
    report: dict[str, Any]
    runs: tuple[RunResult, ...]

def judge(
    path: str | os.PathLike[str],
    divider: int,
    *,
    channel_mask: int | None = ...,
    tolerance_ppm: float = ...,
    min_tags_per_channel: int = ...,
    chunk_bytes: int = ...,
) -> RunResult: ...
def load_run(path: str | os.PathLike[str]) -> Verification: ...
