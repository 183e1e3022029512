"""`qelix dump` on files that the agent wrote, whole and damaged."""

import json
import os
import subprocess

import pytest

from conftest import QELIX, SUBJECT, dump, qelix


@pytest.fixture(scope="module")
def recorded(tmp_path_factory):
    """A session with 1,000 locks, and its trace file."""
    session = tmp_path_factory.mktemp("dump") / "session"
    assert qelix("run", "--threshold", "0", "-o", session, "--", SUBJECT, "count", "1000").returncode == 0
    return session


def only(folder):
    (path,) = folder.iterdir()
    return path


def test_every_record_with_all_fields_by_name(recorded):
    trace = only(recorded / "trace")
    header, *records = dump(trace)
    pid = int(trace.stem.rsplit("_", 1)[1])
    assert header == {
        "file": str(trace), "offset": 0, "type": "file-header", "size": 24,
        "kind": "trace", "fileVersion": 2, "pid": pid, "mpiRankId": 0,
    }
    locks = [record for record in records if record["type"] == "pthread"]
    assert len(locks) == 1000
    assert {lock["funcName"] for lock in locks} == {"pthread_mutex_lock"}
    assert list(locks[0]) == [
        "file", "offset", "type", "size", "subType", "flags", "startTime", "endTime", "pid", "tid",
        "lockAddress", "funcVa", "funcName", "parId", "retValue", "csSize", "callStack",
    ]
    assert {(lock["subType"], lock["size"], lock["pid"], lock["tid"]) for lock in locks} == {("mutex", 64, pid, pid)}
    assert all(lock["startTime"] <= lock["endTime"] for lock in locks)
    assert [record["name"] for record in records if record["type"] == "proc"] == ["QelixSubject"]


def test_the_records_fill_the_file(recorded):
    for path in [only(recorded / "trace"), only(recorded / "metadata")]:
        position = 0
        for record in dump(path):
            assert record["offset"] == position
            position += record["size"]
        assert position == path.stat().st_size


def test_a_line_of_text_for_each_record(recorded):
    trace = only(recorded / "trace")
    lines = qelix("dump", trace).stdout.splitlines()
    records = dump(trace)
    assert len(lines) == len(records)
    for line, record in zip(lines, records):
        assert int(line.split()[0]) == record["offset"]
        assert f" size={record['size']} " in line
    assert " mutex " in lines[-2] and f" lock={records[-2]['lockAddress']:#x} " in lines[-2]


def test_several_files_and_kinds_at_once(recorded):
    trace, metadata = only(recorded / "trace"), only(recorded / "metadata")
    headers = [record for record in dump(trace, metadata) if record["type"] == "file-header"]
    assert [header["kind"] for header in headers] == ["trace", "metadata"]


def test_a_damaged_file_is_named_with_its_offset_and_what_precedes_is_printed(recorded, tmp_path):
    trace = only(recorded / "trace")
    whole = dump(trace)
    damaged = tmp_path / "cut.umt"
    damaged.write_bytes(trace.read_bytes()[: whole[500]["offset"] + 17])
    result = qelix("dump", "--json", damaged, trace)
    assert result.returncode == 1
    assert f"{damaged}: byte offset {whole[500]['offset']}: " in result.stderr
    lines = [json.loads(line) for line in result.stdout.splitlines()]
    assert len([line for line in lines if line["file"] == str(damaged)]) == 500
    assert len([line for line in lines if line["file"] == str(trace)]) == len(whole), "the next file is read all the same"


def test_overwritten_bytes_are_found(recorded, tmp_path):
    trace = only(recorded / "trace")
    offset = dump(trace)[3]["offset"]
    bytes_ = bytearray(trace.read_bytes())
    bytes_[offset : offset + 4] = b"\xff\xff\xff\xff"
    damaged = tmp_path / "torn.umt"
    damaged.write_bytes(bytes_)
    result = qelix("dump", damaged)
    assert result.returncode == 1
    assert f"byte offset {offset}: unknown record type 65535" in result.stderr
    assert len(result.stdout.splitlines()) == 3


def test_files_that_are_none_of_ours(tmp_path):
    (tmp_path / "a.txt").write_text("text")
    (tmp_path / "a.umt").write_text("this is no trace file at all")
    (tmp_path / "empty.umt").write_text("")
    for name, status, part in [
        ("a.txt", 1, "ends in none of .umt, .ums and .meta"),
        ("a.umt", 1, "does not begin as a trace file"),
        ("missing.umt", 1, "No such file"),
        ("empty.umt", 0, ""),
    ]:
        result = qelix("dump", tmp_path / name)
        assert result.returncode == status
        assert part in result.stderr
        assert result.stdout == ""


def test_a_name_cannot_steer_the_terminal(tmp_path):
    path = tmp_path / "evil.umt"
    header = b"\xff" * 8 + (1).to_bytes(4, "little") + bytes(4) + b"\x02\0" + bytes(6)
    proc = b"\x04\0\x50\0" + bytes(20) + (1).to_bytes(4, "little") * 2 + bytes(12) + b"\x1b[2J\n".ljust(32, b"\0") + bytes(4)
    path.write_bytes(header + proc)
    result = qelix("dump", path)
    assert result.returncode == 0, result.stderr
    assert 'name="\\x1b[2J\\x0a"' in result.stdout
    assert dump(path)[1]["name"] == "\x1b[2J\n"


def test_a_reader_that_leaves_early_and_a_full_disk(recorded):
    trace = only(recorded / "trace")
    piped = subprocess.run(["bash", "-c", f"'{QELIX}' dump '{trace}' '{trace}' '{trace}' | head -n 1"], capture_output=True, text=True)
    assert len(piped.stdout.splitlines()) == 1
    if os.path.exists("/dev/full"):
        full = subprocess.run(["sh", "-c", f"'{QELIX}' dump '{trace}' > /dev/full"], capture_output=True, text=True)
        assert full.returncode == 125
        assert "cannot be written" in full.stderr
