"""judge_archive.py ROOT: prints how many seconds judging all recordings below a folder takes on
threads at best, how many recordings there are, and the number of processors used."""

import os
import sys
import time

import orvo_timing as ot

seconds = []
for _ in range(5):  # the first round warms up
    start = time.perf_counter()
    recordings = sum(1 for _ in ot.archive(sys.argv[1]))
    seconds.append(time.perf_counter() - start)
print(min(seconds), recordings, len(os.sched_getaffinity(0)))
