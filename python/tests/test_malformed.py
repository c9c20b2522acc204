"""Damaged files: errors and warnings, but nothing that ends the interpreter."""

from __future__ import annotations

import os
import random
import subprocess
import sys
from pathlib import Path
from typing import List

import pytest
from builder import DATA

# Opens what its arguments name and reads all of it; memory is limited so that a file's claims about
# its size cannot take all.
READ_ALL = """
import resource, sys, warnings
from pathlib import Path
import numpy, tolvex
resource.setrlimit(resource.RLIMIT_AS, (6 << 30, 6 << 30))
warnings.simplefilter("ignore", tolvex.MdfWarning)

def tried(work):
    try:
        return work()
    except tolvex.MdfError as error:
        assert str(error)

opened = 0
for path in sorted(Path(sys.argv[1]).iterdir()):
    m = tried(lambda: tolvex.open(path))
    if hasattr(tolvex, "check"): tried(lambda: tolvex.check(path))
    if m is None:
        continue
    opened += 1
    repr(m), m._repr_html_(), m.problems
    tried(lambda: m.start), tried(lambda: m.duration)
    for group in m.groups[:20]:
        tried(lambda: repr(group.table()))
        tried(lambda: repr(group._repr_html_()))
        for signal in group.channels[:20]:
            tried(lambda: repr(signal)), tried(lambda: signal.raw), tried(lambda: signal.time)
            tried(lambda: signal[1:2].values), tried(lambda: signal.resample(1.0))
    tried(lambda: next(m.iter_tables(rows=50, raster=0.5), None))
    tried(lambda: next(m.iter_tables(rows=50), None))
    tried(lambda: list(m.frames())), tried(lambda: next(m.iter_frames(), None))
print(opened)
"""


def read_all(folder: Path) -> int:
    """How many of the folder's files could be opened."""
    run = subprocess.run(
        [sys.executable, "-c", READ_ALL, str(folder)], capture_output=True, text=True, timeout=900
    )
    assert run.returncode == 0, f"{run.returncode}: {run.stderr[-3000:]}"
    return int(run.stdout)


def test_files_changed_at_random_never_end_the_interpreter(tmp_path: Path) -> None:
    seed = random.randrange(2**32)
    print("seed", seed)
    chance = random.Random(seed)
    sources: List[bytes] = [path.read_bytes() for path in sorted(DATA.glob("*.[mM][fF]4"))]
    for number in range(150):
        data = bytearray(chance.choice(sources))
        for _ in range(chance.choice([1, 1, 2, 10, 100])):
            size = chance.choice([1, 2, 4, 8])
            at = chance.choice([chance.randrange(len(data)), chance.randrange(4000)])
            value = chance.choice([0, 2 ** (8 * size) - 1, chance.randrange(2 ** (8 * size)), 1])
            data[at : at + size] = value.to_bytes(size, "little")
        end = chance.choice([len(data), len(data), chance.randrange(len(data))])
        (tmp_path / f"{number}.mf4").write_bytes(data[:end])
    assert read_all(tmp_path) > 20


@pytest.mark.skipif("TOLVEX_TESTS" not in os.environ, reason="needs the library's test program")
def test_all_files_of_the_library_s_tests_are_read(tmp_path: Path) -> None:
    tests = "-KilledRecording.*:RecordingProcess*:PowerLoss*:Flushed*:*Recovery*:Recorder*"
    subprocess.run(
        [os.environ["TOLVEX_TESTS"], f"--gtest_filter={tests}"],
        env={**os.environ, "TOLVEX_KEEP_FILES": str(tmp_path)},
        stdout=subprocess.DEVNULL,
        timeout=900,
    )
    assert len(list(tmp_path.iterdir())) > 500
    assert read_all(tmp_path) > 200
