"""kelto_util in gdb: time values, event queues, timer queues, workers and chains of message blocks
print readably, also through a pointer to their interface, kelto-workers lists the workers of a
process or of a core file, and kelto-figures what the watch has counted of them. gdb loads this file by itself when it lies beside the library and gdb trusts the
directory (add-auto-load-safe-path); otherwise: source kelto_util-gdb.py
"""

import re
import time

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
        # A node is two pointers and the member after them, aligned.
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


def dynamic(pointer):
    """The whole object that a pointer to one of its bases leads to."""
    return pointer.cast(pointer.dynamic_type).dereference()


def all_fields(kind):
    for field in kind.strip_typedefs().fields():
        if field.is_base_class:
            yield from all_fields(field.type)
        else:
            yield field


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

    def due(self):
        nodes = self.nodes()
        first = f", the first at {time_text(nodes[0]['m_tvExpired'])}" if nodes else ""
        return f"{len(nodes)} timers pending{first}"

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


class Worker:
    """A thread object: what it is and what waits for it."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        # A worker has two stop flags; that of its thread counts here.
        thread = self.value.cast(gdb.lookup_type("UTIL_NS::ACmThread"))
        if int(plain(thread["m_bStopFlag"])):
            state = "stopped"
        else:
            state = "running" if int(plain(thread["m_Tid"])) else "not created"
        return ", ".join([f"worker, {state}"] + self.queues())

    def queues(self):
        """Of the classes that have some."""
        names = {field.name for field in all_fields(self.value.type)}
        texts = []
        if "m_EventQueue" in names:
            queue = self.value["m_EventQueue"]
            texts.append(f"{int(plain(queue['m_dwSize']))} events pending")
        if "m_pTimerQueue" in names and int(self.value["m_pTimerQueue"]) != 0:
            timers = dynamic(self.value["m_pTimerQueue"])
            printer = gdb.default_visualizer(timers)
            if printer is not None and hasattr(printer, "due"):
                texts.append(printer.due())
        return texts


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


CLASSES = (
    ("CCmTimeValue", TimeValue),
    ("CCmEventQueueBase", EventQueue),
    ("CCmEventQueueUsingMutex", EventQueue),
    ("CCmEventQueueUsingConditionVariable", EventQueue),
    ("CCmTimerQueueOrderedList", TimerQueueOrderedList),
    ("CCmTimerQueueCalendar", TimerQueueCalendar),
    ("CCmMessageBlock", MessageBlock),
    ("CCmThreadTaskWithEventQueueOnly", Worker),
    ("CCmThreadTask", Worker),
    ("CCmThreadHeartBeat", Worker),
)
PRINTERS = {f"UTIL_NS::{name}": printer for name, printer in CLASSES}
INTERFACES = {f"UTIL_NS::{name}" for name in ("ICmEventQueue", "ICmTimerQueue", "ACmThread")}


class ThroughPointer:
    """A pointer to an interface, as what it points to."""

    def __init__(self, pointer, printer):
        self.pointer = pointer
        self.printer = printer
        if hasattr(printer, "children"):
            self.children = printer.children

    def to_string(self):
        return f"{object_text(self.pointer)} {self.printer.to_string()}"


class Printers(gdb.printing.PrettyPrinter):
    def __call__(self, value):
        kind = value.type.strip_typedefs()
        if kind.code == gdb.TYPE_CODE_STRUCT:
            printer = PRINTERS.get(kind.name)
            return printer(value) if printer else None
        if kind.code != gdb.TYPE_CODE_PTR or kind.target().name not in INTERFACES or int(value) == 0:
            return None
        try:
            target = dynamic(value)
        except gdb.error:  # a pointer to nowhere
            return None
        for base in self.classes(target.type):
            if base.name in PRINTERS:
                return ThroughPointer(value, PRINTERS[base.name](target.cast(base)))
        return None

    def classes(self, kind):
        """The class and its bases, the nearest first."""
        level = [kind.strip_typedefs()]
        while level:
            yield from level
            level = [field.type for each in level for field in each.fields() if field.is_base_class]


def printable(text):
    """What a terminal would act on, and what is no UTF-8, as \\xNN: names may hold any bytes."""
    return "".join(each if each.isprintable() else
                   "".join(f"\\x{byte:02x}" for byte in each.encode("utf-8", "surrogateescape"))
                   for each in text)


class Workers(gdb.Command):
    """kelto-workers: the registered workers of the process, with what is pending in their queues.

A line a worker: the debugger's number of its thread and its name, where it is known, the object
and its class, its state, events pending and timers due. Works on a core file, too."""

    def __init__(self):
        super().__init__("kelto-workers", gdb.COMMAND_STATUS)

    @staticmethod
    def threads():
        """The debugger's threads by their POSIX identifiers."""
        found = {}
        for thread in gdb.selected_inferior().threads():
            try:
                found[int.from_bytes(thread.handle(), "little")] = thread
            except gdb.error:  # not known of this thread
                continue
        return found

    def invoke(self, _argument, _from_tty):
        threads = self.threads()
        workers = list(list_members(gdb.parse_and_eval("UTIL_NS::g_threadList")))
        for worker in workers:
            thread = threads.get(int(plain(worker["m_Tid"])))
            name = f" \"{printable(thread.name)}\"" if thread is not None and thread.name else ""
            number = f"thread {thread.num}{name}" if thread is not None else "no thread"
            print(f"{number}: {worker.format_string(raw=False)}")
        print(f"{len(workers)} workers")


class Watch:
    """What the watch keeps, read out of the library's own objects: needs its debug information."""

    def __init__(self):
        self.registry = gdb.parse_and_eval("'UTIL_NS::(anonymous namespace)::s_registry'.m_Registry")
        self.start = int(self.registry["m_dwStart"])

    def threads(self):
        return self.chain(self.registry["m_pThreads"])

    def queues(self):
        return self.chain(self.registry["m_pQueues"])

    @staticmethod
    def chain(pointer):
        while int(pointer) != 0:
            yield pointer
            pointer = pointer["m_pNext"]

    @staticmethod
    def is_on():
        return int(plain(gdb.parse_and_eval("UTIL_NS::g_cmWatchOn"))) != 0

    @staticmethod
    def record():
        """The path of the recorder's file; empty when there is none."""
        state = gdb.parse_and_eval("UTIL_NS::CCmFlight::CState::s_State")
        has_file = state["m_bIsOpen"] and int(state["m_File"]["m_nFile"]) >= 0
        return printable(state["m_File"]["m_szPath"].string(errors="surrogateescape")) if has_file else ""

    def shared(self, count):
        """Of a count that other threads than one write; it names its start in its upper bits."""
        both = int(plain(count))
        return both & (2**40 - 1) if both >> 40 == self.start else 0

    def counts(self, thread):
        """What the queues of a thread have counted, of those without one for null; None when there
        is no such queue."""
        found = None
        for queue in self.queues():
            if int(plain(queue["m_pConsumer"])) != int(thread):
                continue
            found = found or dict(posted=0, run=0, refused=0, unfired=0, pending=0)
            before = dict(found)
            size, own = (int(plain(queue["m_Counts"][name].referenced_value()))
                         for name in ("m_dwSize", "m_dwOwn"))
            pending = size + own
            # While it is on, a part that nobody has come by since the start has what was pending
            # then.
            if int(plain(queue["m_dwStart"])) == self.start:
                found["posted"] += int(plain(queue["m_ullPosted"]))
                pending -= int(plain(queue["m_dwGhosts"])) + int(plain(queue["m_dwWaysBack"]))
            elif self.is_on():
                found["posted"] += size
            if int(plain(queue["m_dwOwnStart"])) == self.start:
                found["posted"] += int(plain(queue["m_ullOwnPosted"]))
                found["run"] += int(plain(queue["m_ullRun"]))
                pending += int(plain(queue["m_dwTaken"]))
            elif self.is_on():
                found["posted"] += own
            found["refused"] += self.shared(queue["m_Refused"])
            found["unfired"] += self.shared(queue["m_Unfired"])
            if not self.is_on():  # what was pending at its end: the queue goes on
                pending = sum(sign * (found[name] - before[name])
                              for name, sign in (("posted", 1), ("run", -1), ("unfired", -1)))
            found["pending"] += max(pending, 0)
        return found


def class_text(table):
    """The class whose objects begin with this address, of its virtual functions."""
    symbol = gdb.execute(f"info symbol {int(table):#x}", to_string=True)
    found = re.match(r"vtable for (.*) \+ \d+( in section .*)?$", symbol.strip())
    return found.group(1) if found else f"{int(table):#x}"


def moment_text(microseconds):
    seconds, rest = divmod(microseconds, 1000000)
    return f"{time.strftime('%Y-%m-%d %H:%M:%S', time.gmtime(seconds))}.{rest:06d} UTC"


def spread_text(distribution):
    """Microseconds: median, 99 and 99.9 of 100, which may be a quarter too high, and the longest."""
    counts = [int(plain(distribution["m_dwCounts"][index])) for index in range(96)]
    longest = int(plain(distribution["m_ullLongest"]))

    def reach(per_thousand):
        wanted, seen = (sum(counts) * per_thousand + 999) // 1000, 0
        for index, count in enumerate(counts[:-1]):
            seen += count
            if seen >= wanted:
                end = index if index < 4 else ((index % 4 + 5) << (index // 4 - 1)) - 1
                return min(end, longest)
        return longest

    return f"{reach(500)}/{reach(990)}/{reach(999)}/{longest} us"


class Figures(gdb.Command):
    """kelto-figures: what the watch has counted of each thread, and what it runs since when.

Of a process whose watch is on or was on, or of its core file. A thread has one line with the
events of its queues, one with what it runs, and one with its times: median, 99 of 100, 999 of 1000
and the longest. The records of what it did last are in the recorder's file, whose path comes first."""

    def __init__(self):
        super().__init__("kelto-figures", gdb.COMMAND_STATUS)

    def invoke(self, _argument, _from_tty):
        try:
            watch = Watch()
            record = watch.record()
        except gdb.error as error:
            raise gdb.GdbError(f"the library has no debug information: {error}")
        if watch.start == 0:
            print("the watch was never on")
            return
        print(f"the watch {'is on' if watch.is_on() else 'was on'}, "
              f"recorder: {record or 'no file'}")
        numbers = Workers.threads()
        for thread in watch.threads():
            self.show_thread(watch, thread, numbers)
        counts = watch.counts(0)
        if counts:
            self.show_counts("queues without a thread", counts)

    @staticmethod
    def show_counts(who, counts):
        print(f"{who}: {counts['posted']} posted, {counts['run']} run, {counts['refused']} refused, "
              f"{counts['unfired']} ended unfired, {counts['pending']} pending")

    def show_thread(self, watch, thread, numbers):
        name = printable(thread["m_szName"].string(errors="surrogateescape"))
        found = None if thread["m_bHasEnded"] else numbers.get(int(thread["m_Tid"]))
        who = f"thread {found.num if found else '(ended)'} \"{name}\""
        counts = watch.counts(thread)
        if counts:
            self.show_counts(who, counts)
        else:
            print(f"{who}: no queue")
        if int(plain(thread["m_dwStart"])) != watch.start:
            return
        if int(plain(thread["m_pCurrent"])) != 0:
            print(f"  runs {class_text(plain(thread['m_pCurrent']))} "
                  f"since {moment_text(int(plain(thread['m_llCurrentStart'])))}")
        for label, member, total in (("run", "m_Run", "m_ullInEvents"), ("waited", "m_Waited", None),
                                     ("timers late", "m_Late", "m_ullInTimers"),
                                     ("sends blocked", "m_Sends", None)):
            distribution = thread[member]
            count = sum(int(plain(distribution["m_dwCounts"][index])) for index in range(96))
            if count:
                took = f", {int(plain(thread[total]))} us in all" if total else ""
                longest = ""
                if member == "m_Run" and int(plain(thread["m_pLongest"])) != 0:
                    longest = f", longest {class_text(plain(thread['m_pLongest']))}"
                print(f"  {label}: {count}{took}, {spread_text(distribution)}{longest}")


gdb.printing.register_pretty_printer(gdb.current_objfile(), Printers("kelto_util"), replace=True)
Workers()
Figures()
