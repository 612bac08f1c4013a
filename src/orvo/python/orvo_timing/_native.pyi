import os
import pathlib
from collections.abc import Iterator
from typing import Any, ClassVar

import numpy as np

__version__: str

class Error(Exception):
    status: int

class FormatError(Error, ValueError):
    status: int

class _Enum:
    name: str
    value: int

class Format(_Enum):
    RAW64: ClassVar[Format]
    DELTA32: ClassVar[Format]
    PACKED_DELTA: ClassVar[Format]

class Mode(_Enum):
    INTERNAL: ClassVar[Mode]
    EXTERNAL: ClassVar[Mode]

class Transport(_Enum):
    UART: ClassVar[Transport]
    USB: ClassVar[Transport]
    USB_ASYNC: ClassVar[Transport]

class LockKind(_Enum):
    LOCKED: ClassVar[LockKind]
    NO_ALIGNMENT: ClassVar[LockKind]
    REJECTED_ALIGNMENT: ClassVar[LockKind]
    INACTIVE_CHANNEL: ClassVar[LockKind]
    OVERFLOW_IN_SYNC: ClassVar[LockKind]
    SYNC_CHANNEL_MISMATCH: ClassVar[LockKind]
    NONMONOTONIC_SYNC: ClassVar[LockKind]
    IMPLAUSIBLE_SYNC_DELTA: ClassVar[LockKind]
    IMPLAUSIBLE_DELTA: ClassVar[LockKind]
    IMBALANCED: ClassVar[LockKind]

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

def judge(path: str | os.PathLike[str], divider: int, channel_mask: int | None,
          tolerance_ppm: float, min_tags_per_channel: int, chunk_bytes: int) -> dict[str, Any]: ...

def load_run(path: str | os.PathLike[str], namespace_type: type[Any]) -> Any: ...
def verify(path: str | os.PathLike[str], tolerance_ppm: float | None,
           min_tags_per_channel: int | None, channel_mask: int | None, chunk_bytes: int,
           namespace_type: type[Any]) -> Any: ...
