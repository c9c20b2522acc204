"""Measurement files for python-can: a reader and a writer of messages.

Where python-can finds them by their entry points, `can.LogReader("x.mf4")` and
`can.Logger("x.mf4")` use them.

A file numbers its buses mostly from 1, python-can its channels from 0: bus 1 is channel 0, and
bus 0 a message without a channel. A name ending in a number, as "can0", is that channel, or if
another one has its bus, the next that is free; `MF4Writer.channels` tells which bus each has, and
`MF4Reader(path, channels=...)` gives names back.
"""

from __future__ import annotations

import re
import threading
from typing import TYPE_CHECKING, Any, Dict, Iterator, Mapping, Optional

import numpy as np

from . import _optional
from ._errors import MdfValueError
from ._frames import BRS, DATA, ERROR, ESI, EXTENDED, FD, REMOTE, TRANSMITTED, Frames
from ._library import path_text
from ._measurement import Measurement
from ._recorder import Recorder
from ._saved_frames import DLCS, LENGTHS

can: Any = _optional.need("can")
_generic: Any = _optional.need("can.io.generic")

if TYPE_CHECKING:

    class _Reader:
        pass

    class _Writer:
        pass

else:
    _Reader = _generic.MessageReader
    # What rotating loggers take.
    _Writer = getattr(_generic, "FileIOMessageWriter", _generic.MessageWriter)

_ROWS = 8192  # frames that are made into messages at once
_EMPTY, _RECORD = 4096, 15  # bytes of a file without frames, and of a frame without its payload
_CODES = DLCS.tolist()  # by length
_EARLIER = 10**9  # ns that messages may be before the first one, as those of other buses are


class MF4Reader(_Reader):
    """The CAN messages of a measurement file, in order of time. Closed by `stop` and `with`.

    Timestamps are seconds since 1970. `channels` are other channels for the numbers of buses.
    Damaged files give what is there, with an MdfWarning.
    """

    file = None

    def __init__(
        self, file: Any, *args: Any, channels: Optional[Mapping[int, Any]] = None, **kwargs: Any
    ) -> None:
        self._measurement = Measurement(path_text(file))
        self._channels = dict(channels or {})

    def __iter__(self) -> Iterator[Any]:
        for frames in self._measurement.iter_frames(rows=_ROWS):
            yield from self._messages(frames)

    def _messages(self, frames: Frames) -> Iterator[Any]:
        """All of them side by side, as making the objects is most of the work."""
        flags, kinds = frames.flags, frames.kind
        isfd = flags & FD != 0
        lengths = LENGTHS[frames.dlc & 0xF]
        lengths[~isfd & (lengths > 8)] = 8
        begins = frames.offsets[:-1] - frames.offsets[0]
        ends = begins + np.minimum(lengths, np.diff(frames.offsets))
        whole = bytearray(frames.data[frames.offsets[0] : frames.offsets[-1]])
        buses = frames.bus.tolist()
        channels = {bus: self._channels.get(bus, bus - 1 if bus else None) for bus in set(buses)}
        return map(
            can.Message,
            (frames.time_ns / 1e9).tolist(),
            frames.id.tolist(),
            (flags & EXTENDED != 0).tolist(),
            (kinds == REMOTE).tolist(),
            (kinds >= ERROR).tolist(),
            [channels[bus] for bus in buses],
            lengths.tolist(),
            [whole[begin:end] for begin, end in zip(begins.tolist(), ends.tolist())],
            isfd.tolist(),
            (flags & TRANSMITTED == 0).tolist(),
            (flags & BRS != 0).tolist(),
            (flags & ESI != 0).tolist(),
        )

    def stop(self) -> None:
        """Closes the file."""
        self._measurement.close()

    def __enter__(self) -> MF4Reader:
        return self

    def __exit__(self, *_: Any) -> None:
        self.stop()


class MF4Writer(_Writer):
    """Records CAN messages into a measurement file, as they come. Only `stop` completes it.

    The recording starts one to two seconds before its first message, on a whole second; messages
    from before that are refused. `max_data_length`: of payloads, 8 to 64; those of
    CAN FD that are longer are an error. With `asynchronous`, a thread of the library's writes, and
    nothing waits for the disk. Messages may come from any number of threads.
    """

    file = None

    def __init__(
        self,
        file: Any,
        *args: Any,
        append: bool = False,
        max_data_length: int = 64,
        asynchronous: bool = False,
        **kwargs: Any,
    ) -> None:
        self._path = path_text(file)
        self._options: Any = {"max_data_length": max_data_length, "asynchronous": asynchronous}
        self._recorder: Optional[Recorder] = None
        self._isover = False
        self._count = 0
        self._begin = threading.Lock()
        #: Which bus each channel has in the file.
        self.channels: Dict[Any, int] = {None: 0}
        if append:
            raise MdfValueError("append: a measurement file that is complete cannot be continued")
        with open(self._path, "wb"):
            pass  # says at once what is wrong with the path

    def on_message_received(self, msg: Any) -> None:
        """Records a message."""
        try:
            time_ns = round(msg.timestamp * 1e9)
        except (TypeError, ValueError, OverflowError) as error:
            raise MdfValueError(f"no time of a message: {msg.timestamp!r}") from error
        recorder = self._recorder or self._started(time_ns)
        isfd, length = msg.is_fd, msg.dlc
        kind = DATA
        flags = 0 if msg.is_rx else TRANSMITTED
        if msg.is_extended_id:
            flags |= EXTENDED
        if isfd:
            flags |= FD | (BRS if msg.bitrate_switch else 0)
            if msg.error_state_indicator:
                flags |= ESI
        if msg.is_error_frame:
            kind = ERROR + isfd
        elif msg.is_remote_frame:
            kind = REMOTE
        payload = bytes(msg.data)
        dlc = _CODES[length] if isfd and 0 <= length <= 64 else length
        if len(payload) > (64 if isfd else 8):
            raise MdfValueError(f"a message has {len(payload)} bytes: {msg}")
        id = msg.arbitration_id
        if id > 0x7FF and not flags & EXTENDED:
            raise MdfValueError(f"no identifier of 11 bits: {id:#x}")
        channel = msg.channel
        bus = self.channels[channel] if channel in self.channels else self._bus(channel)
        recorder._save_frame(time_ns, id, bus, flags, kind, dlc, payload)
        self._count += 1

    def _started(self, time_ns: int) -> Recorder:
        with self._begin:
            if self._isover:
                raise MdfValueError(f"{self._path}: the recording has ended")
            if self._recorder is None:
                start = max((time_ns - _EARLIER) // 10**9 * 10**9, 1000)
                self._recorder = Recorder(self._path, start=start, **self._options)
            return self._recorder

    def _bus(self, channel: Any) -> int:
        """The bus of a channel that is new: one more than its number, if that is free."""
        with self._begin:
            number = re.search(r"(\d{1,3})$", str(channel))
            bus = 1 if number is None else int(number.group()) + 1
            taken = set(self.channels.values())
            while bus in taken:
                bus += 1
            if isinstance(channel, int) and channel < 0 or bus > 255:
                raise MdfValueError(f"channel: expected 0 to 254, or a name, found {channel!r}")
            self.channels[channel] = bus
            return bus

    def file_size(self) -> int:
        """About how many bytes the file has."""
        return _EMPTY + self._count * (_RECORD + int(self._options["max_data_length"]))

    def stop(self) -> None:
        """Completes the file; what was lost is an MdfFileError."""
        with self._begin:
            if self._isover:
                return
            self._isover = True
            recorder, self._recorder = self._recorder, None
        (recorder or Recorder(self._path, **self._options)).close()

    def __enter__(self) -> MF4Writer:
        return self

    def __exit__(self, *_: Any) -> None:
        self.stop()
