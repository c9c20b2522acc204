"""Measurement files (MDF 4) as arrays and tables.

    import tolvex

    m = tolvex.open("drive.mf4")
    speed = m["EngineSpeed"]
    print(speed.time, speed.values, speed.unit)
    m.table(["EngineSpeed", "VehicleSpeed"], raster=0.01).to_pandas()

`open` reads, `write` and `Recorder` record, `check` and `recover` are for damaged files, `fleet`
and `dask_frame` for many files.
"""

from . import _conversions as conversions
from ._check import CheckReport, Finding, RecoveredGroup, RecoveryReport, check, recover
from ._dask import dask_errors, dask_frame
from ._errors import (
    MdfCancelled,
    MdfError,
    MdfFileError,
    MdfMemoryError,
    MdfNameError,
    MdfTypeError,
    MdfValueError,
    MdfWarning,
)
from ._fleet import Fleet, fleet
from ._frames import Frame, Frames
from ._library import lib as _lib
from ._measurement import Group, Measurement
from ._measurement import open as open
from ._recorder import MdfQueueFull, Recorder, RecorderGroup
from ._signal import Signal
from ._table import Table
from ._write import write

__version__: str = _lib.tolvex_version().decode()

__all__ = [
    "CheckReport",
    "Finding",
    "Fleet",
    "Frame",
    "Frames",
    "Group",
    "MdfCancelled",
    "MdfError",
    "MdfFileError",
    "MdfMemoryError",
    "MdfNameError",
    "MdfQueueFull",
    "MdfTypeError",
    "MdfValueError",
    "MdfWarning",
    "Measurement",
    "RecoveredGroup",
    "Recorder",
    "RecorderGroup",
    "RecoveryReport",
    "Signal",
    "Table",
    "check",
    "conversions",
    "dask_errors",
    "dask_frame",
    "fleet",
    "recover",
    "write",
]
