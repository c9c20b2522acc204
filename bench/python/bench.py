"""What the Python package costs beside the C++ interface: a row for each kind of work.

    bench.py PEER [ROW ...]

PEER is the program of Peer.cpp. Both do the same work, in turn, on the same files; a row is the
quotient of the best runs, beside its goal.
"""

from __future__ import annotations

import gc
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Any, Callable, Dict, List, Tuple

import numpy as np

import tolvex

RECORDS = 5_000_000
RUNS = 5
START = np.datetime64("2026-01-01", "ns")


def best(work: Callable[[], Any], runs: int = RUNS) -> float:
    least = 1e9
    for _ in range(runs):
        gc.collect()
        begin = time.perf_counter()
        result = work()  # is freed later: so is the peer's
        least = min(least, time.perf_counter() - begin)
        del result
    return least


class Bench:
    def __init__(self, peer: str, folder: Path) -> None:
        self.peer = peer
        self.folder = folder

    def by_peer(self, *arguments: Any) -> float:
        command = [self.peer, arguments[0], str(RUNS), *map(str, arguments[1:])]
        return float(subprocess.run(command, check=True, capture_output=True, text=True).stdout)

    def compared(self, work: Callable[[], Any], *arguments: Any) -> Tuple[float, float]:
        """The package's time and the peer's, the better of two turns each."""
        turns = [(best(work), self.by_peer(*arguments)) for _ in range(2)]
        return min(turn[0] for turn in turns), min(turn[1] for turn in turns)

    # Files ------------------------------------------------------------------------------------

    def made(self, name: str, make: Callable[[Path], None]) -> Path:
        path = self.folder / name
        if not path.exists():
            make(path)
        return path

    def signals(self) -> Path:
        """15 linear channels of uint16, 5 million records."""

        def make(path: Path) -> None:
            fields = [(f"x{i}", np.uint16) for i in range(15)]
            conversions = {name: tolvex.conversions.linear(0.5, i) for i, (name, _) in enumerate(fields)}
            with tolvex.Recorder(path) as r:
                group = r.group("signals", fields, conversions=conversions)
                at = np.arange(RECORDS)
                group.extend({"time": at * 0.001, **{n: at % 60000 for n, _ in fields}})

        return self.made("signals.mf4", make)

    def log(self) -> Path:
        """5 million frames of 8 bytes."""

        def make(path: Path) -> None:
            with tolvex.Recorder(path, max_data_length=8, start=START) as r:
                for first in range(0, RECORDS, 500_000):
                    at = np.arange(first, first + 500_000)
                    r.frames(
                        {
                            "time_ns": START.astype(np.int64) + at * 100_000,
                            "id": (at % 2000).astype(np.uint32),
                            "data": np.tile(np.arange(8, dtype=np.uint8), (500_000, 1)),
                        }
                    )

        return self.made("log.mf4", make)

    def wide(self) -> Path:
        """100,000 channels."""

        def make(path: Path) -> None:
            with tolvex.Recorder(path) as r:
                for i in range(100):
                    names = [f"channel_{i}_{k}" for k in range(1000)]
                    r.group(f"group {i}", [(name, np.uint16) for name in names])

        return self.made("wide.mf4", make)

    def many(self) -> Path:
        """1,000 files of 20 channels and some frames."""

        def make(path: Path) -> None:
            path.mkdir()
            fields = [(f"x{i}", np.float32) for i in range(20)]
            at = np.arange(100.0)
            for i in range(1000):
                with tolvex.Recorder(path / f"{i:04}.mf4") as r:
                    group = r.group("signals", fields)
                    group.extend({"time": at, **{name: at for name, _ in fields}})

        return self.made("many", make)

    # Rows -------------------------------------------------------------------------------------

    def row_columns(self) -> List[Any]:
        m = tolvex.open(self.signals())
        threads = min(8, os.cpu_count() or 1)
        rows = []
        for count in (1, 15):
            names = [f"x{i}" for i in range(count)]
            signals = [m[name] for name in names]
            group, channels = signals[0].group, [(s.index, s._type, s.shape) for s in signals]
            read = lambda: m._read(group.index, channels, 0, group.rows)
            mine, peers = self.compared(read, "columns", self.signals(), group.index, count, threads)
            rows.append((f"{count} columns of 5 million records", mine, peers, 1.1))
        return rows

    def row_pandas(self) -> List[Any]:
        m = tolvex.open(self.signals())
        names = [f"x{i}" for i in range(15)]
        arrays = best(lambda: m.table(names))
        frame = best(lambda: m.table(names).to_pandas())
        return [("table(...).to_pandas() / the arrays", frame, arrays, 1.3)]

    def row_frames(self) -> List[Any]:
        m = tolvex.open(self.log())
        rows = []
        for what, most in (("batches", 1 << 16), ("one batch", RECORDS)):
            mine, peers = self.compared(m.frames, "frames", self.log(), RECORDS, most)
            rows.append((f"5 million frames into arrays / {what}", mine, peers, 1.1))
        return rows

    def row_open(self) -> List[Any]:
        mine, peers = self.compared(lambda: tolvex.open(self.wide()), "open", self.wide())
        code = (
            "import sys, tolvex\n"
            "size = lambda: int(open('/proc/self/statm').read().split()[1]) * 4096\n"
            "before = size(); m = tolvex.open(sys.argv[1]); print(size() - before)"
        )
        per_channel = in_python(code, self.wide()) / 100_000
        return [
            ("open of 100,000 channels", mine, peers, 2.0),
            ("bytes a channel / 2 KiB", per_channel, 2048.0, 1.0),
        ]

    def row_objects(self) -> List[Any]:
        import can

        path = self.folder / "log.blf"
        count = 1_000_000
        if not path.exists():
            with can.BLFWriter(path) as writer:
                for i in range(count):
                    writer.on_message_received(
                        can.Message(1e-4 * i, i % 2000, False, data=bytes(range(8)), channel=0)
                    )
        m = tolvex.open(self.log())

        def frames() -> None:
            assert sum(1 for _ in m.frames(stop=0.1 * count / 1000)) == count

        def others() -> None:
            assert sum(1 for _ in can.BLFReader(path)) == count

        return [("1 million frames as objects / BLF reader", best(frames, 3), best(others, 2), 0.2)]

    def row_record(self) -> List[Any]:
        import pandas

        rows, columns = 1_000_000, 5
        at = np.arange(rows, dtype=float)
        data = {f"x{i + 1}": at + i + 1 for i in range(columns)}
        frame = pandas.DataFrame(data, index=pandas.Index(at * 0.001, name="time"))
        out, theirs = self.folder / "mine.mf4", self.folder / "theirs.mf4"

        def write() -> None:
            tolvex.write(out, frame)

        mine, peers = self.compared(write, "insert", theirs, rows, columns)
        assert abs(out.stat().st_size - theirs.stat().st_size) < 10_000
        return [("1 million rows of a frame recorded", mine, peers, 1.2)]

    def row_fleet(self) -> List[Any]:
        folder = self.many()
        mine, peers = self.compared(lambda: tolvex.fleet(folder), "summaries", folder)
        return [("fleet of 1,000 files", mine, peers, 1.5)]

    def row_memory(self) -> List[Any]:
        """The peak of one part of a table beside that of all parts of 5 million records."""
        code = (
            "import sys, tolvex; n = 0\n"
            "for part in tolvex.open(sys.argv[1]).iter_tables(rows=100_000):\n"
            "    n += part.rows\n"
            "    if n == int(sys.argv[2]): break\n"
            "print(open('/proc/self/status').read().split('VmHWM:')[1].split()[0])"
        )
        peaks = []
        for rows in (RECORDS, 1_000_000):
            peaks.append(in_python(code, self.signals(), rows))
        return [("peak memory of iter_tables, 5 / 1 million", *peaks, 1.05)]


def in_python(code: str, *arguments: Any) -> float:
    """What code prints in a process of its own."""
    command = [sys.executable, "-c", code, *map(str, arguments)]
    return float(subprocess.run(command, check=True, capture_output=True).stdout)


def main() -> None:
    with tempfile.TemporaryDirectory() as folder:
        bench = Bench(sys.argv[1], Path(folder))
        rows: Dict[str, Callable[[], List[Any]]] = {
            name[4:]: getattr(bench, name) for name in dir(bench) if name.startswith("row_")
        }
        print(f"{'work':46} {'here':>10} {'beside':>10} {'ratio':>7} {'goal':>5}")
        for name in sys.argv[2:] or rows:
            for what, mine, other, goal in rows[name]():
                over = "  over" if mine / other > goal else ""
                print(f"{what:46} {mine:10.4g} {other:10.4g} {mine / other:7.2f} {goal:5.2f}{over}")


if __name__ == "__main__":
    main()
