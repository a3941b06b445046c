# SPDX-License-Identifier: MIT
"""vokt in gdb: pretty-printers for the library's types and for any object whose class is
known, and `vokt` commands that read the runtime's own state.

Installed, gdb loads this file by itself with libvokt.so.1 (from its auto-load folder); from
the source tree, `source gdb/vokt_gdb.py`. The printers only read memory, so they work on a
core file as on a live process. What they cannot trust (a null, freed or overwritten object)
prints as such; texts and children are cut, and no walk goes on for ever.
"""

import struct

import gdb

TEXT_CAP = 200  # characters of a text shown
CHILDREN_CAP = 100  # elements of a container shown
WALK_CAP = 100000  # links followed in a chain
NAME_CAP = 64  # a class name longer than this is not one

# ---- Reading memory that may not be there


def _read(address, size):
    """size bytes at address, or None where they cannot be read."""
    if not address or size <= 0:
        return None
    try:
        return bytes(gdb.selected_inferior().read_memory(address, size))
    except (gdb.MemoryError, gdb.error, OverflowError, ValueError):
        return None


def _pointer_size():
    return gdb.lookup_type("void").pointer().sizeof


def _byte_order():
    return "big" if "big" in gdb.execute("show endian", to_string=True) else "little"


def _unsigned(address, size):
    raw = _read(address, size)
    return None if raw is None else int.from_bytes(raw, _byte_order())


def _signed(address, size):
    raw = _read(address, size)
    return None if raw is None else int.from_bytes(raw, _byte_order(), signed=True)


def _word(address):
    return _unsigned(address, _pointer_size())


def _text(address, cap=TEXT_CAP):
    """(text, whole) of the NUL-ended text at address, at most cap bytes; None if unreadable."""
    out = bytearray()
    while len(out) < cap:
        chunk = _read(address + len(out), min(64, cap - len(out))) or _read(address + len(out), 1)
        if chunk is None:
            return None if not out else (out.decode("utf-8", "replace"), False)
        end = chunk.find(b"\0")
        if end >= 0:
            return (bytes(out + chunk[:end]).decode("utf-8", "replace"), True)
        out += chunk
    return (out.decode("utf-8", "replace"), False)


def _quoted(text, whole=True):
    escaped = text.replace("\\", "\\\\").replace('"', '\\"').replace("\n", "\\n").replace("\t", "\\t")
    return '"' + escaped + '"' + ("" if whole else "...")


# ---- Layouts: from the program's debug information where it has them, else LP64's

_OFFSETS = {
    "String": {"bIsSet": 8, "string": 16, "length": 24},
    "Vector": {"size": 8, "capacity": 16, "bSynchronized": 32, "mutex": 40, "bOwnsElements": 48, "data": 56},
    "ObjectSet": {"bucketCount": 8, "usedBuckets": 12, "buckets": 16},
    "StringMap": {"entries": 8, "count": 16},
    "StringMapEntry": {"key": 8, "value": 16, "_size": 24},
    "StringBag": {"elements": 8},
    "StringBagElem": {"string": 8, "count": 16},
    "CodeName": {"words": 8},
    "MemBlock": {"data": 8},
    "Error": {"message": 8, "detail": 16, "code": 28, "priority": 36},
}


def _offset(type_name, field):
    try:
        t = gdb.lookup_type(type_name)
        if field == "_size":
            return t.sizeof
        for f in t.fields():
            if f.name == field:
                return f.bitpos // 8
    except gdb.error:
        pass
    return _OFFSETS[type_name][field]


def _member(address, type_name, field, size=None):
    return _unsigned(address + _offset(type_name, field), size or _pointer_size())


# ---- Objects, by the class their descriptor names


def class_name(address):
    """The class name of the object at address, or None when it cannot be an object."""
    descriptor = _word(address)
    if not descriptor:
        return None
    name_at = _word(descriptor + 8)  # ClassDescriptor: a 64-bit size, then the name
    got = _text(name_at, NAME_CAP) if name_at else None
    if not got or not got[1] or not got[0] or not all(32 < ord(c) < 127 for c in got[0]):
        return None
    return got[0]


def _corrupted(address, what="object"):
    return "<corrupted or freed %s at 0x%x>" % (what, address)


def describe_string(address):
    is_set = _signed(address + _offset("String", "bIsSet"), 4)
    text_at = _member(address, "String", "string")
    length = _member(address, "String", "length", 8)
    if is_set is None or length is None or is_set not in (0, 1) or length > 0x7FFFFFFF:
        return _corrupted(address, "String")
    if not is_set:
        return "String unset" if not text_at and length == 0 else _corrupted(address, "String")
    got = _text(text_at, min(length, TEXT_CAP) + 1) if text_at else None
    if got is None:
        return _corrupted(address, "String")
    return "String %s (length %d)" % (_quoted(got[0], got[1] or length <= TEXT_CAP), length)


def _vector_fields(address):
    size = _signed(address + _offset("Vector", "size"), 8)
    capacity = _signed(address + _offset("Vector", "capacity"), 8)
    data = _member(address, "Vector", "data")
    if size is None or capacity is None or not 0 <= size <= capacity < 1 << 40 or (size and not data):
        return None
    return size, data


def describe_vector(address):
    fields = _vector_fields(address)
    if fields is None:
        return _corrupted(address, "Vector")
    flags = []
    if _signed(address + _offset("Vector", "bOwnsElements"), 4):
        flags.append("owning")
    if _signed(address + _offset("Vector", "bSynchronized"), 4):
        flags.append("synchronised")
    return "Vector of %d%s" % (fields[0], " (%s)" % ", ".join(flags) if flags else "")


def vector_elements(address):
    fields = _vector_fields(address)
    if fields is None:
        return
    size, data = fields
    for i in range(min(size, CHILDREN_CAP)):
        yield "[%d]" % i, describe(_word(data + i * _pointer_size()), nested=True)


def _set_members(address):
    count = _signed(address + _offset("ObjectSet", "bucketCount"), 4)
    buckets = _member(address, "ObjectSet", "buckets")
    if count is None or not buckets or not 0 < count <= 1 << 30:
        return None
    members, steps = [], 0
    for i in range(count):
        entry = _word(buckets + i * _pointer_size())
        if entry is None:
            return None
        while entry and steps < WALK_CAP and len(members) < CHILDREN_CAP:
            steps += 1
            members.append(_word(entry))  # ObjectSetEntry: the object, then the next entry
            entry = _word(entry + _pointer_size())
        if steps >= WALK_CAP or len(members) >= CHILDREN_CAP:
            break
    return members


def describe_set(address):
    used = _signed(address + _offset("ObjectSet", "usedBuckets"), 4)
    count = _signed(address + _offset("ObjectSet", "bucketCount"), 4)
    members = _set_members(address)
    if members is None or used is None:
        return _corrupted(address, "ObjectSet")
    shown = len(members)
    return "ObjectSet of %s%d (%d of %d buckets used)" % ("at least " if shown >= CHILDREN_CAP else "", shown, used, count)


def set_members(address):
    for i, member in enumerate(_set_members(address) or []):
        yield "[%d]" % i, describe(member, nested=True)


def _map_entries(address):
    count = _signed(address + _offset("StringMap", "count"), 4)
    entries = _member(address, "StringMap", "entries")
    if count is None or count < 0 or (count and not entries):
        return None
    size = _offset("StringMapEntry", "_size")
    pairs = []
    for i in range(min(count, CHILDREN_CAP)):
        at = entries + i * size
        key, value = _text(_member(at, "StringMapEntry", "key") or 0), _text(_member(at, "StringMapEntry", "value") or 0)
        pairs.append((_quoted(*key) if key else "<unreadable>", _quoted(*value) if value else "<unreadable>"))
    return count, pairs


def _bag_elements(address):
    elements = _member(address, "StringBag", "elements")
    fields = _vector_fields(elements) if elements else None
    if fields is None:
        return None
    size, data = fields
    out = []
    for i in range(min(size, CHILDREN_CAP)):
        element = _word(data + i * _pointer_size())
        string = _member(element, "StringBagElem", "string") if element else None
        count = _unsigned(element + _offset("StringBagElem", "count"), 4) if element else None
        out.append((describe(string, nested=True) if string else "<unreadable>", count))
    return size, out


def _as_map(name, read):
    """A map-like class's line and its key = value children, from read(address): its
    count and its first pairs, or None when it cannot be read."""

    def line(address):
        got = read(address)
        return _corrupted(address, name) if got is None else "%s of %d" % (name, got[0])

    def children(address):
        got = read(address)
        for i, (key, value) in enumerate(got[1] if got else []):
            yield "[k%d]" % i, key
            yield "[v%d]" % i, str(value)

    return line, children


describe_map, map_entries = _as_map("StringMap", _map_entries)
describe_bag, bag_elements = _as_map("StringBag", _bag_elements)


def describe_codename(address):
    at = address + _offset("CodeName", "words")
    low, high = _unsigned(at, 4), _unsigned(at + 4, 4)
    if low is None or high is None:
        return _corrupted(address, "CodeName")
    code, name = high << 32 | low, ""
    for block in range(10):
        value = code >> (6 * block) & 63
        if not value:
            break
        name += chr(ord("A") + value - 1) if value <= 26 else chr(ord("a") + value - 27) if value <= 52 else \
            chr(ord("0") + value - 53) if value <= 62 else "_"
    return "CodeName %s (0x%x)" % (_quoted(name), code)


def describe_memblock(address):
    data = _member(address, "MemBlock", "data")
    if data is None:
        return _corrupted(address, "MemBlock")
    if not data:
        return "MemBlock without a buffer"
    # The block keeps no size: glibc's chunk header before the buffer gives the usable room.
    header = _word(data - _pointer_size())
    first = _read(data, 16) or b""
    room = ""
    if header is not None and header & ~7:
        room = " of %d usable bytes" % ((header & ~7) - (2 if header & 2 else 1) * _pointer_size())
    return "MemBlock at 0x%x%s: %s" % (data, room, " ".join("%02x" % b for b in first) or "unreadable")


def describe_error(address):
    code = _signed(address + _offset("Error", "code"), 4)
    priority = _signed(address + _offset("Error", "priority"), 4)
    message = _member(address, "Error", "message")
    detail = _member(address, "Error", "detail")
    if code is None or priority is None:
        return _corrupted(address, "Error")
    text = "Error %d, priority %d: %s" % (code, priority, describe(message, nested=True) if message else "no message")
    return text + (", detail %s" % describe(detail, nested=True) if detail else "")


_DESCRIBE = {
    "String": describe_string,
    "Vector": describe_vector,
    "Set": describe_set,
    "StringMap": describe_map,
    "StringBag": describe_bag,
    "CodeName": describe_codename,
    "MemBlock": describe_memblock,
    "Error": describe_error,
}
_CHILDREN = {"Vector": vector_elements, "Set": set_members, "StringMap": map_entries, "StringBag": bag_elements}
_MAPS = ("StringMap", "StringBag")


def describe(address, nested=False):
    """One line for the object at address, whatever its class."""
    if address is None:
        return "<unreadable>"
    if not address:
        return "null"
    name = class_name(address)
    if name is None:
        return _corrupted(address)
    shown = _DESCRIBE.get(name)
    text = shown(address) if shown else "%s object" % name
    return ("0x%x %s" % (address, text)) if nested or not shown else text


class ObjectPrinter:
    """An object of any class, dispatched on the class its descriptor names."""

    def __init__(self, address, pointer=False):
        self.address = address
        self.pointer = pointer
        self.name = class_name(address) if address else None

    def to_string(self):
        if self.pointer:
            return describe(self.address, nested=True)
        return describe(self.address)

    def children(self):
        walk = _CHILDREN.get(self.name)
        return walk(self.address) if walk else iter(())

    def display_hint(self):
        return "map" if self.name in _MAPS else None


# ---- The sync types: plain records, by their type


def _thread_of(pthread):
    """gdb's name for the thread with this pthread_t: "thread 2 (LWP 123 "worker")"."""
    for thread in gdb.selected_inferior().threads():
        try:
            handle = int.from_bytes(thread.handle(), _byte_order())
        except (gdb.error, AttributeError, TypeError):
            continue
        if handle == pthread:
            name = thread.name or ""
            return "thread %d (LWP %d%s)" % (thread.num, thread.ptid[1], ' "%s"' % name if name else "")
    return "thread 0x%x, not running" % pthread


def _field(value, name):
    try:
        return value[name]
    except gdb.error:
        return None


class MutexPrinter:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        try:
            owner, depth = int(self.value["owner"]), int(self.value["spinCount"])
        except (gdb.error, gdb.MemoryError):
            return "<unreadable Mutex>"
        if depth == 0 and owner == 0:
            return "Mutex free"
        if depth < 0:
            return "Mutex free, unlocked %d time%s too many" % (-depth, "" if depth == -1 else "s")
        return "Mutex held by %s, depth %d" % (_thread_of(owner), depth)


class SignalPrinter:
    """A Condition or an Event: set or not."""

    def __init__(self, value, kind):
        self.value, self.kind = value, kind

    def to_string(self):
        try:
            return "%s %s" % (self.kind, "set" if int(self.value["bSignalled"]) else "not set")
        except (gdb.error, gdb.MemoryError):
            return "<unreadable %s>" % self.kind


class CounterPrinter:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        try:
            count, idle = int(self.value["value"]), int(self.value["zeroEvent"]["bSignalled"])
        except (gdb.error, gdb.MemoryError):
            return "<unreadable Counter>"
        return "Counter %d (%s)" % (count, "idle" if idle else "busy")


class ThreadPrinter:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        try:
            pthread, joinable = int(self.value["id"]), int(self.value["bIsJoinable"])
        except (gdb.error, gdb.MemoryError):
            return "<unreadable Thread>"
        return "Thread: %s, %s" % (_thread_of(pthread), "joinable" if joinable else "detached")


_SYNC = {
    "Mutex": MutexPrinter,
    "Condition": lambda v: SignalPrinter(v, "Condition"),
    "Event": lambda v: SignalPrinter(v, "Event"),
    "Counter": CounterPrinter,
    "Thread": ThreadPrinter,
}


def _is_object_type(struct_type):
    fields = struct_type.fields()
    return bool(fields) and fields[0].name == "ftbl"


def lookup(value):
    """The printer for a value, or None to leave it to gdb."""
    try:
        t = value.type.strip_typedefs()
        if t.code == gdb.TYPE_CODE_PTR:
            target = t.target().strip_typedefs()
            if target.code == gdb.TYPE_CODE_STRUCT and _is_object_type(target):
                return ObjectPrinter(int(value), pointer=True)
            return None
        if t.code != gdb.TYPE_CODE_STRUCT:
            return None
        tag = t.tag or t.name
        if tag in _SYNC:
            return _SYNC[tag](value)
        if _is_object_type(t) and value.address is not None:
            return ObjectPrinter(int(value.address))
    except (gdb.error, gdb.MemoryError, RuntimeError):
        return None
    return None


# ---- Commands


_SYMBOLS = {}  # file name: {symbol name: file address}, read once


def _file_symbols(path):
    """The defined symbols of an ELF file's own table (or its dynamic one), by name."""
    if path in _SYMBOLS:
        return _SYMBOLS[path]
    table = {}
    try:
        with open(path, "rb") as f:
            data = f.read()
        if data[:4] != b"\x7fELF":
            raise ValueError
        wide, order = data[4] == 2, "<" if data[5] == 1 else ">"
        shoff = struct.unpack_from(order + ("Q" if wide else "I"), data, 0x28 if wide else 0x20)[0]
        shentsize, shnum = struct.unpack_from(order + "HH", data, 0x3A if wide else 0x2E)
        header = order + ("IIQQQQIIQQ" if wide else "IIIIIIIIII")
        sections = [struct.unpack_from(header, data, shoff + i * shentsize) for i in range(shnum)]
        for wanted in (2, 11):  # SHT_SYMTAB, else SHT_DYNSYM
            for sh in sections:
                if sh[1] != wanted:
                    continue
                strings = sections[sh[6]]
                entry = order + ("IBBHQQ" if wide else "IIIBBH")
                size = 24 if wide else 16
                for at in range(sh[4], sh[4] + sh[5] - size + 1, size):
                    fields = struct.unpack_from(entry, data, at)
                    name, value, index = (fields[0], fields[4], fields[3]) if wide else (fields[0], fields[1], fields[5])
                    if index and name:
                        end = data.index(b"\0", strings[4] + name)
                        table.setdefault(data[strings[4] + name:end].decode("ascii", "replace"), value)
            if table:
                break
    except (OSError, ValueError, IndexError, struct.error):
        table = {}
    _SYMBOLS[path] = table
    return table


def _static(name):
    """The address of one of the library's file-level variables (in its anonymous namespace),
    read from the symbol table of the file that holds the library, or None. Not from the
    debug information: an optimised build may describe such a variable without its place."""
    mangled = "_ZN12_GLOBAL__N_1%d%sE" % (len(name), name)
    try:
        anchor = int(gdb.parse_and_eval("(unsigned long)&Runtime_Init"))
    except gdb.error:
        return None
    for objfile in gdb.objfiles():
        symbols = _file_symbols(objfile.filename) if objfile.filename else {}
        if "Runtime_Init" not in symbols:  # not the file that holds the library
            continue
        # Link-time optimisation may add a suffix (".lto_priv.0") to such a name.
        found = [value for key, value in symbols.items() if key == mangled or key.startswith(mangled + ".lto_priv.")]
        if len(found) == 1:
            return anchor - symbols["Runtime_Init"] + found[0]
    return None


def _needs_symbols(what):
    print("vokt %s: libvokt's debug symbols are not loaded (install libvokt1-dbgsym)" % what)


class VoktCommand(gdb.Command):
    """Commands that read vokt's own state: vokt errors, vokt error REF, vokt log, vokt mutexes, vokt leaks."""

    def __init__(self):
        super().__init__("vokt", gdb.COMMAND_DATA, gdb.COMPLETE_NONE, True)


class ErrorsCommand(gdb.Command):
    """Every live reference of the error store, with its error."""

    def __init__(self):
        super().__init__("vokt errors", gdb.COMMAND_DATA)

    def invoke(self, argument, from_tty):
        at = _static("global_error_store")
        if at is None:
            return _needs_symbols("errors")
        address = _word(at)
        if not address:
            return print("the error store is empty (nothing stored yet)")
        fields = _vector_fields(address)
        if fields is None:
            return print(_corrupted(address, "error store"))
        size, data = fields
        live = 0
        for i in range(size):
            error = _word(data + i * _pointer_size())
            if error:
                live += 1
                print("0x%08x: %s" % (0x40000000 | (i + 1), describe(error)))
        print("%d live reference%s in %d slots" % (live, "" if live == 1 else "s", size))


class ErrorCommand(gdb.Command):
    """One error reference decoded: vokt error REF."""

    def __init__(self):
        super().__init__("vokt error", gdb.COMMAND_DATA)

    def invoke(self, argument, from_tty):
        try:
            ref = int(gdb.parse_and_eval(argument)) & 0xFFFFFFFF
        except gdb.error as e:
            raise gdb.GdbError("vokt error REF: %s" % e)
        ref = ref - (1 << 32) if ref & 0x80000000 else ref
        if ref == -2:
            return print("-2: out of memory (the static record, never freed)")
        if ref & 0x40000000 != 0x40000000 or ref < 0:
            return print("%d: a plain code, not a stored error" % ref)
        at = _static("global_error_store")
        if at is None:
            return _needs_symbols("error")
        index = (ref & 0x3FFFFFFF) - 1
        store = _word(at)
        fields = _vector_fields(store) if store else None
        if fields is None or not 0 <= index < fields[0]:
            return print("0x%08x: no such slot in the error store (stale or never made)" % ref)
        error = _word(fields[1] + index * _pointer_size())
        print("0x%08x: %s" % (ref, describe(error) if error else "an empty slot (taken or combined)"))


class LogCommand(gdb.Command):
    """The log's level, file and size limit."""

    def __init__(self):
        super().__init__("vokt log", gdb.COMMAND_DATA)

    def invoke(self, argument, from_tty):
        at = {name: _static(name) for name in ("g_threshold", "g_logPath", "g_maxSizeKB")}
        if None in at.values():
            return _needs_symbols("log")
        level, path, limit = _signed(at["g_threshold"], 4), _word(at["g_logPath"]), _signed(at["g_maxSizeKB"], 4)
        print("level: %s" % ("not set yet (read from VOKT_DEBUG or VOKT_LOGGING at the first log call)" if level is None or level < 0 else level))
        print("file: %s" % (describe(path) if path else '"vokt.log" (the default)'))
        print("size limit: %s KB" % limit)


class MutexesCommand(gdb.Command):
    """With the `locks` check on: the vokt Mutexes each thread holds, in the order taken."""

    def __init__(self):
        super().__init__("vokt mutexes", gdb.COMMAND_DATA)

    def invoke(self, argument, from_tty):
        selected = gdb.selected_thread()
        held_any = False
        try:
            for thread in gdb.selected_inferior().threads():
                thread.switch()
                try:
                    part = gdb.parse_and_eval("vokt::t_checkThread")
                except gdb.error:
                    return _needs_symbols("mutexes")
                if not int(part):
                    continue
                count = int(part["heldCount"])
                for i in range(max(0, min(count, 32))):
                    taken = part["held"][i]
                    held_any = True
                    print("thread %d (LWP %d) holds Mutex 0x%x%s, depth %d" % (
                        thread.num, thread.ptid[1], int(taken["mutex"]), _symbol_of(int(taken["mutex"])), int(taken["depth"])))
        finally:
            if selected is not None:
                selected.switch()
        if not held_any:
            print("no thread holds a vokt Mutex that the locks check saw (is VOKT_CHECK=locks on?)")


def _symbol_of(address):
    try:
        symbol = gdb.execute("info symbol 0x%x" % address, to_string=True).strip()
    except gdb.error:
        return ""
    return "" if symbol.startswith("No symbol") else " (%s)" % symbol.split(" in section")[0]


class LeaksCommand(gdb.Command):
    """With the `leaks` check on, in a live process: the leak report, on the program's standard error."""

    def __init__(self):
        super().__init__("vokt leaks", gdb.COMMAND_DATA)

    def invoke(self, argument, from_tty):
        if not gdb.selected_inferior().pid:
            raise gdb.GdbError("vokt leaks: the report is made by the running process; start it first")
        try:
            count = int(gdb.parse_and_eval("(long)Runtime_ReportLeaks(0)"))
        except gdb.error as e:
            raise gdb.GdbError("vokt leaks: %s" % e)
        print("the leaks check is off (VOKT_CHECK=leaks)" if count < 0 else "%d objects and blocks alive (listed on the program's standard error)" % count)


def register(objfile=None):
    """Installs the printers (for objfile, or everywhere) and the commands, once."""
    if getattr(gdb, "_vokt_printers_loaded", False):
        return
    gdb._vokt_printers_loaded = True
    (objfile.pretty_printers if objfile is not None else gdb.pretty_printers).append(lookup)
    for command in (VoktCommand, ErrorsCommand, ErrorCommand, LogCommand, MutexesCommand, LeaksCommand):
        command()


register(gdb.current_objfile())
