#!/usr/bin/env python3
"""nearest_events.py RECORDING PICTURE: how far from the nearest event of channel 0 the events of the
other channels lie. Draws with matplotlib."""

import sys

import numpy as np
import numpy.typing as npt
from matplotlib.figure import Figure

import orvo_timing as ot


Times = npt.NDArray[np.int64]


def to_nearest_ps(times: Times, reference: Times) -> Times:
    """From each of `times` the signed distance to the nearest of `reference`, which is sorted."""
    following = np.searchsorted(reference, times).clip(1, len(reference) - 1)
    since, until = times - reference[following - 1], reference[following] - times
    return np.where(since < until, since, -until)


def main(recording_path: str, picture_path: str) -> None:
    recording = ot.Recording(recording_path)
    tags = recording.tags()
    reference = np.sort(tags["time_ps"][tags["channel"] == 0])

    figure = Figure(figsize=(8, 3.4), layout="constrained")
    axes = figure.subplots()
    tick_ps = recording.header.quantum_ps
    for channel in (1, 2, 3):
        distance_ps = to_nearest_ps(tags["time_ps"][tags["channel"] == channel], reference)
        distances, counts = np.unique(distance_ps, return_counts=True)
        axes.bar(distances, counts, width=tick_ps, alpha=0.7, color=f"C{channel}",
                 label=f"channel {channel}: {np.median(distance_ps):.0f} ps, "
                       f"rms {distance_ps.std():.0f} ps")
    axes.set_xlabel("time from the nearest event of channel 0 (ps)")
    axes.set_ylabel(f"events per {tick_ps} ps")
    axes.legend(loc="lower center", bbox_to_anchor=(0.5, 1), ncols=3, fontsize="small")
    figure.savefig(picture_path, dpi=120)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("Usage: nearest_events.py RECORDING PICTURE")
    main(*sys.argv[1:])
