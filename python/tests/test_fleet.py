"""Many files: what their headers tell, and lazy frames of their signals."""

from __future__ import annotations

import pickle
import re
import struct
import subprocess
import sys
import warnings
from pathlib import Path
from typing import Any, Dict, List, Tuple

import numpy as np
import pytest
from builder import DATA, START, HandRead

import tolvex
from tolvex import _dask
from tolvex._dask import dask_errors, dask_frame
from tolvex._fleet import fleet
from tolvex._recorder import Recorder

dask = pytest.importorskip("dask")
pandas = pytest.importorskip("pandas")

REAL = sorted(str(path) for path in DATA.glob("*.[mM][fF]4"))
EXAMPLE = Path(__file__).resolve().parents[2] / "examples" / "fleet_histogram.py"


# Fleets ---------------------------------------------------------------------------------------


def by_hand(path: str) -> Dict[str, Any]:
    """What a file's blocks state."""
    file = HandRead(Path(path))

    def channels(first: int) -> int:  # structures' members, too
        return sum(1 + channels(file.link(one, 1)) for one in file.chain(first))

    groups = []
    for dg in file.chain(file.link(64, 0)):
        for cg in file.chain(file.link(dg, 1)):
            rows, flags = struct.unpack_from("<QH", file.data, file.fields(cg) + 8)
            if not flags & 1:  # else its records are values of another group
                groups.append((rows, channels(file.link(cg, 1))))
    return {
        "start": np.datetime64(file.u64(file.fields(64)), "ns"),
        "size": len(file.data),
        "version": struct.unpack_from("<H", file.data, 28)[0],
        "program": file.data[16:24].rstrip(b" \0").decode(),
        "groups": len(groups),
        "channels": sum(count for _, count in groups),
        "records": sum(rows for rows, _ in groups),
        "finalized": file.data[:8] == b"MDF     ",
        "error": "",
    }


def test_tells_what_headers_state() -> None:
    found = fleet(REAL)
    for row, path in enumerate(REAL):
        want = by_hand(path)
        got = found[row]
        if not want["finalized"]:
            del want["groups"], want["channels"], want["records"]
        assert {name: got[name] for name in want} == want, path
    finished = found[found["finalized"]]
    for path, stop, frames in zip(finished.paths, finished["stop"], finished["frames"]):
        with tolvex.open(path) as m:
            latest = max(group.time_ns.max() for group in m.groups if group.rows)
            assert stop == np.datetime64(int(latest), "ns")
            assert frames == sum(g.rows for g in m.groups if g.name == "CAN_DataFrame")


def test_finds_files_and_keeps_those_that_cannot_be_read(tmp_path: Path) -> None:
    (tmp_path / "b" / "deep").mkdir(parents=True)
    whole = Path(REAL[1]).read_bytes()
    broken = bytearray(whole)
    struct.pack_into("<Q", broken, struct.unpack_from("<Q", whole, 88)[0] + 24, len(whole) * 2)
    contents = {
        "b/deep/x.MF4": whole,
        "a.mf4": bytes(broken),
        "b/text.Mf4": b"no measurement",
        "b/other.dat": whole,
    }
    for name, content in contents.items():
        (tmp_path / name).write_bytes(content)
    names = [str(tmp_path / name) for name in ("a.mf4", "b/deep/x.MF4", "b/text.Mf4")]
    found = fleet(tmp_path, threads=3)
    assert found.paths == names and found.rows == 3
    assert fleet(str(tmp_path / "**" / "*.[mM]*4")) == found
    assert fleet(str(tmp_path / "b" / "*")).paths == [str(tmp_path / "b/other.dat"), names[2]]
    listed = fleet([names[2], tmp_path / "none.mf4", tmp_path, names[1]])
    assert [bool(text) for text in listed["error"]] == [True, True, True, False]
    assert "No such file" in listed["error"][1] and np.isnat(listed["start"][1])

    assert found.errors.paths == [names[0], names[2]]
    assert found["problems"].tolist()[1] == 0 < found["problems"].tolist()[0]
    assert "no measurement" in repr(found) or "expected" in repr(found)
    assert "1 not read, 1 damaged" in repr(found)
    assert "text.Mf4</td>" in found._repr_html_()
    assert not fleet([]) and not fleet(str(tmp_path / "*.none")) and fleet([]).total.files == 0
    assert pickle.loads(pickle.dumps(found)) == found


def test_selects_rows(tmp_path: Path) -> None:
    for number in range(30):
        start = np.datetime64("2024-05-06T07:00", "ns") + np.timedelta64(number, "h")
        with Recorder(tmp_path / f"{number:02}.mf4", start=start) as recorder:
            group = recorder.group("g", {"speed": "f4"})
            group.extend({"time": np.array([0.0, 600.0]), "speed": np.zeros(2)})
    found = fleet(tmp_path)
    assert found.total.hours == pytest.approx(30 / 6)
    assert found.total.bytes == sum(path.stat().st_size for path in tmp_path.iterdir())
    numbers = [int(Path(path).stem) for path in found[found["start"] < found["start"][3]].paths]
    assert numbers == [0, 1, 2]
    assert found[::-1][0]["path"] == found.paths[-1] and found[[]].rows == 0
    for limits, want in [
        (("2024-05-06T08:10", "2024-05-06T10:00"), [1, 2]),
        (("2024-05-06T10:10:00.1+02:00", "2024-05-06T09:00:00.1Z"), [2]),
        ((None, "2024-05-06T08"), [0]),
        (("2024-05-07T12:00", None), [29]),
    ]:
        assert [int(Path(path).stem) for path in found.between(*limits).paths] == want, limits
    with pytest.raises(tolvex.MdfTypeError, match="expected a date"):
        found.between(10.0)
    with pytest.raises(tolvex.MdfNameError, match="no column 'stopp'; it has path"):
        found["stopp"]
    frame = found.to_pandas()
    assert str(frame["start"].dtype) == "datetime64[ns, UTC]" and list(frame) == list(found)
    assert "… and 18 more" in repr(found)

    told: List[Any] = []
    fleet(tmp_path, progress=lambda done, total: told.append((done, total)))
    assert told[-1] == (30, 30) and told == sorted(told)

    def stop(done: int, total: int) -> None:
        raise KeyboardInterrupt

    with pytest.raises(KeyboardInterrupt):
        fleet(tmp_path, progress=stop)


# Lazy frames ----------------------------------------------------------------------------------


def test_reads_each_file_once_and_lists_what_is_missing(tmp_path: Path, monkeypatch: Any) -> None:
    for name, fields in {
        "0": {"gear": "u1"},
        "1": {"speed": "f4", "gear": "u1"},
        "2": {"speed": "u2", "gear": "u1"},
    }.items():
        with Recorder(tmp_path / f"{name}.mf4", start=START // 1000 * 1000) as recorder:
            group = recorder.group("engine", fields, conversions={"gear": {0: "P", 1: "D"}})
            rows = np.arange(10)
            values = {"speed": rows * 2, "gear": rows % 2}
            group.extend({"time": rows / 4, **{field: values[field] for field in fields}})
    (tmp_path / "3.mf4").write_bytes(b"no measurement")
    frame = dask_frame(tmp_path, ["speed", "gear"], path_column="path")
    opened: List[str] = []
    quiet = _dask._Quiet.__init__
    monkeypatch.setattr(
        _dask._Quiet, "__init__", lambda self, path: (opened.append(path), quiet(self, path))[1]
    )
    with dask.config.set(scheduler="threads"):
        got, errors = dask.compute(frame, frame.errors)
        assert sorted(Path(path).stem for path in opened) == ["0", "1", "2", "3"]
        parts = dask.compute(*frame.to_delayed())
    assert dask_errors(frame) is frame.errors
    assert [(Path(path).stem, kind) for path, kind, _ in errors.itertuples(index=False)] == [
        ("0", "missing"),
        ("3", "unreadable"),
    ]
    assert "no channel 'speed'" in errors["text"].iloc[0]
    for part in parts:  # whatever is in them
        assert part.dtypes["speed"] == np.float64 and str(part.index.dtype) == "datetime64[ns, UTC]"
        assert [str(kind) for kind in part.dtypes[1:]] == ["category", "category"]
    assert [len(part) for part in parts] == [10, 10, 10, 0]
    assert list(got["gear"]) == 3 * 5 * ["P", "D"]
    speeds = np.concatenate([np.full(10, np.nan), np.arange(10) * 2, np.arange(10) * 2])
    np.testing.assert_array_equal(got["speed"], speeds)
    assert got.index[1].value == START // 1000 * 1000 + 250_000_000
    assert list(got["path"].unique()) == [str(tmp_path / f"{i}.mf4") for i in range(3)]

    nullable = dask_frame(sorted(tmp_path.glob("[0-2].mf4"), reverse=True), missing="nullable")
    got = nullable.compute(scheduler="sync")
    assert str(got.dtypes["speed"]) == "UInt16" and got["speed"].isna().sum() == 10
    with pytest.raises(tolvex.MdfNameError, match="of the first 3 files has no channel 'spede'"):
        dask_frame(tmp_path, ["spede"])
    with pytest.raises(tolvex.MdfFileError, match="no file can be read"):
        dask_frame([tmp_path / "3.mf4"])


def test_values_that_do_not_fit_are_listed(tmp_path: Path) -> None:
    for name, kind, values in [
        ("0", "u8", [1, 2]),
        ("1", "i8", [-1, 7]),
        ("2", "S2", [b"a", b"b"]),
    ]:
        with Recorder(tmp_path / f"{name}.mf4", start=START) as recorder:
            group = recorder.group("g", {"value": kind})
            group.extend({"time": np.arange(2.0), "value": np.array(values)})
    frame = dask_frame(tmp_path, missing="nullable", time="seconds")
    got, errors = dask.compute(frame, frame.errors, scheduler="sync")
    assert got["value"].tolist() == [1, 2, pandas.NA, 7, pandas.NA, pandas.NA]
    assert got["value"].dtype == "UInt64" and got.index.tolist() == [0, 1, 0, 1, 0, 1]
    assert errors["kind"].tolist() == ["type", "type"]
    assert errors["text"].tolist()[0] == "value: 1 values do not fit UInt64"


@pytest.fixture()
def large(tmp_path: Path) -> Path:
    """Two groups of 20,000 and 1,234 rows."""
    path, random = tmp_path / "large.mf4", np.random.default_rng(12)
    with Recorder(path, start=START) as recorder:
        for name, rows, step in [("fast", 20_000, 0.01), ("slow", 1_234, 0.15)]:
            group = recorder.group(name, {name: "f8"})
            times = np.sort(random.uniform(0, rows * step, rows)).round(3)  # some are the same
            group.extend({"time": times, name: random.normal(size=rows)})
    return path


@pytest.mark.parametrize(
    "options",
    [
        {"channels": ["fast"]},
        {"channels": ["fast"], "start": 40.0, "stop": 90.5},
        {"channels": ["fast", "slow"]},
        {"channels": ["fast", "slow"], "start": 40.0, "stop": 90.5},
        {"channels": ["fast", "slow"], "raster": 0.02},
        {"channels": ["slow", "fast"], "raster": 0.033, "interpolate": True, "stop": 150.0},
        {"channels": [("fast", 2), ("time", "slow"), ("time", "fast")], "start": 10.0},
    ],
)
def test_parts_of_a_file_are_its_table(large: Path, options: Any, monkeypatch: Any) -> None:
    read: List[int] = []
    whole = _dask._Quiet._read

    def counted(self: Any, group: int, channels: Any, first: int, count: int, **more: Any) -> Any:
        read.append(count)
        return whole(self, group, channels, first, count, **more)

    frame = dask_frame([large], rows=1500, **options)
    assert frame.npartitions == 14
    monkeypatch.setattr(_dask._Quiet, "_read", counted)
    got, errors = dask.compute(frame, frame.errors, scheduler="sync")
    with tolvex.open(large) as m:
        want = m.table(**options).to_pandas("datetime")
    pandas.testing.assert_frame_equal(got, want)
    assert len(errors) == 0
    assert max(read) < 3200 and sum(read) < 22_000  # no part reads what is before it


def test_gives_what_is_left_of_damaged_files(tmp_path: Path) -> None:
    names, channels = ["whole.mf4", "broken.mf4"], ["Speed", "AccelerationX"]
    whole = HandRead(DATA / "decoded-00000005.mf4")
    broken = bytearray(whole.data)
    last = whole.chain(whole.link(64, 0))[-1]  # of the accelerations, whose data are elsewhere
    struct.pack_into("<Q", broken, last + 24 + 16, len(broken) * 2)
    for name, content in zip(names, (whole.data, broken)):
        (tmp_path / name).write_bytes(content)
    frame = dask_frame([tmp_path / name for name in names], channels, rows=1000)
    got, errors = dask.compute(frame, frame.errors, scheduler="sync")
    assert set(errors["path"]) == {str(tmp_path / "broken.mf4")} and "damaged" in set(
        errors["kind"]
    )
    want = []
    for name in names:
        with warnings.catch_warnings():
            warnings.simplefilter("ignore", tolvex.MdfWarning)
            with tolvex.open(tmp_path / name) as m:
                want.append(m.table(channels).to_pandas("datetime").astype(float))
    pandas.testing.assert_frame_equal(got, pandas.concat(want))


def test_parts_list_rows_out_of_order(tmp_path: Path) -> None:
    path = tmp_path / "mixed.mf4"
    times = np.arange(4000.0)
    times[1000:1010], times[2500] = times[3000:3010].copy(), np.nan
    with Recorder(path, start=START) as recorder:
        for name in ("a", "b"):
            group = recorder.group(name, {name: "i4"})
            group.extend({"time": times, name: np.arange(4000)})
    with Recorder(tmp_path / "other.mf4", start=START) as recorder:
        recorder.group("c", {"c": "i4"})
    frame = dask_frame([path, tmp_path / "other.mf4"], ["a", "b", "c"], rows=500)
    got, errors = dask.compute(frame, frame.errors, scheduler="sync")
    assert frame.npartitions == 8 + 1
    assert errors["kind"].tolist().count("missing") == 3 and got["c"].isna().all()
    lost = {"a": 0, "b": 0}
    for text in errors["text"][errors["kind"] == "time"]:
        name, count = re.match(r"(\w): (\d+) rows", text).groups()  # type: ignore[union-attr]
        lost[name] += int(count)
    for name in ("a", "b"):
        assert got[name].count() + lost[name] == 4000 and lost[name] > 0
        assert got[name].dropna().is_unique


def test_example_computes_a_histogram_on_a_cluster(tmp_path: Path) -> None:
    pytest.importorskip("distributed")
    run = subprocess.run(
        [sys.executable, EXAMPLE, "--files", "20", tmp_path],
        capture_output=True,
        check=False,
        text=True,
    )
    assert run.returncode == 0, run.stderr
    assert "20 files, 0.1 h" in run.stdout and "40000 values of 20 files, 0 errors" in run.stdout
    speeds = []
    for path in sorted(tmp_path.iterdir()):
        with tolvex.open(path) as m:
            speeds.append(m["speed"].values)
    counts, _ = np.histogram(np.concatenate(speeds), np.arange(0, 201, 10))
    assert [int(n) for n in re.findall(r"km/h +(\d+)", run.stdout)] == counts.tolist()
