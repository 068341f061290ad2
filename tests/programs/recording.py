"""Writes flight recorders' files by what docs/flight-format.md says, for tests of what reads them."""

import struct

HEADER_SIZE = 4096
CLASS_SIZE = 256
SLOT_SIZE = 1024
UNIT_SIZE = 32
EVENT, POST, TIMER, SEND, HIGH_WATER, STEP, LINE, TEXT, THREAD, END = range(1, 11)
FREE, LIVE, ENDED = range(3)
FILTERED, CUT = 1, 2
FIGURES = ("posted run refused unfired pending most_pending asleep events timers_usec timers sends "
           "longest_table").split()
SPREADS = "run_time waiting lateness blocked".split()
SPREAD = "count median p99 p999 longest".split()
START = 1795339800_000000  # 2026-11-22 09:30:00 UTC


def name_bytes(name, room):
    data = name if isinstance(name, bytes) else name.encode()
    return data[:room - 1].ljust(room, b"\0")


def head(kind, usec):
    return kind << 56 | usec & (1 << 56) - 1


class Slot:
    def __init__(self, number, name, state=LIVE, start=START, end=0, thread=None):
        self.number, self.name, self.state, self.start, self.end = number, name, state, start, end
        self.thread = 0x7f0000000000 + number if thread is None else thread
        self.units = []
        self.before = 0        # units that the ring had and that are overwritten
        self.first = 0
        self.figures = {}
        self.figures_count, self.figures_wall = 0, 0
        self.current = (0, 0)  # class and start

    def unit(self, kind, usec, *words):
        words = [word & (1 << 64) - 1 for word in words] + [0] * (3 - len(words))
        self.units.append(struct.pack("<4Q", head(kind, usec), *words))
        return self

    def event(self, usec, length, table, event=0, pending=0):
        return self.unit(EVENT, usec, length << 24 | pending, table, event)

    def post(self, usec, table, event, queue):
        return self.unit(POST, usec, table, event, queue)

    def timer(self, usec, length, late, table):
        return self.unit(TIMER, usec, length, late, table)

    def send(self, usec, length, table, queue):
        return self.unit(SEND, usec, length, table, queue)

    def text(self, data):
        for number, at in enumerate(range(0, len(data), 24), 1):
            self.units.append(struct.pack("<Q24s", head(TEXT, number), data[at:at + 24]))
        return self

    def line(self, usec, level, text, flags=0, length=None):
        data = text if isinstance(text, bytes) else text.encode()
        first = level | flags << 8 | (len(data) if length is None else length) << 16
        self.units.append(struct.pack("<QQ16s", head(LINE, usec), first, data[:16]))
        return self.text(data[16:])

    def begin(self, usec, number, thread, name):
        data = name.encode()
        return self.unit(THREAD, usec, number, thread, len(data)).text(data)

    def ended(self, usec, number):
        return self.unit(END, usec, number)

    def watched(self, count=2, wall=START + 1, **figures):
        self.figures, self.figures_count, self.figures_wall = figures, count, wall
        return self

    def pack(self, units):
        assert len(self.units) <= units
        data = struct.pack("<IIQQQQ64s24x", self.state, self.number, self.thread, self.start, self.end,
                           self.first, name_bytes(self.name, 64))
        data += struct.pack("<QQ", self.figures_count, self.figures_wall)
        data += struct.pack("<12Q", *(self.figures.get(name, 0) for name in FIGURES))
        for spread in SPREADS:
            values = self.figures.get(spread, {})
            data += struct.pack("<5Q", *(values.get(name, 0) for name in SPREAD))
        data += bytes(14 * 8)
        data += struct.pack("<QQQ", *self.current, self.before + len(self.units))
        data += bytes(61 * 8)
        assert len(data) == SLOT_SIZE
        ring = [bytes(UNIT_SIZE)] * units
        for number, unit in enumerate(self.units, self.before):
            ring[number % units] = unit
        return data + b"".join(ring)


class Recording:
    def __init__(self, process="media-host", pid=4711, units=256):
        self.process, self.pid, self.units = process, pid, units
        self.classes, self.slots = [], []
        self.tick, self.end = START + 1_000_000, 0
        self.lost, self.unslotted = 0, 0

    def add_class(self, name, state=2):
        table = 0x600000001000 + 64 * len(self.classes)
        self.classes.append(struct.pack("<QII", table, state, 0) + name_bytes(name, 240))
        return table

    def add(self, *arguments, **keywords):
        self.slots.append(Slot(*arguments, **keywords))
        return self.slots[-1]

    def pack(self):
        slot_size = SLOT_SIZE + self.units * UNIT_SIZE
        offset = HEADER_SIZE + CLASS_SIZE * len(self.classes)
        data = struct.pack("<8sIIQIIQIIIIII64s7Q", b"KELTOFLT", 1, HEADER_SIZE,
                           offset + slot_size * len(self.slots), CLASS_SIZE, len(self.classes), offset,
                           slot_size, len(self.slots), SLOT_SIZE, UNIT_SIZE, self.units, self.pid,
                           name_bytes(self.process, 64), START, 5_000_000, self.tick, 6_000_000,
                           self.end, self.lost, self.unslotted)
        assert len(data) == 184
        return (data.ljust(HEADER_SIZE, b"\0") + b"".join(self.classes) +
                b"".join(slot.pack(self.units) for slot in self.slots))
