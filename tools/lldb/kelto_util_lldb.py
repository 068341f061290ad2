"""kelto_util in lldb: time values, event queues, timer queues, workers and chains of message blocks
show a line of what they hold, also through a pointer to their interface, kelto-workers lists the
workers of a process or of a core file, and kelto-figures what the watch has counted of them. To load
it, also from ~/.lldbinit:

    command script import kelto_util_lldb.py
"""

import time

import lldb

TABLE = "vtable for "
LIMIT = 200  # blocks of a chain that are followed


def field(value, name):
    """A field of the object or of one of its bases, without the look that lldb gives it."""
    value = value.GetNonSyntheticValue()
    found = value.GetChildMemberWithName(name)
    if found.IsValid():
        return found
    for index in range(value.GetNumChildren()):
        child = value.GetChildAtIndex(index)
        if child.GetName() == child.GetTypeName():  # a base
            found = field(child, name)
            if found.IsValid():
                return found
    return lldb.SBValue()


def number(value):
    """The number itself or inside a std::atomic."""
    value = value.GetNonSyntheticValue()
    while value.GetNumChildren() and not value.GetType().IsPointerType():
        value = value.GetChildAtIndex(0).GetNonSyntheticValue()
    return value.GetValueAsUnsigned() if not signed(value) else value.GetValueAsSigned()


def signed(value):
    return value.GetType().GetBasicType() in (lldb.eBasicTypeLong, lldb.eBasicTypeInt,
                                              lldb.eBasicTypeLongLong)


def members(container):
    """Of a std::list, which lldb itself knows how to read."""
    container.SetPreferSyntheticValue(True)
    return [container.GetChildAtIndex(index) for index in range(container.GetNumChildren())]


def time_text(value):
    seconds, microseconds = number(field(value, "m_lSec")), number(field(value, "m_lUsec"))
    if seconds == 2**63 - 1:
        return "no limit"
    sign = "-" if seconds < 0 or microseconds < 0 else ""
    return f"{sign}{abs(seconds)}.{abs(microseconds):06d} s"


def symbol_at(target, address):
    """The name of what lies there. Asked of each module, since lldb 14 finds nothing by itself where
    a module has thread-local variables at the head of its data."""
    for module in target.module_iter():
        header = module.GetObjectFileHeaderAddress()
        slide = header.GetLoadAddress(target) - header.GetFileAddress()
        symbol = module.ResolveFileAddress(max(address - slide, 0)).GetSymbol()
        if symbol.IsValid():
            return symbol.GetName()
    return ""


def whole(pointer):
    """The object that a pointer to one of its bases leads to, as its own class: the one whose table
    of virtual functions it holds. lldb's own look-up stops at a class of which the program has but
    a declaration."""
    target, process, error = pointer.GetTarget(), pointer.GetProcess(), lldb.SBError()
    address = number(pointer)
    table = process.ReadPointerFromMemory(address, error)
    symbol = symbol_at(target, table)
    offset = process.ReadPointerFromMemory(table - 2 * pointer.GetByteSize(), error)
    if error.Fail() or not symbol.startswith(TABLE):
        return pointer.Dereference()
    kinds = target.FindTypes(symbol[len(TABLE):])
    for index in range(kinds.GetSize()):
        kind = kinds.GetTypeAtIndex(index)
        if kind.GetNumberOfFields() or kind.GetNumberOfDirectBaseClasses():
            return pointer.CreateValueFromAddress("whole", (address + offset) % 2**64, kind)
    return pointer.Dereference()


def time_value(value, _memory):
    return time_text(value)


def event_queue(value, _memory):
    state = ", stopped" if number(field(value, "m_bIsStopped")) else ""
    return f"event queue, {number(field(value, 'm_dwSize'))} pending{state}"


def timer_queue(value, _memory):
    nodes = members(field(value, "m_Nodes"))
    first = f", the first at {time_text(field(nodes[0], 'm_tvExpired'))}" if nodes else ""
    return f"timer queue, {len(nodes)} pending{first}"


def calendar(value, _memory):
    slots = number(field(value, "m_dwMaxSlotNumber")) + 1
    return f"calendar timer queue, {slots} slots of {number(field(value, 'm_dwInterval'))} ms"


def message_block(value, _memory):
    count = readable = 0
    while value.IsValid() and count < LIMIT:
        count += 1
        readable += number(field(value, "m_pWritePtr")) - number(field(value, "m_pReadPtr"))
        following = field(value, "m_pNext")
        if number(following) == 0:
            break
        value = following.Dereference()
    return f"chain of {count} blocks, {readable} bytes readable"


def worker(value, _memory):
    if number(field(value, "m_bStopFlag")):
        state = "stopped"
    else:
        state = "running" if number(field(value, "m_Tid")) else "not created"
    texts = [f"worker, {state}"]
    events = field(value, "m_EventQueue")
    if events.IsValid():
        texts.append(f"{number(field(events, 'm_dwSize'))} events pending")
    timers = field(value, "m_pTimerQueue")
    if timers.IsValid() and number(timers):
        summary = SUMMARIES.get(whole(timers).GetTypeName())
        if summary:
            texts.append(summary(whole(timers), None))
    return ", ".join(texts)


SUMMARIES = {
    "UTIL_NS::CCmTimeValue": time_value,
    "UTIL_NS::CCmEventQueueBase": event_queue,
    "UTIL_NS::CCmEventQueueUsingMutex": event_queue,
    "UTIL_NS::CCmEventQueueUsingConditionVariable": event_queue,
    "UTIL_NS::CCmTimerQueueOrderedList": timer_queue,
    "UTIL_NS::CCmTimerQueueCalendar": calendar,
    "UTIL_NS::CCmMessageBlock": message_block,
    "UTIL_NS::CCmThreadTaskWithEventQueueOnly": worker,
    "UTIL_NS::CCmThreadTask": worker,
    "UTIL_NS::CCmThreadHeartBeat": worker,
}
INTERFACES = ("UTIL_NS::ICmEventQueue", "UTIL_NS::ICmTimerQueue", "UTIL_NS::ACmThread")


def bases(kind):
    """The class and those that it derives from, the nearest first."""
    level = [kind]
    while level:
        yield from level
        level = [each.GetDirectBaseClassAtIndex(index).GetType()
                 for each in level for index in range(each.GetNumberOfDirectBaseClasses())]


def interface(pointer, memory):
    if number(pointer) == 0:
        return "null"
    target = whole(pointer)
    for base in bases(target.GetType()):
        summary = SUMMARIES.get(base.GetName())
        if summary:
            return f"{target.GetTypeName()} {summary(target, memory)}"
    return target.GetTypeName()


def registered(target):
    """The pointers in the list of workers, of which the debug information knows the name alone. A
    node is two pointers, the next one first on Linux and second on a Mac, and the member."""
    process, error = target.GetProcess(), lldb.SBError()
    size = target.GetAddressByteSize()
    following = size if "apple" in target.GetTriple() else 0
    kind = target.FindFirstType("UTIL_NS::ACmThread").GetPointerType()
    found = []
    # The second name: with the tag that GCC's library gives to its newer types.
    symbols = [symbol for name in ("", "[abi:cxx11]")
               for symbol in target.FindSymbols(f"UTIL_NS::g_threadList{name}")]
    for symbol in symbols[:1]:
        head = symbol.GetSymbol().GetStartAddress().GetLoadAddress(target)
        node = process.ReadPointerFromMemory(head + following, error)
        while error.Success() and node != head:
            found.append(target.CreateValueFromAddress("worker", lldb.SBAddress(node + 2 * size, target), kind))
            node = process.ReadPointerFromMemory(node + following, error)
    return found


def workers(debugger, _command, context, result, _memory):
    """kelto-workers: the registered workers of the process, with what is pending in their queues."""
    target = context.GetTarget()
    found = registered(target)
    for each in found:
        result.AppendMessage(f"{number(each):#x} {interface(each, None)}")
    result.AppendMessage(f"{len(found)} workers")


class Watch:
    """What the watch keeps, read out of the library's own objects: needs its debug information."""

    def __init__(self, target):
        self.target = target
        self.registry = field(self.variable("UTIL_NS::(anonymous namespace)::s_registry"), "m_Registry")
        self.start = self.number_of(self.registry, "m_dwStart")

    def variable(self, name):
        found = self.target.FindFirstGlobalVariable(name)
        if not found.IsValid():
            raise LookupError(f"the library has no debug information: no {name}")
        return found

    @staticmethod
    def number_of(value, *names):
        for name in names:
            value = field(value, name)
        return number(value)

    def chain(self, name):
        pointer = field(self.registry, name)
        while number(pointer) != 0:
            yield pointer
            pointer = field(pointer.Dereference(), "m_pNext")

    def is_on(self):
        return number(self.variable("UTIL_NS::g_cmWatchOn")) != 0

    def record(self):
        """The path of the recorder's file; empty when there is none."""
        state = self.variable("UTIL_NS::CCmFlight::CState::s_State")
        file = field(state, "m_File")
        descriptor = field(file, "m_nFile").GetValueAsSigned()
        has_file = self.number_of(state, "m_bIsOpen") and descriptor >= 0
        return text_of(field(file, "m_szPath")) if has_file else ""

    def shared(self, count):
        """Of a count that other threads than one write; it names its start in its upper bits."""
        both = number(count)
        return both & (2**40 - 1) if both >> 40 == self.start else 0

    def counts(self, thread):
        """What the queues of a thread have counted, of those without one for 0; None when there is
        no such queue."""
        found = None
        for pointer in self.chain("m_pQueues"):
            queue = pointer.Dereference()
            if self.number_of(queue, "m_pConsumer") != thread:
                continue
            found = found or dict(posted=0, run=0, refused=0, unfired=0, pending=0)
            before = dict(found)
            size, own = (number(field(field(queue, "m_Counts"), name).Dereference())
                         for name in ("m_dwSize", "m_dwOwn"))
            pending = size + own
            # While it is on, a part that nobody has come by since the start has what was pending
            # then.
            if self.number_of(queue, "m_dwStart") == self.start:
                found["posted"] += self.number_of(queue, "m_ullPosted")
                pending -= self.number_of(queue, "m_dwGhosts")
                pending -= self.number_of(queue, "m_dwWaysBack")
            elif self.is_on():
                found["posted"] += size
            if self.number_of(queue, "m_dwOwnStart") == self.start:
                found["posted"] += self.number_of(queue, "m_ullOwnPosted")
                found["run"] += self.number_of(queue, "m_ullRun")
                pending += self.number_of(queue, "m_dwTaken")
            elif self.is_on():
                found["posted"] += own
            found["refused"] += self.shared(field(queue, "m_Refused"))
            found["unfired"] += self.shared(field(queue, "m_Unfired"))
            if not self.is_on():  # what was pending at its end: the queue goes on
                pending = sum(sign * (found[name] - before[name])
                              for name, sign in (("posted", 1), ("run", -1), ("unfired", -1)))
            found["pending"] += max(pending, 0)
        return found

    def class_text(self, table):
        """The class whose objects begin with this address, of its virtual functions."""
        symbol = symbol_at(self.target, table)
        return symbol[len(TABLE):] if symbol.startswith(TABLE) else f"{table:#x}"


def printable(text):
    """What a terminal would act on, and what is no UTF-8, as \\xNN: names may hold any bytes."""
    return "".join(each if each.isprintable() else
                   "".join(f"\\x{byte:02x}" for byte in each.encode("utf-8", "surrogateescape"))
                   for each in text)


def text_of(array):
    """Of an array of characters."""
    error = lldb.SBError()
    data = array.GetProcess().ReadMemory(array.GetLoadAddress(), array.GetByteSize(), error)
    return printable((data or b"").split(b"\0")[0].decode("utf-8", "surrogateescape"))


def moment_text(microseconds):
    seconds, rest = divmod(microseconds, 1000000)
    return f"{time.strftime('%Y-%m-%d %H:%M:%S', time.gmtime(seconds))}.{rest:06d} UTC"


def spread(distribution):
    """How many, and in microseconds: median, 99 and 99.9 of 100, which may be a quarter too high,
    and the longest."""
    array = field(distribution, "m_dwCounts")
    counts = [number(array.GetChildAtIndex(index)) for index in range(array.GetNumChildren())]
    longest = number(field(distribution, "m_ullLongest"))

    def reach(per_thousand):
        wanted, seen = (sum(counts) * per_thousand + 999) // 1000, 0
        for index, count in enumerate(counts[:-1]):
            seen += count
            if seen >= wanted:
                end = index if index < 4 else ((index % 4 + 5) << (index // 4 - 1)) - 1
                return min(end, longest)
        return longest

    return sum(counts), f"{reach(500)}/{reach(990)}/{reach(999)}/{longest} us"


def counts_text(counts):
    return (f"{counts['posted']} posted, {counts['run']} run, {counts['refused']} refused, "
            f"{counts['unfired']} ended unfired, {counts['pending']} pending")


def thread_figures(watch, pointer):
    thread = pointer.Dereference()
    ended = " (ended)" if watch.number_of(thread, "m_bHasEnded") else ""
    counts = watch.counts(number(pointer))
    yield (f"thread{ended} \"{text_of(field(thread, 'm_szName'))}\": "
           f"{counts_text(counts) if counts else 'no queue'}")
    if watch.number_of(thread, "m_dwStart") != watch.start:
        return
    current = watch.number_of(thread, "m_pCurrent")
    if current:
        yield (f"  runs {watch.class_text(current)} "
               f"since {moment_text(watch.number_of(thread, 'm_llCurrentStart'))}")
    for label, member, total in (("run", "m_Run", "m_ullInEvents"), ("waited", "m_Waited", None),
                                 ("timers late", "m_Late", "m_ullInTimers"),
                                 ("sends blocked", "m_Sends", None)):
        count, lengths = spread(field(thread, member))
        if count:
            took = f", {watch.number_of(thread, total)} us in all" if total else ""
            slowest = watch.number_of(thread, "m_pLongest") if member == "m_Run" else 0
            longest = f", longest {watch.class_text(slowest)}" if slowest else ""
            yield f"  {label}: {count}{took}, {lengths}{longest}"


def figures(debugger, _command, context, result, _memory):
    """kelto-figures: what the watch has counted of each thread, and what it runs since when. Of a
    process whose watch is on or was on, or of its core file; the library needs its debug
    information. The times are the median, 99 of 100, 999 of 1000 and the longest. What the threads
    did last is in the recorder's file, whose path comes first."""
    try:
        watch = Watch(context.GetTarget())
        record = watch.record()
    except LookupError as error:
        result.SetError(str(error))
        return
    if watch.start == 0:
        result.AppendMessage("the watch was never on")
        return
    result.AppendMessage(f"the watch {'is on' if watch.is_on() else 'was on'}, "
                         f"recorder: {record or 'no file'}")
    for pointer in watch.chain("m_pThreads"):
        for line in thread_figures(watch, pointer):
            result.AppendMessage(line)
    counts = watch.counts(0)
    if counts:
        result.AppendMessage(f"queues without a thread: {counts_text(counts)}")


def __lldb_init_module(debugger, _memory):
    module = __name__
    add = f"type summary add --category kelto_util --python-function {module}"
    for name, summary in SUMMARIES.items():
        debugger.HandleCommand(f"{add}.{summary.__name__} --skip-pointers {name}")
    for name in INTERFACES:
        debugger.HandleCommand(f'{add}.interface --skip-references "{name} *"')
    debugger.HandleCommand("type category enable kelto_util")
    debugger.HandleCommand(f"command script add --function {module}.workers kelto-workers")
    debugger.HandleCommand(f"command script add --function {module}.figures kelto-figures")
