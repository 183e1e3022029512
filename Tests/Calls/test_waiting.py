"""Threads inside of calls that wait: at the end of the process, when they are cancelled, when a signal comes."""

import re
from pathlib import Path

import pytest

import records
from calls import FUTEX, ROWS, number_of

THREADS = 33
_TABLE = (Path(__file__).parent / "programs" / "waiting_calls.h").read_text()
# name -> p: a cancellation point, n: none, r: one that goes on waiting when it is interrupted
WAITING = dict(re.findall(r"^    \{\"(\w+)\", SYS_\w+, '(\w)'", _TABLE, re.MULTILINE))
CLASSES_THAT_PARK = ("sleep", "wait", "lock")
PARKED = [name for name in WAITING if ROWS.get(name, "lock") in CLASSES_THAT_PARK]
DIRECT = [name for name in WAITING if name not in PARKED]
CANCELLED = ["cleanup inner", "cleanup outer", "cancel 0", "joined cancelled"]


def test_every_waiting_call_of_the_table_is_here():
    assert {name for name, row_class in ROWS.items() if row_class in CLASSES_THAT_PARK} | {"futex"} == set(PARKED)


def kind_of(name):
    return 3 if name == "futex" else number_of(name)


def parked_records(run):
    return [record for record in run.trace() if record.end == records.NOT_ENDED]


@pytest.mark.parametrize("name", PARKED)
def test_33_threads_in_a_waiting_call_at_exit_leave_their_provisional_records(session, name):
    run = session.run("waiting", name, "exit", THREADS)
    run.assert_healthy(9)
    waiting = [int(line.split()[1]) for line in run.lines()]
    parked = parked_records(run)
    assert sorted(record.tid for record in parked) == sorted(waiting)
    assert len(parked) == THREADS
    assert {(record.type, record.kind) for record in parked} == {(records.SYSCALL, kind_of(name))}
    (function,) = {record.function for record in parked}
    assert (function == FUTEX) == (name == "futex")


@pytest.mark.parametrize("name", ["read", "accept", "fcntl"])
def test_direct_calls_park_nothing(session, name):
    run = session.run("waiting", name, "exit", 3)
    run.assert_healthy(9)
    assert parked_records(run) == []


@pytest.mark.parametrize("name", WAITING)
def test_cancellation_in_a_waiting_call_runs_the_cleanup_handlers(session, name):
    for kind in ("deferred", "async", "pending") if WAITING[name] != "n" else ("async",):
        native = session.native("waiting", name, "cancel", kind)
        assert sorted(native.lines()) == sorted(CANCELLED)
        run = session.run("waiting", name, "cancel", kind)
        assert sorted(run.lines()) == sorted(CANCELLED)
        run.assert_healthy(native.status)


@pytest.mark.parametrize("name", [name for name, kind in WAITING.items() if kind != "r"])
def test_a_call_interrupted_by_a_signal_keeps_result_and_errno(session, name):
    native = session.native("waiting", name, "interrupt")
    run = session.run("waiting", name, "interrupt")
    run.assert_healthy(5)
    assert run.out == native.out
    assert native.out.endswith(b"errno 4\n") or name in ("sleep", "clock_nanosleep"), native.out
    assert parked_records(run) == []
