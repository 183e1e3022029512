"""Reads the agent's three binary files, to the last byte.

Typed from the documented layouts alone: it shares nothing with the agent, so that a mistake in a header of the
agent cannot be made a second time here. Whatever a healthy agent never writes is damage: a torn or unknown
record, a reserved field that is not zero, a name that goes on behind its terminator.
"""

import struct
from collections import namedtuple

MAGIC = 0xFFFFFFFFFFFFFFFF
NOT_ENDED = 0xFFFFFFFFFFFFFFFF
ALL_ONES = 0xFFFFFFFFFFFFFFFF
FILE_HEADER_SIZE = 24

# trace records
PTHREAD, SYSCALL, PROC, THREAD_END = 1, 3, 4, 7
# kinds of pthread records
LOCK_MUTEX, WAIT_CV, LOCK_RW, LOCK_SPIN, WAIT_BARRIER, WAIT_SEMAPHORE = 1, 3, 5, 7, 9, 10
CREATE, JOIN, EXIT, CANCEL = 12, 13, 14, 16
PTHREAD_KINDS = {LOCK_MUTEX, WAIT_CV, LOCK_RW, LOCK_SPIN, WAIT_BARRIER, WAIT_SEMAPHORE,
                 CREATE, JOIN, EXIT, CANCEL}
SYSCALL_KINDS = {1, 2, 3, 4, 5, 6}
# sample records
SAMPLE_PROC, SAMPLE, SAMPLE_METADATA, SAMPLE_THREAD_END = 1, 3, 4, 5
FLAG_CALL_STACKS, FLAG_COUNTERS = 1, 2

FileHeader = namedtuple("FileHeader", "magic pid rank version reserved1 reserved2")
MetaHeader = namedtuple("MetaHeader", "magic pid reserved version")
TraceRecord = namedtuple(
    "TraceRecord",
    "type size kind flags start end pid tid offset lock function region result value handle name",
    defaults=(None,) * 7,
)
SampleRecord = namedtuple(
    "SampleRecord",
    "type size pid tid core flags start offset handle name region stack events",
    defaults=(None,) * 5,
)
CounterValue = namedtuple("CounterValue", "count enabled running id")
MmapRecord = namedtuple(
    "MmapRecord", "type size pid start end time path_length is_code reserved1 reserved2 path")

_FILE_HEADER = struct.Struct("<QiiHHI")
_META_HEADER = struct.Struct("<QIHH")
_TRACE_HEADER = struct.Struct("<HHHHQQii")
_PTHREAD_BODY = struct.Struct("<QQQiHH")
_SYSCALL_BODY = struct.Struct("<QQQH6s")
_PROC_BODY = struct.Struct("<QI32s4s")
_THREAD_END_BODY = struct.Struct("<Q")
_SAMPLE_HEADER = struct.Struct("<iiHHHHQ")
_IP_BODY = struct.Struct("<QII")
_EVENTS_HEAD = struct.Struct("<II")
_COUNTER_VALUE = struct.Struct("<QQQQ")
_META_RECORD = struct.Struct("<HHIQQQHBBI")


class Damaged(Exception):
    """A file that a reader cannot follow to its end."""

    def __init__(self, path, offset, reason):
        super().__init__(f"{path}: byte {offset}: {reason}")
        self.offset = offset
        self.reason = reason


class _File:
    def __init__(self, path):
        self.path = path
        with open(path, "rb") as file:
            self.data = file.read()

    def need(self, offset, size, what):
        if offset + size > len(self.data):
            raise Damaged(self.path, offset, f"{what} of {size} bytes, {len(self.data) - offset} are left")

    def check(self, condition, offset, reason):
        if not condition:
            raise Damaged(self.path, offset, reason)

    def name(self, raw, offset):
        text, _, rest = raw.partition(b"\0")
        self.check(not rest.strip(b"\0"), offset, f"bytes behind the name's end: {raw!r}")
        return text


def _file_header(file):
    file.need(0, FILE_HEADER_SIZE, "file header")
    header = FileHeader._make(_FILE_HEADER.unpack_from(file.data, 0))
    file.check(header.magic == MAGIC, 0, f"magic number {header.magic:#x}")
    file.check(header.version == 2, 16, f"file version {header.version}")
    file.check(header.reserved1 == 0 and header.reserved2 == 0, 18, "reserved bytes in the file header")
    return header


def _pthread_record(file, head, offset):
    lock, function, region, result, stack_size, padding = _PTHREAD_BODY.unpack_from(file.data, offset + 32)
    file.check(head[2] in PTHREAD_KINDS, offset, f"pthread kind {head[2]}")
    file.check(head[3] == 0, offset, f"flags {head[3]} of a pthread record")
    file.check(stack_size == 0 and padding == 0, offset + 60, "call stack or padding of a pthread record")
    return TraceRecord(*head, offset, lock, function, region, result)


def _syscall_record(file, head, offset):
    function, region, value, stack_size, padding = _SYSCALL_BODY.unpack_from(file.data, offset + 32)
    file.check(head[2] in SYSCALL_KINDS, offset, f"system-call kind {head[2]}")
    file.check(head[3] in (0, 1), offset, f"flags {head[3]} of a system-call record")
    file.check(stack_size == 0 and not padding.strip(b"\0"), offset + 56, "call stack or padding")
    return TraceRecord(*head, offset, None, function, region, None, value)


def _proc_record(file, head, offset):
    handle, reserved, name, padding = _PROC_BODY.unpack_from(file.data, offset + 32)
    file.check(head[2] == 0 and head[3] == 0, offset, f"kind {head[2]}, flags {head[3]} of a proc record")
    file.check(head[5] == 0, offset + 16, f"end time {head[5]} of a proc record")
    file.check(reserved == 0 and not padding.strip(b"\0"), offset + 40, "reserved bytes of a proc record")
    return TraceRecord(*head, offset, handle=handle, name=file.name(name, offset + 44))


def _thread_end_record(file, head, offset):
    (handle,) = _THREAD_END_BODY.unpack_from(file.data, offset + 32)
    file.check(head[2] == 0 and head[3] == 0, offset, f"kind {head[2]}, flags {head[3]} of a thread end")
    file.check(head[4] == head[5], offset, f"thread end starts at {head[4]} and ends at {head[5]}")
    return TraceRecord(*head, offset, handle=handle)


_TRACE_RECORDS = {
    PTHREAD: (64, _pthread_record),
    SYSCALL: (64, _syscall_record),
    PROC: (80, _proc_record),
    THREAD_END: (40, _thread_end_record),
}


def iterate_trace(path):
    """Yields the file header, then every record. Ends exactly at the end of the file, or raises Damaged."""
    file = _File(path)
    header = _file_header(file)
    yield header
    offset, end = FILE_HEADER_SIZE, len(file.data)
    while offset < end:
        file.need(offset, 32, "record header")
        head = _TRACE_HEADER.unpack_from(file.data, offset)
        size, read_body = _TRACE_RECORDS.get(head[0], (None, None))
        file.check(size is not None, offset, f"record type {head[0]}")
        file.check(head[1] == size, offset + 2, f"size {head[1]} of a record of type {head[0]}")
        file.need(offset, size, "record")
        file.check(head[6] == header.pid, offset + 24, f"process id {head[6]}, the file's is {header.pid}")
        if head[0] in (PTHREAD, SYSCALL):
            file.check(head[5] >= head[4], offset + 8, f"start {head[4]} behind end {head[5]}")
        yield read_body(file, head, offset)
        offset += size


def read_trace(path):
    """The file header and the list of all records."""
    header, *trace_records = iterate_trace(path)
    return header, trace_records


def _sample_proc(file, head, offset):
    file.check(head[3] == 72, offset + 10, f"size {head[3]} of a sample proc record")
    handle, reserved, name, padding = _PROC_BODY.unpack_from(file.data, offset + 24)
    file.check(reserved == 0 and not padding.strip(b"\0"), offset + 32, "reserved bytes of a proc record")
    return {"handle": handle, "name": file.name(name, offset + 36)}


def _sample_thread_end(file, head, offset):
    file.check(head[3] == 32, offset + 10, f"size {head[3]} of a sample thread end")
    file.check(head[5] == 0, offset + 14, f"flags {head[5]} of a sample thread end")
    return {"handle": _THREAD_END_BODY.unpack_from(file.data, offset + 24)[0]}


def _sample_metadata(file, head, offset):
    count, reserved = _EVENTS_HEAD.unpack_from(file.data, offset + 24)
    file.check(head[3] == 32 + 8 * count, offset + 10, f"size {head[3]} with {count} events")
    file.check(reserved == 0, offset + 28, "reserved bytes of the metadata record")
    file.check(head[4] == 0 and head[6] == 0, offset + 12, "core or time of the metadata record")
    return {"events": struct.unpack_from(f"<{count}Q", file.data, offset + 32)}


def _sample(file, head, offset):
    region, reserved, depth = _IP_BODY.unpack_from(file.data, offset + 24)
    file.check(reserved == 0 and depth >= 1, offset + 32, f"call stack of {depth} entries")
    stack_end = 40 + 8 * depth
    file.check(stack_end <= head[3], offset + 36, f"{depth} stack entries in {head[3]} bytes")
    stack = struct.unpack_from(f"<{depth}Q", file.data, offset + 40)
    events = None
    if head[5] & FLAG_COUNTERS:
        file.check(stack_end + 8 <= head[3], offset, "no room for the counter values")
        count, reserved = _EVENTS_HEAD.unpack_from(file.data, offset + stack_end)
        file.check(reserved == 0, offset + stack_end + 4, "reserved bytes of the counter values")
        stack_end += 8 + 32 * count
        file.check(stack_end == head[3], offset + 10, f"size {head[3]} with {count} counters")
        first = offset + stack_end - 32 * count
        events = [CounterValue._make(_COUNTER_VALUE.unpack_from(file.data, first + 32 * i))
                  for i in range(count)]
    file.check(stack_end == head[3], offset + 10, f"size {head[3]} with {depth} stack entries")
    return {"region": region, "stack": stack, "events": events}


_SAMPLE_RECORDS = {
    SAMPLE_PROC: _sample_proc,
    SAMPLE: _sample,
    SAMPLE_METADATA: _sample_metadata,
    SAMPLE_THREAD_END: _sample_thread_end,
}


def read_samples(path):
    """The file header and the list of all records of a sample file."""
    file = _File(path)
    header = _file_header(file)
    samples, offset = [], FILE_HEADER_SIZE
    while offset < len(file.data):
        file.need(offset, 24, "record header")
        head = _SAMPLE_HEADER.unpack_from(file.data, offset)
        read_body = _SAMPLE_RECORDS.get(head[2])
        file.check(read_body is not None, offset + 8, f"sample record type {head[2]}")
        file.check(head[3] >= 32, offset + 10, f"size {head[3]} of a sample record")
        file.need(offset, head[3], "record")
        file.check(head[0] == header.pid, offset, f"process id {head[0]}, the file's is {header.pid}")
        body = read_body(file, head, offset)
        samples.append(SampleRecord(head[2], head[3], head[0], head[1], *head[4:], offset, **body))
        offset += head[3]
    return header, samples


def read_metadata(path):
    """The file header and the list of all records of a metadata file."""
    file = _File(path)
    file.need(0, 16, "file header")
    header = MetaHeader._make(_META_HEADER.unpack_from(file.data, 0))
    file.check(header.magic == MAGIC, 0, f"magic number {header.magic:#x}")
    file.check(header.version == 1 and header.reserved == 0, 12, "version or reserved bytes of the header")
    maps, offset = [], 16
    while offset < len(file.data):
        file.need(offset, 41, "record")
        fields = _META_RECORD.unpack_from(file.data, offset)
        kind, size, length = fields[0], fields[1], fields[6]
        file.check(kind == 0, offset, f"metadata record type {kind}")
        file.check(size == 41 + length, offset + 2, f"size {size} with a path of {length} bytes")
        file.need(offset, size, "record")
        file.check(fields[7:] == (1, 0, 0), offset + 34, f"code flag and reserved bytes {fields[7:]}")
        path_bytes = file.data[offset + 40:offset + size]
        file.check(path_bytes.find(b"\0") == length, offset + 40, f"path {path_bytes!r}")
        maps.append(MmapRecord(*fields, path_bytes[:-1]))
        offset += size
    return header, maps
