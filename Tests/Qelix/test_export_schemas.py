"""The JSON forms for other tools' viewers, held against what their formats allow."""

import json
import pathlib

import jsonschema
import pytest

from conftest import SUBJECT, qelix
from made_session import CONDITION, IO, NEVER, TICK, Process, write_session

SCHEMAS = pathlib.Path(__file__).parent / "Export"
START, MS = 1_000_000_000, 1_000_000


def real(path):
    script = f"{SUBJECT} burn 100 2; {SUBJECT} contend 30; {SUBJECT} abandon; exit 0"
    assert qelix("record", "-q", "--min", "all=0", "-o", path, "--", "sh", "-c", script).returncode == 0
    return path


def strange(path):
    """Calls inside one another, without an end and without a time; names that no text is; ids that are taken twice."""
    process = Process(100).thread(100, b'"\\\x01\xff</script>', START).thread(101, "", START)
    process.call(100, START, START + 9 * MS, IO).lock(100, START + MS, START + 2 * MS).call(100, START + 10 * MS, NEVER)
    process.lock(101, 0, START + MS, sub=CONDITION).lock(101, START + MS, 0).ticks(101, START + TICK, 3, [0x7000, 0x8001])
    write_session(path / "a", process)
    write_session(path / "b", Process(100).thread(100, "other", START).lock(100, START, START + MS).ticks(100, START, 2))
    write_session(path / "c", Process(300).thread(300, "quiet", START))
    assert qelix("merge", path / "all", path / "a", path / "b", path / "c").returncode == 0
    return path / "all"


@pytest.fixture(scope="module", params=[real, strange], ids=lambda make: make.__name__)
def session(request, tmp_path_factory):
    return request.param(tmp_path_factory.mktemp("schemas") / "session")


def exported(name, session):
    result = qelix("export", name, session)
    assert result.returncode == 0, result.stderr
    data = json.loads(result.stdout)
    schema = json.loads((SCHEMAS / f"{name}.schema.json").read_text())
    jsonschema.Draft202012Validator.check_schema(schema)
    jsonschema.Draft202012Validator(schema).validate(data)
    return data


@pytest.mark.parametrize("name, items", [("chrome", "traceEvents"), ("firefox", "threads")])
def test_what_a_format_does_not_allow_is_found(session, name, items):
    data = exported(name, session)
    validator = jsonschema.Draft202012Validator(json.loads((SCHEMAS / f"{name}.schema.json").read_text()))
    for key in data[items][0]:
        broken = {**data, items: [{other: value for other, value in data[items][0].items() if other != key}]}
        assert not validator.is_valid(broken), f"without {key}"
    assert not validator.is_valid({**data, items: [{**data[items][0], "unheard": 1}]})


def test_chrome(session):
    data = exported("chrome", session)
    frames = data["stackFrames"]
    for frame in frames:
        seen = set()
        while frame is not None:
            assert frame not in seen, "a stack is no circle"
            seen.add(frame)
            frame = frames[frame].get("parent")
    events = data["traceEvents"]
    assert all(event["sf"] in frames for event in events if "sf" in event)
    assert {"M", "X", "i"} == {event["ph"] for event in events}
    processes = {event["pid"] for event in events}
    assert sorted(event["pid"] for event in events if event["name"] == "process_name") == sorted(processes)
    # A viewer draws the calls of a thread as a stack: each lies within the one that it began in.
    threads = {}
    for event in events:
        if event["ph"] == "X":
            threads.setdefault((event["pid"], event["tid"]), []).append(
                (round(event["ts"] * 1000), -round(event["dur"] * 1000)))
    for calls in threads.values():
        ends = []
        for start, length in sorted(calls):
            while ends and ends[-1] <= start:
                ends.pop()
            assert not ends or start - length <= ends[-1]
            ends.append(start - length)


def test_firefox(session):
    data = exported("firefox", session)
    for thread in data["threads"]:
        tables = {name: table for name, table in thread.items() if isinstance(table, dict)}
        for name, table in tables.items():
            for key, column in table.items():
                assert not isinstance(column, list) or len(column) == table["length"], (name, key)
        texts = len(thread["stringArray"])
        subcategories = [len(category["subcategories"]) for category in data["meta"]["categories"]]
        for name, column, limit in [
                ("samples", "stack", tables["stackTable"]["length"]), ("stackTable", "frame", tables["frameTable"]["length"]),
                ("frameTable", "func", tables["funcTable"]["length"]), ("resourceTable", "name", texts),
                ("frameTable", "nativeSymbol", tables["nativeSymbols"]["length"]), ("funcTable", "name", texts),
                ("funcTable", "fileName", texts), ("funcTable", "resource", tables["resourceTable"]["length"]),
                ("markers", "name", texts), ("markers", "category", len(subcategories)),
                ("stackTable", "category", len(subcategories)), ("nativeSymbols", "libIndex", len(data["libs"]))]:
            assert all(at is None or at < limit for at in tables[name][column]), (name, column)
        stacks = tables["stackTable"]
        assert all(sub < subcategories[at] for at, sub in zip(stacks["category"], stacks["subcategory"]))
        assert all(prefix is None or prefix < at for at, prefix in enumerate(stacks["prefix"]))
        assert thread["samples"]["time"] == sorted(thread["samples"]["time"])
        assert thread["markers"]["startTime"] == sorted(thread["markers"]["startTime"])
    ids = [(thread["pid"], thread["tid"]) for thread in data["threads"]]
    assert len(set(ids)) == len(ids)
    mains = [thread["pid"] for thread in data["threads"] if thread["isMainThread"]]
    assert len(set(mains)) == len(mains), "one main thread a process"
