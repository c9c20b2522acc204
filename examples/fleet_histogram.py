"""Computes the histogram of a signal over many files, on a cluster of two processes.

    python3 fleet_histogram.py [--files 1000] [FOLDER]

Generates the files in FOLDER, or in a temporary one. Needs dask, distributed and pandas.
"""

from __future__ import annotations

import argparse
import tempfile
from pathlib import Path
from typing import Any

import dask
import numpy as np
import tolvex
from distributed import Client, LocalCluster

START = np.datetime64("2024-05-06T07:00:00", "ns")
EDGES = np.arange(0, 201, 10)


def generate(folder: Path, count: int) -> None:
    """A drive of 20 s each, at 100 Hz, an hour after the one before."""
    for number in range(count):
        random = np.random.default_rng(number)
        path, start = folder / f"drive{number:04}.mf4", START + np.timedelta64(number, "h")
        with tolvex.Recorder(path, start=start) as recorder:
            group = recorder.group("engine", {"speed": "f4", "gear": "u1"}, units={"speed": "km/h"})
            records = np.zeros(2000, group.dtype)
            records["time"] = np.arange(len(records)) / 100
            records["speed"] = np.clip(random.normal(60 + number % 80, 25, len(records)), 0, 199)
            records["gear"] = records["speed"] // 35
            group.extend(records)


def histogram(speed: Any) -> Any:
    """Of one partition: how many values there are from each edge on, by the edge."""
    counts, _ = np.histogram(speed, EDGES)
    return type(speed)(counts, index=EDGES[:-1])


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("folder", nargs="?", type=Path, help="where the files are generated")
    parser.add_argument("--files", type=int, default=1000)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as temporary:
        folder = options.folder or Path(temporary)
        generate(folder, options.files)
        print(tolvex.fleet(folder), end="\n\n")  # from headers alone

        frame = tolvex.dask_frame(folder, ["speed"])  # nothing is read yet
        counts = frame["speed"].map_partitions(histogram, meta=("speed", "i8"))
        with LocalCluster(n_workers=2, threads_per_worker=1, dashboard_address=None) as cluster:
            with Client(cluster):  # from here on, its workers compute
                counts, errors = dask.compute(counts, tolvex.dask_errors(frame))

    total = counts.groupby(level=0).sum()
    for edge, count in total.items():
        print(f"{edge:3} km/h {count:8} {'#' * round(50 * count / total.max())}")
    print(f"{total.sum()} values of {options.files} files, {len(errors)} errors")


if __name__ == "__main__":
    main()
