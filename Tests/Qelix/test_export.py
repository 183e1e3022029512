"""`qelix export`: every form is opened by a reader that is not ours, and holds exactly what the files hold."""

import csv
import gzip
import io
import json
import os
import pathlib
import pty
import re
import shutil
import sqlite3
import struct
import subprocess
from collections import Counter

import pytest

import export_truth as truth
from conftest import QELIX, SUBJECT, qelix, report
from made_session import TICK, Process, unequal_session, write_session

DEFINITIONS = pathlib.Path(__file__).parent / "Export"
BINARY = ["pprof", "perfetto", "sqlite"]
REALTIME, MONOTONIC = 1, 3  # as Linux numbers its clocks for Perfetto
TEXT = ["folded", "speedscope", "chrome", "firefox", "csv", "json"]


@pytest.fixture(scope="module")
def recorded(tmp_path_factory):
    """Three processes: one burns CPU in threads, one leaves while a thread waits."""
    session = tmp_path_factory.mktemp("export") / "session"
    script = f"{SUBJECT} burn 200 2; {SUBJECT} abandon; exit 0"
    result = qelix("run", "--sample", "--min", "all=0", "-o", session, "--", "sh", "-c", script)
    assert result.returncode == 0, result.stderr
    assert truth.samples_of(session) and any(call.end is None for call in truth.calls_of(session))
    return session


def start_of(session):
    return json.loads((session / "session.json").read_text())["start"]


def export(name, session, *options, status=0):
    result = qelix("export", name, session, *options, text=False)
    assert result.returncode == status, result.stderr
    return result.stdout


def decoded(definition, message, data):
    result = subprocess.run(["protoc", f"--decode={message}", f"--proto_path={DEFINITIONS}", definition],
                            input=data, capture_output=True)
    assert result.returncode == 0, result.stderr
    assert not re.search(rb"^\s*\d+\s*[:{]", result.stdout, re.MULTILINE), "a field that the format does not have"
    return truth.messages(result.stdout.decode())


def in_node(path, script):
    """What a script prints of the parsed file, which is `data` there."""
    full = f"const data = JSON.parse(require('fs').readFileSync(process.argv[1]));\n{script}"
    result = subprocess.run(["node", "-e", full, str(path)], capture_output=True, text=True)
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout)


# ---- the forms -------------------------------------------------------------------------------------------


def test_folded(recorded):
    lines = export("folded", recorded).decode().splitlines()
    assert sum(int(line.rsplit(" ", 1)[1]) for line in lines) == len(truth.samples_of(recorded))
    assert len({line.rsplit(" ", 1)[0] for line in lines}) == len(lines)
    assert qelix("export", "--to", "folded", recorded).stdout.splitlines() == lines, "the older way to say it"


def test_json_lines(recorded):
    lines = [json.loads(line) for line in export("json", recorded).splitlines()]
    calls = [line for line in lines if line["type"] == "call"]
    samples = [line for line in lines if line["type"] == "sample"]
    assert Counter((c["pid"], c["tid"], c["class"], c["start"], c["end"], c["result"],
                    int(c.get("object", "0"), 16)) for c in calls) == \
        Counter((*call[:5], truth.signed(call.result), call.object) for call in truth.calls_of(recorded))
    assert Counter((s["pid"], s["tid"], s["time"], s["core"]) for s in samples) == \
        Counter((s.pid, s.tid, s.time, s.core) for s in truth.samples_of(recorded))
    names = truth.names_of(recorded)
    assert {(t["pid"], t["tid"]): t["thread"] for t in lines if t["type"] == "thread"} == names
    assert all(line["thread"] == names[line["pid"], line["tid"]] for line in lines)
    assert {"pthread_create", "pthread_join", "pthread_mutex_lock"} <= {call["function"] for call in calls}
    assert any(sample["frames"][-2:] == ["Work", "WorkSixty"] for sample in samples)


def test_locks_on_the_heap_have_the_numbers_of_the_report(tmp_path):
    START, MS = 1_000_000_000, 1_000_000
    process = Process(42).thread(42, "first", START).thread(43, "second", START)
    for number in range(8):  # in the order of the addresses neither by time nor by length
        tid = 42 + number % 2
        begin = START + (number * 5 % 8) * 10 * MS
        process.lock(tid, begin, begin + (1 + number) * MS, 0x9000 + 0x40 * number)
    process.lock(42, START + 90 * MS, 0xFFFFFFFFFFFFFFFF, 0x8000)
    session = write_session(tmp_path / "session", process)
    names = {lock["address"]: lock["name"] for lock in report(session)["locks"]}
    assert sorted(names.values()) == [f"heap#{number}" for number in range(1, 10)]
    assert names[0x9000] == "heap#1" and names[0x8000] == "heap#9" and names[0x9000 + 0x40 * 5] == "heap#2"
    calls = list(csv.DictReader(io.StringIO(export("csv", session).decode())))
    assert {int(call["object"], 16): call["object_name"] for call in calls} == names
    for options in (["--thread", "second"], ["--time", "25ms.."], ["--process", "42", "--class", "pthread"]):
        rows = json.loads(qelix("locks", session, "--json", *options).stdout)["rows"]
        calls = csv.DictReader(io.StringIO(export("csv", session, *options).decode()))
        assert {row["lock"] for row in rows} == {call["object_name"] for call in calls} <= set(names.values())
        assert rows


def test_locks_in_variables_go_by_their_names(recorded, tmp_path):
    def counted(calls, name_of):
        return {name: sum(1 for call in calls if name_of(call) == name) for name in map(name_of, calls) if name}

    rows = list(csv.DictReader(io.StringIO(export("csv", recorded).decode())))
    named = counted(rows, lambda row: row["object_name"])
    assert named["g_mutex"] >= 2 and named["g_isHeld"] == 2
    assert all(row["object"] for row in rows if row["object_name"])
    lines = [json.loads(line) for line in export("json", recorded).splitlines()]
    assert counted(lines, lambda line: line.get("objectName")) == named
    chrome = json.loads(export("chrome", recorded))["traceEvents"]
    assert counted(chrome, lambda event: event.get("args", {}).get("objectName")) == named
    path = tmp_path / "session.db"
    export("sqlite", recorded, "-o", path)
    query = "select object_name, count(*) from call_list where object_name is not null group by 1"
    assert dict(sqlite3.connect(path).execute(query)) == named
    firefox = json.loads(export("firefox", recorded))["threads"]
    assert counted([data for thread in firefox for data in thread["markers"]["data"]],
                   lambda data: data["objectName"]) == named
    packets = decoded("trace.proto", "perfetto.protos.Trace", export("perfetto", recorded))["packet"]
    facts = [fact for packet in packets for event in packet.get("track_event", [])
             for fact in event.get("debug_annotations", [])]
    assert counted(facts, lambda fact: fact.get("string_value", [None])[0]) == named


def test_speedscope(recorded, tmp_path):
    path = tmp_path / "session.speedscope.json"
    export("speedscope", recorded, "-o", path)
    profiles = in_node(path, """
        console.log(JSON.stringify(data.profiles.map(p => {
            const open = [];
            let last = p.startValue;
            for (const e of p.events || []) {
                if (e.at < last || e.at > p.endValue) throw new Error(`${p.name}: ${e.at} behind ${last}`);
                last = e.at;
                if (e.type === 'O') open.push(e.frame);
                else if (open.pop() !== e.frame) throw new Error(`${p.name}: closes what is not open`);
            }
            if (open.length) throw new Error(`${p.name}: ${open.length} stay open`);
            const used = p.type === 'sampled' ? p.samples.flat() : p.events.map(e => e.frame);
            if (used.some(f => data.shared.frames[f] === undefined)) throw new Error('no such frame');
            return [p.type, p.name, p.type === 'sampled' ? [p.samples.length, p.weights.length, p.endValue]
                                                         : p.events.filter(e => e.type === 'O').length];
        })))""")
    names = truth.names_of(recorded)

    def label(pid, tid):
        return f"{names[pid, pid]} ({pid}) {names[pid, tid]} ({tid})"

    weights = truth.sample_ns_of(recorded)
    expected = [["sampled", f"{label(*thread)}: CPU", [count, count, count * int(weights[thread[0]])]]
                for thread, count in truth.per_thread(truth.samples_of(recorded)).items()]
    expected += [["evented", f"{label(*thread)}: calls", count]
                 for thread, count in truth.per_thread(truth.calls_of(recorded)).items()]
    assert sorted(profiles, key=str) == sorted(expected, key=str)


def profile_of(data):
    profile = decoded("profile.proto", "perftools.profiles.Profile", gzip.decompress(data))
    texts = profile["string_table"]
    assert texts[0] == "" and len(set(texts)) == len(texts)
    return profile, texts


def test_pprof(recorded):
    profile, texts = profile_of(export("pprof", recorded))
    assert [texts[t["type"][0]] for t in profile["sample_type"]] == ["samples", "cpu", "calls", "wait"]
    calls = truth.calls_of(recorded)
    sums = [sum(values) for values in zip(*(sample["value"] for sample in profile["sample"]))]
    samples = len(truth.samples_of(recorded))
    sampled_ns = report(recorded)["cpu"]["sampledNs"]
    assert sums[0] == samples and sums[2] == len(calls)
    assert abs(sums[1] - sampled_ns) <= len(profile["sample"])  # each is a whole number
    assert sums[3] == sum(call.end - call.start for call in calls if call.end and call.start)
    locations = {location["id"][0]: location for location in profile["location"]}
    functions = {function["id"][0]: texts[function["name"][0]] for function in profile["function"]}
    mappings = {mapping["id"][0] for mapping in profile["mapping"]}
    assert len(locations) == len(profile["location"]) and len(functions) == len(profile["function"])
    innermost = Counter()
    for sample in profile["sample"]:
        stack = [functions[line["function_id"][0]] for id_ in sample["location_id"] for line in locations[id_]["line"]]
        assert all(locations[id_].get("mapping_id", [0])[0] in mappings | {0} for id_ in sample["location_id"])
        assert {texts[label["key"][0]] for label in sample["label"]} == {"process", "thread"}
        innermost[stack[0]] += sample["value"][0]
    folded = Counter()
    for line in export("folded", recorded).decode().splitlines():
        stack, count = line.rsplit(" ", 1)
        folded[stack.rsplit(";", 1)[1]] += int(count)
    assert +innermost == folded


def test_samples_weigh_what_they_do_in_the_report(tmp_path):
    session = unequal_session(tmp_path / "session")
    assert report(session)["cpu"]["sampledNs"] == 6 * TICK
    profile, texts = profile_of(export("pprof", session))
    process = {texts[label["str"][0]]: sample["value"] for sample in profile["sample"] for label in sample["label"]
               if texts[label["key"][0]] == "process"}
    assert process["p100 (100)"][:2] == [1, 4 * TICK] and process["p200 (200)"][:2] == [2, 2 * TICK]
    assert sum(legacy_profile_of(export("pprof", session, "--legacy"))[1].values()) == 6
    speedscope = json.loads(export("speedscope", session))["profiles"]
    assert [profile["endValue"] for profile in speedscope if profile["type"] == "sampled"] == [4 * TICK, 2 * TICK]
    path = tmp_path / "session.db"
    export("sqlite", session, "-o", path)
    query = "select sum(p.sample_ns) from samples s join threads t on t.id = s.thread join processes p on p.id = t.process"
    assert sqlite3.connect(path).execute(query).fetchone() == (6 * TICK,)


def legacy_profile_of(data):
    """The names by address, the period, and the stacks of the older profile."""
    text, binary = data.split(b"--- profile\n")
    names = dict(re.findall(r"^0x0*([0-9a-f]+) (.+)$", text.decode(), re.MULTILINE))
    words = struct.unpack(f"<{len(binary) // 8}Q", binary)
    assert words[:3] == (0, 3, 0) and words[4] == 0 and words[-3:] == (0, 1, 0)
    stacks, at = Counter(), 5
    while at < len(words) - 3:
        count, depth = words[at:at + 2]
        stacks[tuple(names[f"{pc:x}"] for pc in words[at + 2:at + 2 + depth])] += count
        at += 2 + depth
    return words[3], stacks


def test_the_older_pprof(recorded):
    period, stacks = legacy_profile_of(export("pprof", recorded, "--legacy"))
    assert period == json.loads((recorded / "session.json").read_text())["tickNs"] // 1000
    weights = truth.sample_ns_of(recorded)
    periods = sum(weights[sample.pid] for sample in truth.samples_of(recorded)) / (period * 1000)
    assert abs(sum(stacks.values()) - periods) <= 0.5 * len(stacks)
    assert any(stack[:2] == ("WorkSixty", "Work") for stack in stacks)
    assert "--legacy is for pprof" in qelix("export", "csv", recorded, "--legacy").stderr


@pytest.mark.skipif(shutil.which("google-pprof") is None, reason="google-perftools is not here")
def test_the_older_pprof_in_the_tool_itself(recorded, tmp_path):
    path = tmp_path / "session.prof"
    export("pprof", recorded, "--legacy", "-o", path)
    top = subprocess.run(["google-pprof", "--text", path], capture_output=True, text=True, timeout=60)
    assert top.returncode == 0, top.stderr
    _, stacks = legacy_profile_of(path.read_bytes())
    assert f"Total: {sum(stacks.values())} samples" in top.stdout
    rows = {line.split()[-1]: int(line.split()[0]) for line in top.stdout.splitlines()[1:]}
    assert rows["WorkSixty"] == sum(count for stack, count in stacks.items() if stack[0] == "WorkSixty") > 0


@pytest.mark.skipif(shutil.which("go") is None, reason="the Go tools, with their pprof, are not here")
def test_pprof_in_the_tool_itself(recorded, tmp_path):
    path = tmp_path / "session.pb.gz"
    export("pprof", recorded, "-o", path)
    top = subprocess.run(["go", "tool", "pprof", "-top", "-sample_index=samples", path], capture_output=True, text=True,
                         env={**os.environ, "HOME": str(tmp_path)})
    assert top.returncode == 0, top.stderr
    assert f"of {len(truth.samples_of(recorded))} total" in top.stdout and "WorkSixty" in top.stdout


def test_chrome_trace(recorded, tmp_path):
    path = tmp_path / "session.trace.json"
    export("chrome", recorded, "-o", path)
    events, broken = in_node(path, """
        const broken = Object.values(data.stackFrames).filter(f => f.parent && !data.stackFrames[f.parent]).length
            + data.traceEvents.filter(e => e.sf && !data.stackFrames[e.sf]).length;
        console.log(JSON.stringify([data.traceEvents, broken]))""")
    assert broken == 0
    last = max(call.end or call.start for call in truth.calls_of(recorded))
    calls = Counter()
    for event in events:
        if event["ph"] == "X":
            calls[event["pid"], event["tid"], event["cat"], round(event["ts"] * 1000)] += 1
            assert event["dur"] >= 0 and event["ts"] * 1000 <= last + 1
    assert calls == Counter((c.pid, c.tid, c.traced_class, c.start) for c in truth.calls_of(recorded))
    samples = Counter((e["pid"], e["tid"], round(e["ts"] * 1000)) for e in events if e["ph"] == "i")
    assert samples == Counter((s.pid, s.tid, s.time) for s in truth.samples_of(recorded))
    names = {(e["pid"], e["tid"]): e["args"]["name"] for e in events if e["name"] == "thread_name"}
    assert names == truth.names_of(recorded)


def test_perfetto(recorded):
    packets = decoded("trace.proto", "perfetto.protos.Trace", export("perfetto", recorded))["packet"]
    assert packets[0]["sequence_flags"] == [1], "what comes before would not count"
    assert packets[0]["trace_packet_defaults"][0]["timestamp_clock_id"] == [MONOTONIC]
    snapshot, started = packets[0]["clock_snapshot"][0], start_of(recorded)
    assert snapshot["primary_trace_clock"] == [MONOTONIC]
    assert {clock["clock_id"][0]: clock["timestamp"][0] for clock in snapshot["clocks"]} == \
        {MONOTONIC: started["monotonicNs"], REALTIME: started["realtimeNs"]}
    tracks, names, stacks, frames = {}, {}, set(), set()
    calls, samples, open_slices, last_at = Counter(), Counter(), {}, {}
    for packet in packets:
        for data in packet.get("interned_data", []):
            names.update({entry["iid"][0]: entry["str"][0] for entry in data.get("event_names", [])})
            frames |= {frame["iid"][0] for frame in data.get("frames", [])}
            for stack in data.get("callstacks", []):
                assert set(stack["frame_ids"]) <= frames
                stacks.add(stack["iid"][0])
        for descriptor in packet.get("track_descriptor", []):
            if "thread" in descriptor:
                thread = descriptor["thread"][0]
                tracks[descriptor["uuid"][0]] = (thread["pid"][0], thread["tid"][0])
                assert thread["thread_name"][0] == truth.names_of(recorded)[tracks[descriptor["uuid"][0]]]
        for event in packet.get("track_event", []):
            track, time = event["track_uuid"][0], packet["timestamp"][0]
            assert time >= last_at.get(track, 0), "a track's slices come by time"
            last_at[track] = time
            if event["type"] == ["TYPE_SLICE_BEGIN"]:
                assert event["name_iid"][0] in names
                calls[(*tracks[track], time)] += 1
            open_slices[track] = open_slices.get(track, 0) + (1 if event["type"] == ["TYPE_SLICE_BEGIN"] else -1)
            assert open_slices[track] >= 0
        for sample in packet.get("perf_sample", []):
            assert sample["callstack_iid"][0] in stacks
            samples[sample["pid"][0], sample["tid"][0], packet["timestamp"][0]] += 1
    assert not any(open_slices.values())
    assert calls == Counter((c.pid, c.tid, c.start) for c in truth.calls_of(recorded))
    assert samples == Counter((s.pid, s.tid, s.time) for s in truth.samples_of(recorded))


def test_firefox(recorded, tmp_path):
    path = tmp_path / "session.firefox.json"
    export("firefox", recorded, "-o", path)
    started = in_node(path, "console.log(JSON.stringify(data.meta.startTime))")
    first = min([call.start for call in truth.calls_of(recorded)] + [s.time for s in truth.samples_of(recorded)])
    clocks = start_of(recorded)
    expected = (clocks["realtimeNs"] + first - clocks["monotonicNs"]) / 1e6
    assert 0 <= expected - started < 1000, "the calendar's time of the first record, of whatever kind"
    threads = in_node(path, """
        const columns = (name, table) => {
            for (const [key, column] of Object.entries(table))
                if (Array.isArray(column) && column.length !== table.length)
                    throw new Error(`${name}.${key}: ${column.length} of ${table.length}`);
        };
        const below = (name, column, limit) => {
            if (column.some(i => i !== null && !(i >= 0 && i < limit))) throw new Error(`${name} beyond ${limit}`);
        };
        console.log(JSON.stringify(data.threads.map(t => {
            for (const name of ['samples', 'markers', 'stackTable', 'frameTable', 'funcTable', 'resourceTable'])
                columns(name, t[name]);
            below('stack', t.samples.stack, t.stackTable.length);
            below('frame', t.stackTable.frame, t.frameTable.length);
            below('func', t.frameTable.func, t.funcTable.length);
            below('resource', t.funcTable.resource, t.resourceTable.length);
            below('name', t.funcTable.name.concat(t.markers.name, t.resourceTable.name), t.stringArray.length);
            below('category', t.markers.category, data.meta.categories.length);
            t.stackTable.prefix.forEach((p, i) => { if (p !== null && p >= i) throw new Error('prefix behind stack'); });
            for (const times of [t.samples.time, t.markers.startTime])
                times.forEach((at, i) => { if (i && at < times[i - 1]) throw new Error('times out of order'); });
            const leaf = t.samples.stack.map(s => s === null ? null
                : t.stringArray[t.funcTable.name[t.frameTable.func[t.stackTable.frame[s]]]]);
            return [Number(t.pid), t.tid, t.name, t.samples.length, t.markers.length,
                    t.markers.data.filter(d => d.returned === 'no').length, leaf];
        })))""")
    samples, calls = truth.per_thread(truth.samples_of(recorded)), truth.per_thread(truth.calls_of(recorded))
    stuck = truth.per_thread([call for call in truth.calls_of(recorded) if call.end is None])
    names = truth.names_of(recorded)
    assert sorted(thread[:6] for thread in threads) == \
        sorted([*key, name, samples[key], calls[key], stuck[key]] for key, name in names.items())
    assert "WorkSixty" in {name for thread in threads for name in thread[6]}


def test_sqlite(recorded, tmp_path):
    path = tmp_path / "session.db"
    export("sqlite", recorded, "-o", path)
    database = sqlite3.connect(path)
    assert database.execute("pragma integrity_check").fetchall() == [("ok",)]
    calls = database.execute("select pid, tid, class, start_ns, end_ns, result, ifnull(object, 0) from call_list")
    assert Counter(calls) == \
        Counter((*call[:5], truth.signed(call.result), call.object) for call in truth.calls_of(recorded))
    samples = Counter(database.execute("select pid, tid, time_ns, core from sample_list"))
    assert samples == Counter((s.pid, s.tid, s.time, s.core) for s in truth.samples_of(recorded))
    names = {(pid, tid): name for pid, tid, name in database.execute(
        "select p.pid, t.tid, t.name from threads t join processes p on p.id = t.process")}
    assert names == truth.names_of(recorded)
    total = database.execute("""
        with recursive up(sample, stack) as (
            select id, stack from samples where stack is not null
            union all select up.sample, s.parent from up join stacks s on s.id = up.stack where s.parent is not null)
        select count(distinct sample) from up join stacks k on k.id = up.stack join frames f on f.id = k.frame
        join functions n on n.id = f.function where n.name = 'Work'""").fetchone()[0]
    lines = export("folded", recorded).decode().splitlines()
    assert total == sum(int(line.rsplit(" ", 1)[1]) for line in lines if ";Work;" in line) > 0
    shell = subprocess.run(["sqlite3", path, "select count(*) from mappings m join modules o on o.id = m.module "
                            "where o.path like '%QelixSubject'"], capture_output=True, text=True)
    assert int(shell.stdout) >= 2


def test_csv(recorded):
    rows = list(csv.DictReader(io.StringIO(export("csv", recorded).decode())))
    assert Counter((int(r["pid"]), int(r["tid"]), r["class"], int(r["start_ns"]), r["end_ns"]) for r in rows) == \
        Counter((c.pid, c.tid, c.traced_class, c.start, "" if c.end is None else str(c.end))
                for c in truth.calls_of(recorded))
    assert all(int(r["duration_ns"]) == int(r["end_ns"]) - int(r["start_ns"]) for r in rows if r["end_ns"])
    rows = list(csv.DictReader(io.StringIO(export("csv", recorded, "--table", "samples").decode())))
    assert Counter((int(r["pid"]), int(r["tid"]), int(r["time_ns"])) for r in rows) == \
        Counter((s.pid, s.tid, s.time) for s in truth.samples_of(recorded))
    assert all(row["stack"].split(";")[-1] == row["function"] for row in rows)
    rows = list(csv.DictReader(io.StringIO(export("csv", recorded, "--table", "threads").decode())))
    assert {(int(r["pid"]), int(r["tid"])): r["thread"] for r in rows} == truth.names_of(recorded)


@pytest.mark.parametrize("how, ending, unpack", [("none", "", ["cat"]), ("gzip", ".gz", ["gzip", "-dc"]),
                                                 ("zstd", ".zst", ["zstd", "-dc"])])
def test_csv_partitions(recorded, tmp_path, how, ending, unpack):
    folder = tmp_path / "job"
    export("csv", recorded, "--partition", "--compress", how, "-o", folder)
    files = sorted(path.relative_to(folder) for path in folder.rglob("*") if path.is_file())
    assert {path.parts[0] for path in files} == {"calls", "samples", "threads"}
    assert {path.parts[1] for path in files} == {"rank=0"}
    assert all(path.name.endswith(".csv" + ending) for path in files)
    rows = 0
    for path in (folder / "calls").rglob("*.csv*"):
        text = subprocess.run([*unpack, path], capture_output=True, check=True).stdout.decode()
        rows += len(list(csv.DictReader(io.StringIO(text))))
    assert rows == len(truth.calls_of(recorded))
    again = qelix("export", "csv", recorded, "--partition", "-o", folder)
    assert again.returncode == 125 and "exists" in again.stderr


# ---- parts of a session ----------------------------------------------------------------------------------


def counted(session, *options):
    lines = [json.loads(line) for line in export("json", session, *options).splitlines()]
    return Counter(line["type"] for line in lines if line["type"] != "thread"), lines


def test_filters(recorded):
    calls, samples = truth.calls_of(recorded), truth.samples_of(recorded)
    names = truth.names_of(recorded)
    burners = {thread for thread, name in names.items() if name == "burner"}
    assert len(burners) == 2
    found, _ = counted(recorded, "--thread", "burn*")
    assert found["sample"] == len([s for s in samples if (s.pid, s.tid) in burners])
    (pid, tid) = min(burners)
    found, _ = counted(recorded, "--thread", str(tid))
    assert found["sample"] == len([s for s in samples if s.tid == tid])
    found, lines = counted(recorded, "--process", str(pid))
    assert {line["pid"] for line in lines} == {pid}
    assert found["call"] == len([c for c in calls if c.pid == pid])
    found, _ = counted(recorded, "--class", "pthread,cpu")
    assert found == {"call": len([c for c in calls if c.traced_class == "pthread"]), "sample": len(samples)}
    found, _ = counted(recorded, "--class", "sleep")
    assert found == +Counter({"call": len([c for c in calls if c.traced_class == "sleep"])})


def test_a_span_of_time(recorded):
    _, lines = counted(recorded)
    samples = sorted(s.time for s in truth.samples_of(recorded))
    trace_times = [record.start for path in (recorded / "trace").glob("*.umt")
                   for record in truth.records.read_trace(path)[1]]
    sample_times = [record.start for path in (recorded / "sample").glob("*.ums") if path.stat().st_size
                    for record in truth.records.read_samples(path)[1] if record.start]
    first = min(trace_times + sample_times)
    middle = samples[len(samples) // 2]
    found, lines = counted(recorded, "--time", f"..{middle - first + 1}")
    assert found["sample"] == len([time for time in samples if time <= middle])
    assert found["call"] == len([c for c in truth.calls_of(recorded) if c.start <= middle])
    found, lines = counted(recorded, "--time", f"{middle - first}..")
    assert found["sample"] == len([time for time in samples if time >= middle])
    assert found["call"] == len([c for c in truth.calls_of(recorded) if c.end is None or c.end >= middle])


# ---- where it goes ---------------------------------------------------------------------------------------


@pytest.mark.parametrize("name", BINARY)
def test_a_terminal_is_not_garbled(recorded, name):
    leader, terminal = pty.openpty()
    result = subprocess.run([QELIX, "export", name, recorded], stdout=terminal, stderr=subprocess.PIPE, text=True)
    os.close(terminal)
    os.set_blocking(leader, False)
    with pytest.raises((BlockingIOError, OSError)):
        assert not os.read(leader, 1)
    os.close(leader)
    assert result.returncode == 125 and "-o FILE" in result.stderr


def test_the_files_ending_says_how_to_compress(recorded, tmp_path):
    plain = export("json", recorded)
    export("json", recorded, "-o", tmp_path / "a.json.gz")
    assert gzip.decompress((tmp_path / "a.json.gz").read_bytes()) == plain
    export("json", recorded, "-o", tmp_path / "a.json.zst")
    assert subprocess.run(["zstd", "-dc", tmp_path / "a.json.zst"], capture_output=True).stdout == plain


@pytest.mark.parametrize("name", [*BINARY, *TEXT])
def test_nothing_is_half_written(recorded, tmp_path, name):
    path = tmp_path / "out"
    path.write_text("what was there before")
    limited = subprocess.run(["bash", "-c", 'ulimit -f 0; trap "" XFSZ; exec "$@"', "-", QELIX, "export", name, recorded,
                              "-o", path], capture_output=True, text=True)
    assert limited.returncode == 125, limited.stderr
    assert path.read_text() == "what was there before"
    assert list(tmp_path.iterdir()) == [path]
    export(name, recorded, "-o", path)
    assert list(tmp_path.iterdir()) == [path] and path.stat().st_size > 100


def test_a_device_is_written_not_replaced(recorded):
    export("json", recorded, "-o", "/dev/null")
    assert pathlib.Path("/dev/null").is_char_device()
    full = qelix("export", "json", recorded, "-o", "/dev/full")
    assert full.returncode == 125 and "/dev/full cannot be written" in full.stderr


# ---- what cannot be exported -----------------------------------------------------------------------------


@pytest.mark.parametrize(
    "arguments, part",
    [
        (["nonsense", "{session}"], "the formats are folded, speedscope"),
        ([], "qelix export FORMAT DIR"),
        (["json", "{session}", "--class", "naps"], "the classes are pthread"),
        (["json", "{session}", "--time", "soon"], "FROM..TO"),
        (["json", "{session}", "--time", "2s..1s"], "ends before it begins"),
        (["sqlite", "{session}"], "-o FILE"),
        (["csv", "{session}", "--partition"], "-o FILE"),
        (["json", "{session}", "--partition", "-o", "x"], "only csv"),
        (["json", "{session}", "-o", "{session}/no/such/folder/x"], "cannot be written"),
    ],
)
def test_what_cannot_work_is_refused(recorded, tmp_path, arguments, part):
    result = qelix("export", *[argument.format(session=recorded) for argument in arguments], cwd=tmp_path)
    assert result.returncode == 125 and part in result.stderr
    assert result.stdout == "" and not list(tmp_path.iterdir())


def test_no_session_and_no_records(recorded, tmp_path):
    result = qelix("export", "json", tmp_path)
    assert result.returncode == 1 and "is no session" in result.stderr
    result = qelix("export", "json", recorded, "--process", "nobody")
    assert result.returncode == 1 and "no records" in result.stderr


def test_a_damaged_file_is_exported_up_to_the_damage(recorded, tmp_path):
    session = tmp_path / "session"
    shutil.copytree(recorded, session, symlinks=True)
    trace = max((session / "trace").iterdir(), key=lambda path: path.stat().st_size)
    whole = truth.records.read_trace(trace)[1]
    cut = whole[-1].offset + 17
    trace.write_bytes(trace.read_bytes()[:cut])
    result = qelix("export", "json", session)
    assert result.returncode == 1 and f"{trace}: byte offset {whole[-1].offset}" in result.stderr
    lost = 1 if whole[-1].type in (truth.records.PTHREAD, truth.records.SYSCALL) else 0
    lines = [json.loads(line) for line in result.stdout.splitlines()]
    assert len([line for line in lines if line["type"] == "call"]) == len(truth.calls_of(recorded)) - lost


# ---- made by hand ----------------------------------------------------------------------------------------


def made_session(folder, records, pid=42):
    """A session of one trace file with these bytes behind its header."""
    for name in ["trace", "sample", "metadata"]:
        (folder / name).mkdir(parents=True)
    header = b"\xff" * 8 + struct.pack("<iiHHI", pid, 0, 2, 0, 0)
    (folder / "trace" / f"trace_host_{pid}.umt").write_bytes(header + records)
    return folder


def lock(start, end, tid=42, pid=42, address=0x1000):
    return struct.pack("<HHHHQQiiQQQiHH", 1, 64, 1, 0, start, end, pid, tid, address, 0x2000, 0, 0, 0, 0)


def proc(name, pid=42, tid=42):
    return struct.pack("<HHHHQQiiQI32s4x", 4, 80, 0, 0, 5, 0, pid, tid, 7, 0, name)


@pytest.mark.parametrize("name", [*BINARY, *(name for name in TEXT if name != "folded")])
def test_names_and_times_that_no_program_has(tmp_path, name):
    top = 2**64 - 2
    calls = [lock(0, 0), lock(0, 9), lock(7, 0), lock(top, top), lock(1, top), lock(top, 2**64 - 1), lock(0, 2**64 - 1),
             lock(3, 3, tid=2**31 - 1)]
    evil = proc(b'\x1b[2J\n",\\\xff') + proc(b"=1+1,\xc3\x28\0", tid=43)
    session = made_session(tmp_path / "session", evil + b"".join(calls))
    path = tmp_path / "out"
    export(name, session, "-o", path)
    if name in ["speedscope", "chrome", "firefox"]:
        in_node(path, "console.log(1)")
    elif name == "json":
        assert len([line for line in path.read_text().splitlines() if json.loads(line)["type"] == "call"]) == len(calls)
    elif name == "csv":
        assert len(list(csv.DictReader(path.open()))) == len(calls)
    elif name == "sqlite":
        assert sqlite3.connect(path).execute("select count(*) from call_list").fetchone()[0] == len(calls)


def test_calls_inside_calls(tmp_path):
    """A handler of a signal calls inside a call; what claims to outlast the call around it is cut off."""
    session = made_session(tmp_path / "session", proc(b"x") + lock(40, 60) + lock(50, 70) + lock(10, 100) + lock(20, 30)
                           + lock(100, 100) + lock(100, 120))
    path = tmp_path / "out"
    export("speedscope", session, "-o", path)
    events = json.loads(path.read_text())["profiles"][0]["events"]
    assert [(event["type"], event["at"] + 5) for event in events] == [
        ("O", 10), ("O", 20), ("C", 30), ("O", 40), ("O", 50), ("C", 60), ("C", 60), ("C", 100),
        ("O", 100), ("O", 100), ("C", 100), ("C", 120)]


@pytest.fixture(scope="module")
def large(tmp_path_factory):
    """More calls than are sorted in memory at once, the early half of them behind the late one."""
    calls = [lock(1000 + 10 * i, 1005 + 10 * i) for i in range(LARGE)]
    session = tmp_path_factory.mktemp("large") / "session"
    return made_session(session, proc(b"x") + b"".join(calls[LARGE // 2:]) + b"".join(calls[:LARGE // 2]))


LARGE = 600_000


@pytest.mark.parametrize("name", ["speedscope", "firefox", "sqlite", "perfetto"])
def test_memory_stays_flat_and_late_records_find_their_place(large, tmp_path, name):
    path = tmp_path / "out"
    limit = 96 * 1024  # KiB of addresses; the libraries take more than half, and the calls alone have 57 MB
    limited = subprocess.run(["bash", "-c", f'ulimit -v {limit}; exec "$@"', "-", QELIX, "export", name, large, "-o",
                              path], capture_output=True, text=True)
    assert limited.returncode == 0, limited.stderr
    if name == "speedscope":
        events = json.loads(path.read_text())["profiles"][0]["events"]
        assert [event["at"] for event in events if event["type"] == "O"] == [995 + 10 * i for i in range(LARGE)]
    elif name == "firefox":
        assert in_node(path, "console.log(data.threads[0].markers.startTime.every((t, i, all) => !i || t > all[i - 1])"
                       " ? data.threads[0].markers.length : 0)") == LARGE
    elif name == "sqlite":
        assert sqlite3.connect(path).execute("select count(distinct start_ns) from calls").fetchone()[0] == LARGE
    else:
        assert path.stat().st_size > 40 * LARGE
