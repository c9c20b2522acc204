"""python-can's readers and writers for measurement files."""

from __future__ import annotations

import io
import random

import can
import pytest

import tolvex
from tolvex._frames import Frame
from tolvex._recorder import Recorder
from tolvex.can_io import MF4Reader, MF4Writer

LENGTHS = [0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64]


@pytest.fixture(autouse=True)
def registered(monkeypatch):
    """As the entry points of the installed package do it."""
    monkeypatch.setitem(can.LogReader.message_readers, ".mf4", MF4Reader)
    monkeypatch.setitem(can.Logger.message_writers, ".mf4", MF4Writer)


@pytest.fixture
def path(tmp_path):
    return str(tmp_path / "log.mf4")


def some_messages(rng, count, channels):
    time = 1_600_000_000.0
    messages = []
    for _ in range(count):
        time += rng.choice([1e-6, 1e-6, 0.0371, 2.5])  # those of one time have no order
        extended, fd = rng.random() < 0.5, rng.random() < 0.4
        remote = not fd and rng.random() < 0.1
        error = not fd and not remote and rng.random() < 0.1
        length = rng.choice(LENGTHS if fd else LENGTHS[:9])
        messages.append(
            can.Message(
                timestamp=time,
                arbitration_id=rng.randrange(1 << (29 if extended else 11)),
                is_extended_id=extended,
                is_remote_frame=remote,
                is_error_frame=error,
                channel=rng.choice(channels),
                dlc=length,
                data=None if remote else rng.randbytes(length),
                is_fd=fd,
                is_rx=rng.random() < 0.8,
                bitrate_switch=fd and rng.random() < 0.5,
                error_state_indicator=fd and rng.random() < 0.5,
                check=True,
            )
        )
    return messages


def check_equal(read, messages):
    read = list(read)
    assert len(read) == len(messages)
    for one, other in zip(read, messages):
        assert one.equals(other), (one, other)
        assert isinstance(one.data, bytearray) and type(one.is_fd) is bool


@pytest.mark.parametrize("asynchronous", [False, True])
def test_messages_read_back_equal(path, asynchronous):
    seed = random.randrange(2**32)
    print("seed", seed)
    messages = some_messages(random.Random(seed), 20_000, [None, 0, 1, 7, 254])
    with can.Logger(path, asynchronous=asynchronous) as logger:
        for message in messages:
            logger.on_message_received(message)
    with can.LogReader(path) as reader:
        assert isinstance(reader, MF4Reader)
        check_equal(reader, messages)
        check_equal(reader, messages)  # once more
    frames = tolvex.open(path).frames(bus=8)
    assert len(frames) == sum(message.channel == 7 for message in messages)


def test_names_of_channels(path):
    messages = some_messages(random.Random(1), 50, ["can1", "vcan1", "slcan", 0])
    with MF4Writer(path) as writer:
        for message in messages:
            writer.on_message_received(message)
        buses = {bus: channel for channel, bus in writer.channels.items()}
    assert set(buses) == {0, 1, 2, 3, 4} and buses[0] is None and "can1" in buses.values()
    check_equal(MF4Reader(path, channels=buses), messages)
    assert {message.channel for message in MF4Reader(path)} == {0, 1, 2, 3}


def test_files_of_others(path):
    with Recorder(path, start=1_600_000_000 * 10**9) as r:
        r.frames([Frame(r.start_ns + 5, 0x12, 1, 12, 0, 0, bytes(8))])  # a code above 8, no FD
    (message,) = MF4Reader(path)
    assert (message.dlc, len(message.data), message.is_fd) == (8, 8, False)
    with Recorder(path) as r:
        r.group("g", {"x": "f4"}).append(0.0, 1.0)
    assert list(MF4Reader(path)) == []


def test_logs_are_rotated_by_size(tmp_path, monkeypatch):
    formats = {*can.SizedRotatingLogger._supported_formats, ".mf4"}
    monkeypatch.setattr(can.SizedRotatingLogger, "_supported_formats", formats)
    messages = some_messages(random.Random(2), 3000, [0])
    names = []
    logger = can.SizedRotatingLogger(str(tmp_path / "log.mf4"), 60_000)
    logger.namer = lambda name: names.append(str(tmp_path / f"{len(names)}.mf4")) or names[-1]
    with logger:
        for message in messages:
            logger.on_message_received(message)
    assert len(names) > 2
    parts = [*names, str(tmp_path / "log.mf4")]
    check_equal((message for name in parts for message in can.LogReader(name)), messages)


def test_what_cannot_be_recorded(path, tmp_path):
    for make in (MF4Writer, MF4Reader):
        with pytest.raises(tolvex.MdfTypeError, match="expected a path; found BytesIO"):
            make(io.BytesIO())
        with pytest.raises(OSError):
            make(str(tmp_path / "none" / "log.mf4"))
    with pytest.raises(tolvex.MdfValueError, match="append"):
        MF4Writer(path, append=True)
    writer = MF4Writer(path, max_data_length=8)
    for arguments, message in [
        (dict(is_fd=True, data=bytes(12)), "payload has 12 bytes"),
        (dict(is_fd=True, data=bytes(65)), "a message has 65 bytes"),
        (dict(data=bytes(9)), "a message has 9 bytes"),
        (dict(data=bytes(2), dlc=1), "payload has 2 bytes, its data length code stands for 1"),
        (dict(arbitration_id=0x800, is_extended_id=False), "no identifier"),
        (dict(arbitration_id=-1), "no frame: identifier -0x1"),
        (dict(channel=255), "channel: expected 0 to 254"),
        (dict(channel=-1), "channel: expected 0 to 254"),
        (dict(timestamp=float("nan")), "no time of a message"),
    ]:
        with pytest.raises(tolvex.MdfValueError, match=message):
            writer.on_message_received(can.Message(**{"timestamp": 1e9, **arguments}))
    writer.stop()
    writer.stop()
    assert list(MF4Reader(path)) == []
    with pytest.raises(tolvex.MdfValueError, match="the recording has ended"):
        writer.on_message_received(can.Message(timestamp=1e9))
    with MF4Writer(path):  # of no message
        pass
    assert list(MF4Reader(path)) == [] and not tolvex.open(path).problems
