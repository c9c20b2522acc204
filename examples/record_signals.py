"""Records two groups of signals and three CAN frames into a new file.

    python3 record_signals.py FILE [LIBRARY]

LIBRARY is the path of libtolvex.so, if the system does not find it by itself.
"""
import ctypes
import ctypes.util
import struct
import sys
from ctypes import c_double, c_uint64

START = 1_700_000_000_000_000  # microseconds: 2023-11-14 22:13:20 UTC


class Handle(ctypes.c_void_p):
    """What the library hands out: unlike a plain c_void_p it stays a pointer in Python."""


def load(path):
    lib = ctypes.CDLL(path)
    for name in ("createRecorder", "allocChannel", "allocFormula", "allocRecord",
                 "MdfCanMessageInit"):
        getattr(lib, name).restype = Handle
    return lib


def check(result):
    if result != 0:
        raise RuntimeError("the library refused a call")


def add_channel(lib, recorder, group, name, unit, data_type, byte_count, formula=None):
    """Adds a channel; `data_type` is that of the format. Takes the formula, if any."""
    is_time = name == b"time"  # the group's master
    channel = lib.allocChannel()
    for parameter, value in [(0, bytes([2 * is_time])), (1, bytes([is_time])), (2, name),
                             (3, unit), (6, bytes([data_type])), (7, struct.pack("I", byte_count))]:
        check(lib.setChannelParameter(channel, parameter, len(value), value))
    if formula:
        check(lib.setChannelFormula(channel, formula))
        lib.freeFormula(formula)
    check(lib.addChannelToDG(recorder, group, channel))
    lib.freeChannel(channel)


def insert(lib, recorder, group, record, **values):
    """Records the values, packed as their channels store them."""
    for name, value in values.items():
        check(lib.fillRecordData(record, name.encode(), len(value), value))
    check(lib.insertRecordToDG(recorder, group, record))


def record_engine(lib, recorder):
    """Speed in steps of 0.25 rpm, and gears that have names."""
    group = lib.addDataGroup(recorder, b"engine")
    rpm = lib.allocFormula(1)
    check(lib.setFormulaParam(rpm, 16, struct.pack("dd", 0, 0.25)))
    gears = lib.allocFormula(7)
    check(lib.addFormulaParamN2T(gears, c_double(0), b"neutral"))
    check(lib.addFormulaParamN2T(gears, c_double(1), b"first"))
    check(lib.setFormulaParamDefault(gears, 0, b"unknown"))
    add_channel(lib, recorder, group, b"time", b"s", 4, 8)  # float64
    add_channel(lib, recorder, group, b"speed", b"rpm", 0, 2, rpm)
    add_channel(lib, recorder, group, b"gear", b"", 0, 1, gears)
    record = lib.allocRecord(recorder, group)
    for gear in range(3):
        insert(lib, recorder, group, record, time=struct.pack("d", 0.5 * gear),
               speed=struct.pack("H", 3200 + gear), gear=bytes([gear]))
    lib.freeRecord(record)


def record_tank(lib, recorder):
    """The curve of a sensor: straight lines between three points."""
    group = lib.addDataGroup(recorder, b"tank")
    litres = lib.allocFormula(4)
    for stored, physical in [(-100, 0), (0, 30), (100, 40)]:
        check(lib.addFormulaParamN2N(litres, c_double(stored), c_double(physical)))
    add_channel(lib, recorder, group, b"time", b"s", 4, 8)
    add_channel(lib, recorder, group, b"level", b"l", 2, 2, litres)
    record = lib.allocRecord(recorder, group)
    for level in (-50, 0, 50):
        insert(lib, recorder, group, record, time=struct.pack("d", 1 + 0.01 * level),
               level=struct.pack("h", level))
    lib.freeRecord(record)


def record_frames(lib, recorder):
    payload = bytes(range(1, 13))
    message = lib.MdfCanMessageInit()
    lib.MdfCanMessageSetBusChannel(message, 1)
    lib.MdfCanMessageSetMessageId(message, 0x123)
    lib.MdfCanMessageSetDataBytes(message, payload, 3)
    check(lib.saveCanMessage(recorder, c_uint64(START + 250_000), message))
    check(lib.saveCanError(recorder, c_uint64(START + 500_000), message))
    lib.MdfCanMessageSetMessageId(message, 0x1ABCDEF)  # an extended one, as it is above 0x7FF
    lib.MdfCanMessageSetEdl(message, True)  # CAN FD, with bit rate switch
    lib.MdfCanMessageSetBrs(message, True)
    lib.MdfCanMessageSetDataBytes(message, payload, 12)
    check(lib.saveCanMessage(recorder, c_uint64(START + 750_000), message))
    lib.MdfCanMessageUnInit(message)


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit("usage: record_signals.py FILE [LIBRARY]")
    path = sys.argv[2] if len(sys.argv) == 3 else ctypes.util.find_library("tolvex")
    lib = load(path or "libtolvex.so")
    lib.setDiagnosticHandler(None, None)  # the library's own texts would go to the standard output
    recorder = lib.createRecorder(False)
    check(lib.createBusLogConfiguration(recorder, 0, 64))  # CAN, payloads of up to 64 bytes
    if lib.startRecord(recorder, sys.argv[1].encode(), c_uint64(START)) == 0:
        record_engine(lib, recorder)
        record_tank(lib, recorder)
        record_frames(lib, recorder)
        lib.stopRecord(recorder, c_uint64(START + 1_000_000))
    error = ctypes.create_string_buffer(256)  # what went wrong with the file, even in stopRecord
    if lib.getRecorderError(recorder, error, len(error)) != 0:
        sys.exit(f"record_signals.py: {error.value.decode()}")
    lib.deleteRecorder(recorder)


main()
