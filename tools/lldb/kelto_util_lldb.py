"""kelto_util in lldb: time values, event queues, timer queues, workers and chains of message blocks
show a line of what they hold, also through a pointer to their interface, and kelto-workers lists the
workers of a process or of a core file. To load it, also from ~/.lldbinit:

    command script import kelto_util_lldb.py
"""

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


def __lldb_init_module(debugger, _memory):
    module = __name__
    add = f"type summary add --category kelto_util --python-function {module}"
    for name, summary in SUMMARIES.items():
        debugger.HandleCommand(f"{add}.{summary.__name__} --skip-pointers {name}")
    for name in INTERFACES:
        debugger.HandleCommand(f'{add}.interface --skip-references "{name} *"')
    debugger.HandleCommand("type category enable kelto_util")
    debugger.HandleCommand(f"command script add --function {module}.workers kelto-workers")
