"""The calls in a report: their names, their numbers by class, the tree of processes."""

import os
import re
import signal
import subprocess

from conftest import QELIX, SUBJECT, dump, full_text, qelix, report


def record(session, *command, options=("--min", "all=0")):
    result = qelix("run", *options, "-o", session, "--", *command)
    assert result.returncode == 0, result.stderr
    return result, report(session)


def only_thread(facts):
    (process,) = facts["processes"]
    (thread,) = process["threads"]
    return thread


def test_calls_go_by_the_names_of_the_functions(session):
    _, facts = record(session, SUBJECT, "calls")
    calls = {call["name"]: call for call in only_thread(facts)["calls"]}
    assert {name: calls[name]["calls"] for name in ["nanosleep", "write", "pthread_mutex_lock", "open"]} == {
        "nanosleep": 3, "write": 7, "pthread_mutex_lock": 11, "open": 1,
    }
    assert {name: calls[name]["class"] for name in calls if name in ("nanosleep", "write", "pthread_mutex_lock")} == {
        "nanosleep": "sleep", "write": "io", "pthread_mutex_lock": "pthread",
    }
    sleep = calls["nanosleep"]
    assert sleep["totalNs"] >= 3_000_000
    assert sleep["longestNs"] >= sleep["p95Ns"] >= sleep["p50Ns"] >= 1_000_000
    assert sleep["meanNs"] == sleep["totalNs"] // 3
    for name, traced in [("nanosleep", "sleep"), ("pthread_mutex_lock", "pthread")]:
        assert re.search(rf" {traced} +{name} +{calls[name]['calls']} ", full_text(session))


def test_a_class_is_the_sum_of_its_calls(session):
    _, facts = record(session, SUBJECT, "calls")
    thread = only_thread(facts)
    for row in thread["classes"]:
        calls = [call for call in thread["calls"] if call["class"] == row["class"]]
        assert row["calls"] == sum(call["calls"] for call in calls)
        assert row["totalNs"] == sum(call["totalNs"] for call in calls)
        assert row["longestNs"] == max(call["longestNs"] for call in calls)
    assert facts["processes"][0]["classes"] == thread["classes"]


def test_each_class_has_its_own_minimum(session):
    _, facts = record(session, SUBJECT, "calls", options=["--min", "all=off", "--min", "sleep=0", "--min", "pthread=1s"])
    assert [call["name"] for call in only_thread(facts)["calls"]] == ["nanosleep"]
    assert facts["thresholdsNs"] == {
        "pthread": 10**9, "sleep": 0, "wait": None, "lock": None, "io-sync": None, "io": None, "syscall": None,
    }


def test_io_alone_brings_the_system_calls_with_it_and_nothing_else(session):
    _, facts = record(session, SUBJECT, "calls", options=["--min", "all=off", "--min", "io=0"])
    assert {call["class"] for call in only_thread(facts)["calls"]} <= {"io", "syscall"}
    assert {"write", "open"} <= {call["name"] for call in only_thread(facts)["calls"]}


def test_dump_names_the_functions_too(session):
    record(session, SUBJECT, "calls")
    (trace,) = (session / "trace").iterdir()
    names = [line.get("funcName") for line in dump(trace) if line["type"] in ("pthread", "syscall")]
    assert names.count("write") == 7 and names.count("pthread_mutex_lock") == 11
    assert len(re.findall(r" func=0x[0-9a-f]+\(write\) ", qelix("dump", trace).stdout)) == 7


def test_a_trace_file_alone_still_dumps_with_addresses(session, tmp_path):
    record(session, SUBJECT, "count", "1")
    (trace,) = (session / "trace").iterdir()
    alone = tmp_path / trace.name
    alone.write_bytes(trace.read_bytes())
    (lock,) = [line for line in dump(alone) if line["type"] == "pthread"]
    assert lock["funcName"] is None and lock["funcVa"] > 0


# ---- the tree --------------------------------------------------------------------------------------------


def test_children_are_listed_below_their_parents(session):
    script = f"{SUBJECT} calls; sh -c '{SUBJECT} calls; :'; :"
    _, facts = record(session, "sh", "-c", script)
    processes = {process["pid"]: process for process in facts["processes"]}
    root = next(pid for pid, process in processes.items() if process["parent"] not in processes)
    assert processes[root]["name"] == "sh"
    children = {process["name"]: pid for pid, process in processes.items() if process["parent"] == root}
    assert set(children) == {"QelixSubject", "sh"}
    grandchildren = [process["name"] for process in processes.values() if process["parent"] == children["sh"]]
    assert grandchildren == ["QelixSubject"]
    tree = full_text(session).split("\nprocesses\n")[1].split("\n\n")[0].splitlines()
    assert [re.match(r" +", line).end() for line in tree] == [2, 4, 4, 6]
    assert tree[0].split()[:2] == [str(root), "sh:"]


def test_a_forked_child_is_listed_below_its_parent(session):
    code = "import os, time\nif os.fork() == 0: time.sleep(0.05); os._exit(0)\nos.wait()"
    _, facts = record(session, "/usr/bin/python3", "-c", code)
    parents = {process["pid"]: process["parent"] for process in facts["processes"]}
    assert len(parents) == 2
    assert sum(parent in parents for parent in parents.values()) == 1


def test_a_session_whose_qelix_was_killed_is_still_reported(session):
    process = subprocess.Popen(
        [QELIX, "run", "-o", session, "--", SUBJECT, "await"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
    )
    assert process.stdout.readline() == "ready\n"
    (pid,) = [int(path.stem.rsplit("_", 1)[1]) for path in (session / "trace").iterdir()]
    process.kill()
    process.wait()
    try:
        result = qelix("report", "--full", session)
        assert result.returncode == 0, result.stderr
        assert f"session {session}: 1 process" in result.stdout
    finally:
        os.kill(pid, signal.SIGKILL)
        for block in [line.split("=")[1] for line in (session / "agent.conf").read_text().splitlines() if "SHM" in line]:
            os.unlink("/dev/shm" + block)
