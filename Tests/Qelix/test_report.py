"""`qelix report` on recorded sessions whose locks and counts are known."""

import json
import re

import pytest

from conftest import SUBJECT, qelix, report
from made_session import Process, write_session

CLASSES = ["pthread", "sleep", "wait", "lock", "io-sync", "io", "syscall"]


def record(session, *arguments, threshold="0"):
    result = qelix("run", "--threshold", threshold, "-o", session, "--", SUBJECT, *arguments)
    return result, report(session)


def test_the_wall_time_is_that_of_the_program(session):
    result = qelix("run", "-o", session, "sh", "-c", "sleep 0.3; kill -KILL $$")
    facts = report(session)
    assert facts["wallNs"] >= 300_000_000, "also of a program whose last records are lost"
    assert "0 ns of wall time" not in result.stderr


def test_the_writers_of_the_agent_are_looked_at_while_they_live(session):
    result = qelix("run", "-o", session, "sleep", "1")
    facts = json.loads((session / "session.json").read_text())
    assert facts["writerCpuNs"] > 0
    assert "its writing threads had used" in " ".join(result.stderr.split())


def threads_by_name(facts):
    (process,) = facts["processes"]
    return {thread["name"]: thread for thread in process["threads"]}


def calls_by_kind(thread):
    return {call["kind"]: call for call in thread["calls"]}


def test_who_waited_for_which_lock(session):
    result, facts = record(session, "contend", "50")
    address = int(result.stdout, 16)
    threads = threads_by_name(facts)
    assert set(threads) == {"QelixSubject", "holder", "waiter"}
    assert facts["processes"][0]["name"] == "QelixSubject"
    main = calls_by_kind(threads["QelixSubject"])
    assert main["create"]["calls"] == 2 and main["join"]["calls"] == 2
    assert calls_by_kind(threads["holder"])["barrier"]["calls"] == 1
    mutex = calls_by_kind(threads["waiter"])["mutex"]
    assert mutex["calls"] == 1
    assert mutex["totalNs"] == mutex["longestNs"] == mutex["p50Ns"] == mutex["p99Ns"] > 0
    (lock,) = [lock for lock in facts["locks"] if lock["address"] == address]
    assert lock["kind"] == "mutex"
    assert lock["calls"] == 2
    assert lock["threads"] == sorted([threads["holder"]["tid"], threads["waiter"]["tid"]])


def test_a_call_that_never_returned(session):
    result, facts = record(session, "abandon")
    assert result.returncode == 3
    (call,) = facts["neverReturned"]
    assert call["kind"] == "mutex"
    assert call["address"] == int(result.stdout, 16)
    assert call["tid"] == threads_by_name(facts)["waiter"]["tid"]
    assert call["atLeastNs"] > 0
    text = qelix("report", "--full", session).stdout
    assert re.search(r"calls that never returned\n.*\n +\d+ waiter \(\d+\) +pthread_mutex_lock +0x", text)


def test_counts_are_exact(session):
    _, facts = record(session, "count", "100000")
    mutex = calls_by_kind(threads_by_name(facts)["QelixSubject"])["mutex"]
    assert mutex["calls"] == 100000
    assert facts["agent"]["lostTraceRecords"] == 0
    assert facts["agent"]["errors"] == []
    assert facts["thresholdsNs"] == dict.fromkeys(CLASSES, 0)


def test_calls_below_the_threshold_are_not_recorded(session):
    _, facts = record(session, "count", "1000", threshold="60000000000")
    assert threads_by_name(facts)["QelixSubject"]["calls"] == []
    assert facts["thresholdsNs"] == dict.fromkeys(CLASSES, 60000000000)
    assert "lock, io-sync, io, syscall below 60.0 s" in qelix("report", "--full", session).stdout


def test_run_prints_the_same_report(session):
    result, _ = record(session, "count", "10")
    assert result.stderr.endswith(qelix("report", session).stdout)


def test_a_damaged_file_is_named_and_what_precedes_is_reported(session):
    record(session, "count", "1000")
    (trace,) = (session / "trace").iterdir()
    trace.write_bytes(trace.read_bytes()[: 24 + 80 + 64 * 10 + 1])
    result = qelix("report", "--full", session)
    assert result.returncode == 1
    assert f"damaged: {trace}: byte offset {24 + 80 + 64 * 10}: " in result.stdout
    assert re.search(r"pthread_mutex_lock +10 ", result.stdout)


def test_what_is_no_session_is_refused_with_a_remedy(tmp_path):
    for path in [tmp_path, tmp_path / "missing"]:
        result = qelix("report", path)
        assert result.returncode == 1
        assert str(path) in result.stderr and "qelix run" in result.stderr
    result = qelix("report", cwd=tmp_path)
    assert result.returncode == 1 and "qelix-last is no session: nothing has been recorded here" in result.stderr
    assert "there is no such directory" in qelix("report", tmp_path / "none").stderr
    listed = qelix("list", cwd=tmp_path)
    assert (listed.returncode, listed.stdout) == (0, "") and "no session in ." in listed.stderr


@pytest.mark.parametrize("content, words", [
    ("{", "it is damaged or none of qelix's"),
    ("", "it is damaged or none of qelix's"),
    ('{"version": 0}', "it is damaged or none of qelix's"),
    ('{"version": 99, "command": ["later"]}', "its version is 99 and this qelix knows"),
])
def test_facts_of_the_run_that_cannot_be_understood_are_told(session, content, words):
    write_session(session, Process(100).thread(100, "main", 1000).thread_end(100, 2000))
    (session / "session.json").write_text(content)
    result = qelix("report", session)
    assert result.returncode == 0
    assert f"session.json: {words}" in " ".join(result.stdout.split())


def test_a_process_of_which_nothing_came_through_is_told(session):
    result = qelix("report", write_session(session, Process(100)))
    assert "killed: 1 process said no end" in result.stdout
    blocked = qelix("blocked", session).stdout
    assert "every recorded call returned" not in blocked and "qelix stop writes it" in " ".join(blocked.split())
