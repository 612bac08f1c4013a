"""The folders below some roots, each once."""

from __future__ import annotations

import os
from collections.abc import Iterable, Iterator
from typing import NamedTuple

from .. import _native


class Folder(NamedTuple):
    path: str
    error: str | None  # why it cannot be read
    is_run: bool = False
    links: tuple[str, ...] = ()  # to folders, which are left aside
    recordings: tuple[str, ...] = ()


def folders(root: str) -> Iterator[Folder]:
    """The folder itself and those below it, in the order of paths. Keeps no more than the names in the
    folders on the way to the one it is at."""
    waiting = [("", [root])]
    while waiting:
        above, names = waiting[-1]
        if not names:
            waiting.pop()
            continue
        path = os.path.join(above, names.pop())
        below, links, recordings, has_report = [], [], [], False
        try:
            with os.scandir(path) as entries:
                for entry in entries:
                    if entry.is_dir(follow_symlinks=False):
                        below.append(entry.name)
                    elif entry.is_symlink() and os.path.isdir(entry.path):
                        links.append(entry.path)
                    elif _native.is_recording_name(entry.name):
                        recordings.append(entry.path)
                    else:
                        has_report = has_report or entry.name == _native.REPORT_NAME
        except OSError as error:
            yield Folder(path, error.strerror)
            continue
        waiting.append((path, sorted(below, reverse=True)))
        yield Folder(path, None, has_report or bool(recordings), tuple(links), tuple(recordings))


def is_below(path: str, roots: set[str]) -> bool:
    """What does not exist is below nothing: it has a row of its own."""
    if not os.path.exists(path):
        return False
    while (above := os.path.dirname(path)) != path:
        if above in roots:
            return True
        path = above
    return False


def without_links(roots: Iterable[str | os.PathLike[str]], stop: _native.StopFlag) -> list[str]:
    """Real paths whose folders are all those below the roots and behind links there; none lies below
    another one."""
    found: set[str] = set()
    waiting = [os.path.realpath(os.fsdecode(root)) for root in roots]
    while waiting:
        root = waiting.pop()
        if root in found or is_below(root, found):
            continue
        found.add(root)
        for folder in folders(root):
            if stop.is_set():
                break
            waiting.extend(map(os.path.realpath, folder.links))
    return sorted((root for root in found if not is_below(root, found)), key=lambda root: root.split("/"))


def amount(roots: list[str], stop: _native.StopFlag) -> tuple[int, int]:
    """How many recordings are there, and their bytes."""
    recordings = size_bytes = 0
    for root in roots:
        for folder in folders(root):
            if stop.is_set():
                break
            for recording in folder.recordings:
                try:
                    size_bytes += os.stat(recording).st_size
                except OSError:
                    continue  # has its row
                recordings += 1
    return recordings, size_bytes
