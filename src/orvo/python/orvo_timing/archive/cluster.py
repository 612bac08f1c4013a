"""Units judged by the workers of a Dask cluster."""

from __future__ import annotations

import contextlib
import importlib
import socket
import time
import urllib.parse
from collections.abc import Iterator
from typing import Any

from .. import _native
from .._types import Error
from . import Judging, Pool, Settings, Unit, judge_unit

CONNECT_S = 5


def wait_for_port(address: str) -> None:
    """A client that never was connected complains at length when it goes."""
    place = urllib.parse.urlsplit(address if "://" in address else "tcp://" + address)
    until_s = time.monotonic() + CONNECT_S
    while True:
        try:
            socket.create_connection((place.hostname or "", place.port or 8786), CONNECT_S).close()
            return
        except OSError:
            if time.monotonic() > until_s:
                raise
            time.sleep(0.1)


@contextlib.contextmanager
def cluster(scheduler: str, stop: _native.StopFlag) -> Iterator[Pool]:
    try:
        distributed: Any = importlib.import_module("distributed")  # which knows few types
    except ImportError as error:
        raise Error(f"a scheduler needs Dask, package python3-distributed: {error}") from error
    try:
        wait_for_port(scheduler)
        client: Any = distributed.Client(scheduler, timeout=CONNECT_S, set_as_default=False)
    except (OSError, ValueError) as error:
        raise Error(f"no scheduler answers at {scheduler} within {CONNECT_S} seconds") from error
    # Not pure: else a recording that has changed would have the result from before.
    executor = client.get_executor(pure=False)

    def submit(unit: Unit, settings: Settings) -> Judging:
        check()
        future: Judging = executor.submit(judge_unit, unit, settings)
        return future

    def check() -> None:
        if client.status != "running":
            raise Error(f"the scheduler at {scheduler} has gone away")

    try:
        yield Pool(submit, check, True, stop)
    finally:
        with contextlib.suppress(Exception):  # all is said by now
            if client.status == "running":
                executor.shutdown(wait=False)
            client.close(timeout=1)
