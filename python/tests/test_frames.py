"""CAN frames: of a real log against its bytes, chosen, in parts, as objects, as Arrow streams."""

from __future__ import annotations

import ctypes
import gc
from pathlib import Path
from typing import Any, Dict, List

import numpy as np
import pytest
from builder import DATA, HandRead

import tolvex

LOG = DATA / "raw-00000005.MF4"


@pytest.fixture(scope="module")
def by_hand() -> Dict[str, List[Any]]:
    groups = dict(HandRead(LOG).groups())
    return {name.split(".")[-1]: values for name, values in groups["CAN_DataFrame"].items()}


def test_every_frame_of_a_real_log_is_what_its_bytes_say(by_hand: Dict[str, List[Any]]) -> None:
    m = tolvex.open(LOG)
    f = m.frames()
    assert len(f) == len(by_hand["ID"]) > 5000
    assert f.id.tolist() == by_hand["ID"] and f.bus.tolist() == by_hand["BusChannel"]
    assert f.dlc.tolist() == by_hand["DLC"] and f.length.tolist() == by_hand["DataLength"]
    assert ((f.flags & 0x100) != 0).tolist() == [bool(ide) for ide in by_hand["IDE"]]
    assert ((f.flags & 1) != 0).tolist() == [bool(direction) for direction in by_hand["Dir"]]
    times = [m.start_ns + round(seconds * 1e9) for seconds in by_hand["Timestamp"]]
    assert f.time_ns.tolist() == times
    payloads = [b[:n] for b, n in zip(by_hand["DataBytes"], by_hand["DataLength"])]
    objects = list(f)
    assert [frame.data for frame in objects] == payloads
    assert [frame.time_ns for frame in objects] == times
    assert [row.tobytes()[: len(p)] for row, p in zip(f.payload, payloads)] == payloads
    assert f[7] == objects[7] == f[7 - len(f)] and not objects[7].is_fd and objects[7].kind == 0


def test_frames_are_chosen_by_number_bus_and_time(by_hand: Dict[str, List[Any]]) -> None:
    m = tolvex.open(LOG)
    f = m.frames()
    ids = [by_hand["ID"][0], by_hand["ID"][1]]
    assert len(m.frames(ids=ids)) == sum(i in ids for i in by_hand["ID"])
    assert len(m.frames(ids[0])) == by_hand["ID"].count(ids[0])
    assert len(m.frames(bus=by_hand["BusChannel"][0])) == by_hand["BusChannel"].count(f.bus[0])
    assert len(m.frames(bus=9)) == 0 == len(m.frames(ids=[])) and len(m.frames(bus=9).payload) == 0
    times = np.array(by_hand["Timestamp"])
    want = int(((times >= 2350) & (times < 2360)).sum())
    assert len(m.frames(start=2350, stop=2360)) == want
    date = np.datetime64(m.start_ns + 2_350_000_000_000, "ns")
    assert len(m.frames(start=date)) == int((times >= 2350).sum())
    mask = f.id == ids[0]
    assert [frame.data for frame in f[mask]] == [frame.data for frame in f if frame.id == ids[0]]
    assert list(f[10:20]) == list(f)[10:20] and list(f[[5, 3]]) == [f[5], f[3]]
    for size in (1, 100, 10**6):
        parts = list(m.iter_frames(rows=size, start=2380))
        assert [frame for part in parts for frame in part] == list(m.frames(start=2380))
        assert max(map(len, parts)) <= size
    for wrong in (lambda: m.frames(ids=[-1]), lambda: m.frames("x"), lambda: m.frames(bus=70000)):
        with pytest.raises(tolvex.MdfError):
            wrong()
    df = f.to_pandas(time="datetime")
    assert (
        df["data"].tolist()[:5] == [frame.data for frame in f[:5]]
        and df.index.is_monotonic_increasing
    )


# The Arrow C data interface, as far as a test needs it -------------------------------------------


class Schema(ctypes.Structure):
    pass


class ArrowArray(ctypes.Structure):
    pass


Schema._fields_ = [
    ("format", ctypes.c_char_p),
    ("name", ctypes.c_char_p),
    ("metadata", ctypes.c_void_p),
    ("flags", ctypes.c_int64),
    ("n_children", ctypes.c_int64),
    ("children", ctypes.POINTER(ctypes.POINTER(Schema))),
    ("dictionary", ctypes.POINTER(Schema)),
    ("release", ctypes.CFUNCTYPE(None, ctypes.POINTER(Schema))),
    ("private_data", ctypes.c_void_p),
]
ArrowArray._fields_ = [
    ("length", ctypes.c_int64),
    ("null_count", ctypes.c_int64),
    ("offset", ctypes.c_int64),
    ("n_buffers", ctypes.c_int64),
    ("n_children", ctypes.c_int64),
    ("buffers", ctypes.POINTER(ctypes.c_void_p)),
    ("children", ctypes.POINTER(ctypes.POINTER(ArrowArray))),
    ("dictionary", ctypes.POINTER(ArrowArray)),
    ("release", ctypes.CFUNCTYPE(None, ctypes.POINTER(ArrowArray))),
    ("private_data", ctypes.c_void_p),
]


class Stream(ctypes.Structure):
    _fields_ = [
        ("get_schema", ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.POINTER(Schema))),
        ("get_next", ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.POINTER(ArrowArray))),
        ("get_last_error", ctypes.c_void_p),
        ("release", ctypes.CFUNCTYPE(None, ctypes.c_void_p)),
        ("private_data", ctypes.c_void_p),
    ]


def scanned(source: Any) -> Dict[str, List[Any]]:
    """Numbers of a stream by column, as a package that takes capsules reads it."""
    get = ctypes.pythonapi.PyCapsule_GetPointer
    get.restype, get.argtypes = ctypes.c_void_p, (ctypes.py_object, ctypes.c_char_p)
    capsule = source.__arrow_c_stream__()
    address = get(capsule, b"arrow_array_stream")
    stream = Stream.from_address(address)
    schema = Schema()
    assert stream.get_schema(address, schema) == 0 and schema.format == b"+s"
    fields = [schema.children[i].contents for i in range(schema.n_children)]
    dtypes = {b"l": "i8", b"C": "u1", b"S": "u2", b"I": "u4", b"g": "f8"}
    found: Dict[str, List[Any]] = {field.name.decode(): [] for field in fields}
    while True:
        array = ArrowArray()
        assert stream.get_next(address, array) == 0
        if not array.release:
            break
        for i, field in enumerate(fields):
            child = array.children[i].contents
            dtype = "i8" if field.format.startswith(b"tsn:") else dtypes.get(field.format)
            if dtype is not None:
                memory = ctypes.string_at(child.buffers[1], child.length * int(dtype[1]))
                found[field.name.decode()] += np.frombuffer(memory, dtype).tolist()
        array.release(array)
    schema.release(schema)
    del capsule
    gc.collect()
    return found


def test_groups_and_frames_are_streams_that_outlive_their_files() -> None:
    m = tolvex.open(DATA / "decoded-00000005.mf4")
    want = m.groups[-1].table()
    group, stream = m.groups[-1], tolvex.open(LOG).frame_stream(start=2350)
    found = scanned(group)
    assert found["time"] == m.groups[-1].time_ns.tolist()
    assert found["AccelerationX"] == want["AccelerationX"].tolist()
    assert scanned(group.stream(time="seconds"))["time"] == want.time.tolist()
    assert list(scanned(group.stream(["AccelerationZ"]))) == ["time", "AccelerationZ"]
    frames = tolvex.open(LOG).frames(start=2350)
    for _ in range(2):
        found = scanned(stream)
        assert found["time"] == frames.time_ns.tolist() and found["id"] == frames.id.tolist()
    m.close()
    with pytest.raises(tolvex.MdfValueError, match="closed"):
        group.__arrow_c_stream__()
    unused = [tolvex.open(LOG).frame_stream().__arrow_c_stream__() for _ in range(50)]
    del unused
    gc.collect()


def test_fd_frames_of_different_lengths(tmp_path: Path) -> None:
    lengths = [0, 1, 8, 12, 64, 20, 64, 3]
    data = [bytes([i]) * n for i, n in enumerate(lengths)]
    with tolvex.Recorder(tmp_path / "fd.mf4", start="2026-01-01") as r:
        for i, payload in enumerate(data * 3000):
            r.frame(i % 2048, payload, time=0.001 * i, fd=len(payload) > 8, bus=1 + i % 3)
    f = tolvex.open(tmp_path / "fd.mf4").frames()
    assert [frame.data for frame in f] == data * 3000
    assert f.payload.shape == (len(f), 64) and f.payload[4].tobytes() == data[4]
    assert f.payload[2].tobytes() == data[2] + bytes(56)
    assert f.id.tolist() == [i % 2048 for i in range(len(f))]
