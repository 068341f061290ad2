"""Pretty-printers of kelto_util for gdb: time values, event queues, timer queues and chains of
message blocks. gdb loads this file by itself when it lies beside the library and gdb trusts the
directory (add-auto-load-safe-path); otherwise: source kelto_util-gdb.py
"""

import gdb
import gdb.printing

LIMIT = 200  # members of a queue or a chain that are shown


def plain(value):
    """The number inside a std::atomic, which is the first field of its innermost base."""
    while value.type.strip_typedefs().code == gdb.TYPE_CODE_STRUCT:
        fields = value.type.strip_typedefs().fields()
        value = value[next(field for field in fields if hasattr(field, "bitpos"))]
    return value


def list_members(value):
    """The members of a std::list."""
    member_type = value.type.strip_typedefs().template_argument(0)
    anchor = value["_M_impl"]["_M_node"]
    node = anchor["_M_next"]
    while node != anchor.address:
        # A node is two pointers and the member behind them, aligned.
        at = int(node) + 2 * node.type.sizeof
        yield gdb.Value(at).cast(member_type.pointer()).dereference()
        node = node["_M_next"]


def time_text(value):
    seconds, microseconds = int(value["m_lSec"]), int(value["m_lUsec"])
    if seconds == 2**63 - 1:
        return "no limit"
    sign = "-" if seconds < 0 or microseconds < 0 else ""
    return f"{sign}{abs(seconds)}.{abs(microseconds):06d} s"


def object_text(pointer):
    """An address and the class of the object that is there."""
    if int(pointer) == 0:
        return "null"
    return f"{int(pointer):#x} {pointer.dynamic_type.target().unqualified().name}"


def limited(members):
    for index, text in enumerate(members):
        if index == LIMIT:
            yield f"[{index}]", "..."
            return
        yield f"[{index}]", text


class TimeValue:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        return time_text(self.value)


class Listing:
    """A line, and members that are texts of their own."""

    def __init__(self, value):
        self.value = value

    def display_hint(self):
        return None

    def children(self):
        return limited(self.members())


class EventQueue(Listing):
    def to_string(self):
        state = ", stopped" if plain(self.value["m_bIsStopped"]) else ""
        return f"event queue, {int(plain(self.value['m_dwSize']))} pending{state}"

    def members(self):
        return (object_text(event) for event in list_members(self.value["m_Events"]))


def timer_text(node, count, when):
    repeats = "without limit" if count == 0xFFFFFFFF else f"{count} times"
    return f"{object_text(node['m_pEh'])} {when}, {repeats}, every {time_text(node['m_tvInterval'])}"


class TimerQueueOrderedList(Listing):
    def nodes(self):
        return list(list_members(self.value["m_Nodes"]))

    def to_string(self):
        return f"timer queue, {len(self.nodes())} pending"

    def members(self):
        return (
            timer_text(node, int(node["m_dwCount"]), f"at {time_text(node['m_tvExpired'])}")
            for node in self.nodes()
        )


class TimerQueueCalendar(Listing):
    def nodes(self):
        slots, last = self.value["m_ppSlots"], int(self.value["m_dwMaxSlotNumber"])
        current = int(self.value["m_dwCurrentSlot"])
        if int(slots) == 0:
            return
        for distance in range(last + 1):
            node = slots[(current + distance) % (last + 1)]
            while int(node) != 0:
                yield distance, node
                node = node["m_pNext"]

    def to_string(self):
        return (
            f"calendar timer queue, {sum(1 for _ in self.nodes())} pending, "
            f"{int(self.value['m_dwMaxSlotNumber']) + 1} slots of {int(self.value['m_dwInterval'])} ms"
        )

    def members(self):
        return (
            timer_text(node, int(node["m_dwCount"]), f"in {distance} ticks")
            for distance, node in self.nodes()
        )


class MessageBlock(Listing):
    FLAGS = ((0x1, "external"), (0x100, "read-locked"), (0x200, "write-locked"),
             (0x20000, "duplicated"))

    def blocks(self):
        block = self.value
        for _ in range(LIMIT + 1):
            yield block
            if int(block["m_pNext"]) == 0:
                return
            block = block["m_pNext"].dereference()

    @staticmethod
    def readable(block):
        return int(block["m_pWritePtr"]) - int(block["m_pReadPtr"])

    def to_string(self):
        blocks = list(self.blocks())
        return (f"chain of {len(blocks)} blocks, "
                f"{sum(self.readable(block) for block in blocks)} bytes readable")

    def members(self):
        for block in self.blocks():
            space = int(block["m_pEndPtr"]) - int(block["m_pWritePtr"])
            flags = "".join(f", {name}" for bit, name in self.FLAGS if int(block["m_Flag"]) & bit)
            yield f"{self.readable(block)} bytes readable, {space} free{flags}"


def printers():
    collection = gdb.printing.RegexpCollectionPrettyPrinter("kelto_util")
    for name, printer in (
        ("CCmTimeValue", TimeValue),
        ("CCmEventQueue(Base|UsingMutex|UsingConditionVariable)", EventQueue),
        ("CCmTimerQueueOrderedList", TimerQueueOrderedList),
        ("CCmTimerQueueCalendar", TimerQueueCalendar),
        ("CCmMessageBlock", MessageBlock),
    ):
        collection.add_printer(name, f"^UTIL_NS::{name}$", printer)
    return collection


gdb.printing.register_pretty_printer(gdb.current_objfile(), printers(), replace=True)
