"""Measurement files made, and read, byte by byte: what the package says is compared with them."""

from __future__ import annotations

import struct
from pathlib import Path
from typing import Any, Dict, List, NamedTuple, Sequence, Tuple

DATA = Path(__file__).resolve().parents[2] / "tests" / "data"
START = 1_700_000_000_123_456_789  # nanoseconds


class Cn(NamedTuple):
    """A channel, as its block states it."""

    name: str
    data_type: int  # 0 unsigned, 2 signed, 4 float, 7 UTF-8, 10 bytes; 1, 3, 5 big endian
    byte: int
    bits: int
    bit: int = 0
    type: int = 0
    unit: str = ""
    conversion: int = 0  # link
    data: int = 0  # link
    invalid_bit: int = -1
    array: Sequence[int] = ()


TIME = Cn("time", 4, 0, 64, type=2)


class Builder:
    """Appends blocks; every call returns the link of its block."""

    def __init__(self, start_ns: int = START) -> None:
        self.bytes = bytearray(b"MDF     4.10    python  ".ljust(28, b"\0"))
        self.bytes += struct.pack("<H", 410) + bytes(34)
        history = struct.pack("<QhhBBH", 0, 0, 0, 0, 0, 0)
        header = struct.pack("<QhhBBBBdd", start_ns, 0, 0, 0, 0, 0, 0, 0, 0)
        self.block("HD", [0] * 6, header)
        self.put(64 + 24 + 8, self.block("FH", [0, self.tx("made", "MD")], history))
        self.groups: List[int] = []

    def put(self, place: int, link: int) -> None:
        self.bytes[place : place + 8] = struct.pack("<Q", link)

    def block(self, kind: str, links: Sequence[int], data: bytes) -> int:
        self.bytes += bytes(-len(self.bytes) % 8)
        at = len(self.bytes)
        size = 24 + 8 * len(links) + len(data)
        self.bytes += struct.pack("<4sIQQ", b"##" + kind.encode(), 0, size, len(links))
        self.bytes += struct.pack(f"<{len(links)}Q", *links) + data
        return at

    def tx(self, text: str, kind: str = "TX") -> int:
        return self.block(kind, [], text.encode() + b"\0") if text else 0

    def linear(self, offset: float, factor: float) -> int:
        return self.cc(1, [], [offset, factor])

    def texts(self, texts: Dict[float, str], default: int = 0) -> int:
        return self.cc(7, [*map(self.tx, texts.values()), default], list(texts))

    def cc(self, kind: int, refs: Sequence[int], values: Sequence[float]) -> int:
        record = struct.pack("<BBHHHdd", kind, 0, 0, len(refs), len(values), 0, 0)
        record += struct.pack(f"<{len(values)}d", *values)
        return self.block("CC", [0, 0, 0, 0, *refs], record)

    def sd(self, texts: Sequence[bytes]) -> Tuple[int, List[int]]:
        """Values of variable length, and the place of each."""
        data, places = b"", []
        for text in texts:
            places.append(len(data))
            data += struct.pack("<I", len(text)) + text
        return self.block("SD", [], data), places

    def group(
        self, name: str, channels: Sequence[Cn], records: Sequence[bytes], **more: Any
    ) -> None:
        """A data group; `invalid` of the bytes of a record are those of invalidation bits."""
        invalid = more.get("invalid", 0)
        size = max(c.byte + (c.bit + c.bits + 7) // 8 for c in channels)
        size = len(records[0]) if records else size
        following = 0
        for channel in reversed(channels):
            array = 0
            if channel.array:
                sizes = struct.pack(f"<{len(channel.array)}Q", *channel.array)
                ca = struct.pack("<BBHIiI", 0, 0, len(channel.array), 0, channel.bits // 8, 0)
                array = self.block("CA", [0], ca + sizes)
            flags = 2 if channel.invalid_bit >= 0 else 0
            links = [following, array, self.tx(channel.name), 0, channel.conversion]
            links += [channel.data, self.tx(channel.unit), 0]
            record = struct.pack(
                "<BBBBIIIIBBHdddddd",
                *(channel.type, 1 if channel.type == 2 else 0, channel.data_type, channel.bit),
                *(channel.byte, channel.bits, flags, max(0, channel.invalid_bit)),
                *(0, 0, 0, 0, 0, 0, 0, 0, 0),
            )
            following = self.block("CN", links, record)
        count = more.get("count", len(records))
        cg = struct.pack("<QQHHIII", 0, count, 0, 0, 0, size - invalid, invalid)
        links = [0, following, self.tx(name), 0, 0, 0]
        data = self.block("DT", [], b"".join(records))
        links = [0, self.block("CG", links, cg), data, 0]
        dg = self.block("DG", links, bytes(8))
        self.put(self.groups[-1] + 24 if self.groups else 64 + 24, dg)
        self.groups.append(dg)

    def write(self, path: Path) -> Path:
        path.write_bytes(self.bytes)
        return path


class HandRead:
    """A file of sorted groups, taken apart by the format's layouts alone."""

    def __init__(self, path: Path) -> None:
        self.data = path.read_bytes()

    def u64(self, at: int) -> int:
        return int(struct.unpack_from("<Q", self.data, at)[0])

    def link(self, block: int, index: int) -> int:
        return self.u64(block + 24 + 8 * index)

    def fields(self, block: int) -> int:
        return block + 24 + 8 * self.u64(block + 16)

    def text(self, block: int) -> str:
        size = self.u64(block + 8)
        return self.data[block + 24 : block + size].split(b"\0")[0].decode() if block else ""

    def chain(self, block: int) -> List[int]:
        found = []
        while block:
            found.append(block)
            block = self.link(block, 0)
        return found

    def joined(self, data: int) -> bytes:
        """What is in one data block, or a list of them."""
        kind = self.data[data + 2 : data + 4]
        if kind == b"DL":
            blocks = [self.link(data, i) for i in range(1, self.u64(data + 16))]
        else:
            blocks = [data]
        return b"".join(self.data[b + 24 : b + self.u64(b + 8)] for b in blocks)

    def groups(self) -> List[Tuple[str, Dict[str, List[Any]]]]:
        """Names of the groups, and by name of channel its values."""
        found = []
        for dg in self.chain(self.link(64, 0)):
            cg = self.link(dg, 1)
            at = self.fields(cg)
            count, size = self.u64(at + 8), sum(struct.unpack_from("<II", self.data, at + 24))
            data = self.joined(self.link(dg, 2))
            rows = [data[i * size : (i + 1) * size] for i in range(count)]
            channels = self.channels(cg)
            values = {name: [self.value(cn, row) for row in rows] for name, cn in channels.items()}
            found.append((self.text(self.link(cg, 2)), values))
        return found

    def channels(self, cg: int) -> Dict[str, int]:
        """Blocks by name, members of structures behind the name of theirs and a point."""
        found = {}
        for cn in self.chain(self.link(cg, 1)):
            name = self.text(self.link(cn, 2))
            found[name] = cn
            for member in self.chain(self.link(cn, 1)):
                if self.data[member : member + 4] == b"##CN":
                    found[self.text(self.link(member, 2))] = member
        return found

    def value(self, cn: int, row: bytes) -> Any:
        kind, _, data_type, bit, byte, bits = struct.unpack_from(
            "<BBBBII", self.data, self.fields(cn)
        )
        field = row[byte : byte + (bit + bits + 7) // 8]
        if kind == 1:  # of variable length, somewhere else
            at = int.from_bytes(field, "little")
            data = self.joined(self.link(cn, 5))
            return data[at + 4 : at + 4 + int.from_bytes(data[at : at + 4], "little")]
        if data_type > 5:
            return field
        if data_type in (4, 5):
            order = "<" if data_type == 4 else ">"
            raw: Any = struct.unpack(order + ("d" if bits == 64 else "f"), field)[0]
        else:
            order = "little" if data_type in (0, 2) else "big"
            raw = int.from_bytes(field, order) >> bit & ((1 << bits) - 1)  # type: ignore[arg-type]
            if data_type in (2, 3) and raw >> (bits - 1):
                raw -= 1 << bits
        conversion = self.link(cn, 4)
        if conversion and self.data[self.fields(conversion)] == 1:
            offset, factor = struct.unpack_from("<dd", self.data, self.fields(conversion) + 24)
            return raw * factor + offset
        return raw
