"""The reader itself: whatever a healthy agent does not write, it reports, with the place."""

import struct

import pytest

import records

HEADER = struct.pack("<QiiHHI", records.MAGIC, 7, -1, 2, 0, 0)
META_HEADER = struct.pack("<QIHH", records.MAGIC, 7, 0, 1)


def trace_record(kind=1, size=64, sub=1, flags=0, start=5, end=9, pid=7, tid=8, body=None):
    return struct.pack("<HHHHQQii", kind, size, sub, flags, start, end, pid, tid) + (body or bytes(size - 32))


def read(tmp_path, data, reader=records.read_trace):
    path = tmp_path / "file"
    path.write_bytes(data)
    return reader(path)


def test_reads_every_kind_of_trace_record(tmp_path):
    pthread = trace_record(body=struct.pack("<QQQiHH", 0x1000, 0x2000, 3, -1, 0, 0))
    syscall = trace_record(kind=3, sub=2, flags=1, body=struct.pack("<QQQH6x", 202, 3, 4, 0))
    proc = trace_record(kind=4, size=80, sub=0, end=0, body=struct.pack("<QI32s4x", 5, 0, b"x" * 32))
    end = trace_record(kind=7, size=40, sub=0, start=9, body=struct.pack("<Q", 6))
    header, found = read(tmp_path, HEADER + pthread + syscall + proc + end)
    assert header == (records.MAGIC, 7, -1, 2, 0, 0)
    assert [(record.type, record.offset) for record in found] == [(1, 24), (3, 88), (4, 152), (7, 232)]
    assert (found[0].lock, found[0].function, found[0].region, found[0].result) == (0x1000, 0x2000, 3, -1)
    assert (found[1].function, found[1].region, found[1].value, found[1].flags) == (202, 3, 4, 1)
    assert (found[2].handle, found[2].name) == (5, b"x" * 32)
    assert found[3].handle == 6


def test_a_thread_name_of_exactly_32_bytes_has_no_terminating_zero(tmp_path):
    body = struct.pack("<QI32s4x", 5, 0, b"n" * 32)
    _, (trace_proc,) = read(tmp_path, HEADER + trace_record(kind=4, size=80, sub=0, end=0, body=body))
    _, (sample_proc,) = read(tmp_path, HEADER + sample_header(1, 72) + body, records.read_samples)
    assert trace_proc.name == sample_proc.name == b"n" * 32


def test_a_sample_with_a_call_stack_of_1_frame_and_2_counters_has_size_120(tmp_path):
    data = struct.pack("<QIIQ", 3, 0, 1, 0x1234) + struct.pack("<II8Q", 2, 0, *range(8))
    assert len(sample_header(3, 120) + data) == 120
    head = sample_header(3, 120, records.FLAG_COUNTERS)
    _, (sample,) = read(tmp_path, HEADER + head + data, records.read_samples)
    assert (sample.size, len(sample.stack), len(sample.events)) == (120, 1, 2)


def by_length(data):
    return f"{len(data)} bytes" if isinstance(data, bytes) else None


@pytest.mark.parametrize("data, offset", [
    (b"", 0),
    (HEADER[:-1], 0),
    (b"\0" + HEADER[1:], 0),
    (HEADER[:16] + b"\1" + HEADER[17:], 16),
    (HEADER[:20] + b"\1" + HEADER[21:], 18),
    (HEADER + trace_record()[:20], 24),
    (HEADER + trace_record()[:63], 24),
    (HEADER + trace_record() + bytes(64), 88),
    (HEADER + trace_record(kind=2), 24),
    (HEADER + trace_record(kind=8), 24),
    (HEADER + trace_record(size=72), 26),
    (HEADER + trace_record(sub=2), 24),
    (HEADER + trace_record(flags=1), 24),
    (HEADER + trace_record(start=10), 32),
    (HEADER + trace_record(pid=6), 48),
    (HEADER + trace_record(body=struct.pack("<QQQiHH", 1, 2, 3, 4, 1, 0)), 84),
    (HEADER + trace_record(kind=3, sub=7), 24),
    (HEADER + trace_record(kind=4, size=80, sub=0, end=1), 40),
    (HEADER + trace_record(kind=4, size=80, sub=0, end=0, body=struct.pack("<QI32s4x", 5, 0, b"a\0b")), 68),
    (HEADER + trace_record(kind=7, size=40, sub=0), 24),
], ids=by_length)
def test_reports_where_a_trace_is_damaged(tmp_path, data, offset):
    with pytest.raises(records.Damaged) as damage:
        read(tmp_path, data)
    assert damage.value.offset == offset


def sample_header(kind, size, flags=0, time=5, core=1):
    return struct.pack("<iiHHHHQ", 7, 8, kind, size, core, flags, time)


def test_reads_every_kind_of_sample_record(tmp_path):
    meta = sample_header(4, 48, 2, 0, 0) + struct.pack("<IIQQ", 2, 0, 11, 22)
    proc = sample_header(1, 72) + struct.pack("<QI32s4x", 5, 0, b"name")
    bare = sample_header(3, 48, 1) + struct.pack("<QIIQ", 3, 0, 1, 0x1234)
    counted = sample_header(3, 120, 2) + struct.pack("<QIIQII8Q", 3, 0, 1, 0x1234, 2, 0, *range(8))
    end = sample_header(5, 32) + struct.pack("<Q", 6)
    _, found = read(tmp_path, HEADER + meta + proc + bare + counted + end, records.read_samples)
    assert [record.type for record in found] == [4, 1, 3, 3, 5]
    assert found[0].events == (11, 22)
    assert (found[1].handle, found[1].name) == (5, b"name")
    assert (found[2].region, found[2].stack, found[2].events) == (3, (0x1234,), None)
    assert found[3].events == [(0, 1, 2, 3), (4, 5, 6, 7)]
    assert found[4].handle == 6


@pytest.mark.parametrize("data", [
    sample_header(2, 72) + bytes(48),
    sample_header(1, 64) + bytes(40),
    sample_header(3, 48) + struct.pack("<QIIQ", 3, 0, 2, 0),
    sample_header(3, 48) + struct.pack("<QIIQ", 3, 0, 0, 0),
    sample_header(3, 56) + struct.pack("<QIIQQ", 3, 0, 1, 0, 0),
    sample_header(5, 32, 1) + bytes(8),
    sample_header(5, 32) + bytes(4),
    sample_header(4, 40, 2, 1, 0) + struct.pack("<IIQ", 1, 0, 5),
], ids=by_length)
def test_reports_damaged_samples(tmp_path, data):
    with pytest.raises(records.Damaged):
        read(tmp_path, HEADER + data, records.read_samples)


def mmap_record(path=b"/lib/x.so!", size=None, length=None, code=1):
    length = len(path) if length is None else length
    size = 41 + len(path) if size is None else size
    return struct.pack("<HHIQQQHBBI", 0, size, 7, 1, 2, 3, length, code, 0, 0) + path + b"\0"


def test_an_mmap_record_of_a_10_byte_path_is_51_bytes_and_the_next_follows_immediately(tmp_path):
    data = META_HEADER + mmap_record() + mmap_record(b"/y")
    assert len(mmap_record()) == 51
    header, found = read(tmp_path, data, records.read_metadata)
    assert (header.pid, header.version) == (7, 1)
    assert [record.path for record in found] == [b"/lib/x.so!", b"/y"]


@pytest.mark.parametrize("data", [
    META_HEADER[:-1],
    META_HEADER + mmap_record()[:-1],
    META_HEADER + mmap_record(size=52) + b"\0",
    META_HEADER + mmap_record(length=9),
    META_HEADER + mmap_record(code=0),
    META_HEADER + mmap_record(b"/lib\0/x.so"),
    META_HEADER[:8] + bytes(8),
], ids=by_length)
def test_reports_damaged_metadata(tmp_path, data):
    with pytest.raises(records.Damaged):
        read(tmp_path, data, records.read_metadata)
