"""sum_times.py RECORDING: prints how many seconds importing orvo_timing takes beside NumPy, how many
summing all times by blocks() takes, and the sum modulo 2^64."""

import sys
import time

import numpy as np  # noqa: F401

start = time.perf_counter()
import orvo_timing as ot  # noqa: E402

import_seconds = time.perf_counter() - start
for _ in range(2):  # the first round warms up
    start = time.perf_counter()
    total = sum(int(block["time_ps"].sum()) for block in ot.Recording(sys.argv[1]).blocks())
    seconds = time.perf_counter() - start
print(import_seconds, seconds, total % 2**64)
