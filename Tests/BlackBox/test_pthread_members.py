"""Every member of the pthread family, by its pattern: what it records, and what it does not."""

from collections import namedtuple

import pytest

import records
from gate import run_gated
from session import program

# name: kind of its records, pattern
MEMBERS = {
    "pthread_create": (records.CREATE, "always"),
    "pthread_mutex_lock": (records.LOCK_MUTEX, "blocking"),
    "pthread_mutex_trylock": (records.LOCK_MUTEX, "try"),
    "pthread_mutex_timedlock": (records.LOCK_MUTEX, "timed"),
    "pthread_cond_wait": (records.WAIT_CV, "blocking"),
    "pthread_cond_timedwait": (records.WAIT_CV, "timed"),
    "pthread_rwlock_rdlock": (records.LOCK_RW, "blocking"),
    "pthread_rwlock_tryrdlock": (records.LOCK_RW, "try"),
    "pthread_rwlock_timedrdlock": (records.LOCK_RW, "timed"),
    "pthread_rwlock_wrlock": (records.LOCK_RW, "blocking"),
    "pthread_rwlock_trywrlock": (records.LOCK_RW, "try"),
    "pthread_rwlock_timedwrlock": (records.LOCK_RW, "timed"),
    "pthread_spin_lock": (records.LOCK_SPIN, "spin"),
    "pthread_spin_trylock": (records.LOCK_SPIN, "try"),
    "pthread_barrier_wait": (records.WAIT_BARRIER, "blocking"),
    "sem_wait": (records.WAIT_SEMAPHORE, "blocking"),
    "sem_trywait": (records.WAIT_SEMAPHORE, "try"),
    "sem_timedwait": (records.WAIT_SEMAPHORE, "timed"),
    "pthread_join": (records.JOIN, "blocking"),
    "pthread_cancel": (records.CANCEL, "always"),
}
Told = namedtuple("Told", "name object result function")
HOUR = 3600 * 10**9


def told_calls(run):
    return [Told(name, int(obj), int(result), int(function))
            for _, name, obj, result, function in (line.split() for line in run.lines())]


def written(call):
    """The record that a told call leaves, as far as it does not depend on time."""
    return MEMBERS[call.name][0], call.object, call.result, call.function


def records_of_main(run):
    return [(record.kind, record.lock, record.result, record.function)
            for record in run.calls() if record.tid == run.pid]


def test_every_member_is_called_with_good_and_bad_outcomes(session):
    calls = told_calls(session.native("member_calls"))
    assert {call.name for call in calls} == set(MEMBERS)
    assert {call.name for call in calls if call.result == 0} == set(MEMBERS) - {"pthread_barrier_wait"}
    failing = {call.name for call in calls if call.result != 0}
    assert failing >= {name for name, (_, pattern) in MEMBERS.items() if pattern in ("try", "timed")}


def test_records_of_every_member_in_order_object_result_and_function(session):
    run = session.run("member_calls")
    run.assert_healthy()
    expected = [written(call) for call in told_calls(run)
                if not (MEMBERS[call.name][1] == "try" and call.result != 0)]
    assert records_of_main(run) == expected


def test_a_trylock_that_fails_writes_nothing_also_with_threshold_0(session):
    run = session.run("member_calls")
    failed = {(call.object, call.function) for call in told_calls(run)
              if MEMBERS[call.name][1] == "try" and call.result != 0}
    assert len(failed) >= 5
    assert not [record for record in run.calls()
                if record.result != 0 and (record.lock, record.function) in failed]


def test_a_trylock_with_threshold_1_ns_or_more_writes_nothing_also_on_success(session):
    session.configure(QELIX_TRACE_PTHREAD="1:1")
    run = session.run("member_calls", ahead=[program("fake_clock.so")], env={"ZORV_TEST_CLOCK_STEP": 1})
    run.assert_healthy()
    expected = [written(call) for call in told_calls(run) if MEMBERS[call.name][1] != "try"]
    assert records_of_main(run) == expected


def test_create_and_cancel_know_no_threshold(session):
    session.configure(QELIX_TRACE_PTHREAD=f"1:{HOUR}")
    run = session.run("member_calls")
    run.assert_healthy()
    expected = [written(call) for call in told_calls(run) if MEMBERS[call.name][1] == "always"]
    assert records_of_main(run) == expected


def test_a_timed_wait_whose_deadline_in_nanoseconds_is_below_the_threshold_is_untraced(session, gate):
    for threshold, recorded in ((0, 1), (1, 0), (HOUR, 0)):
        session.configure(QELIX_TRACE_PTHREAD=f"1:{threshold}")
        run = run_gated(session, gate, "timed_at_zero")
        assert len(run.calls(records.WAIT_SEMAPHORE)) == recorded
    # nothing is parked either: the call would be seen as one that did not return
    session.configure(QELIX_TRACE_PTHREAD="1:1")
    run = gate.start(session, "timed_at_zero")
    run.line()
    run.tell("go")
    gate.wait()
    session.block.stop()
    run.wait_for_writers_end()
    # without a lock of its own the agent does not start, and leaves no file at all
    assert not run.trace_path.exists() or run.calls() == []
    gate.open()
    run.expect("result 0")


@pytest.mark.parametrize("call, kind", [("blocking", records.LOCK_MUTEX), ("timed", records.WAIT_SEMAPHORE),
                                        ("spin", records.LOCK_SPIN), ("cancel", records.CANCEL)])
@pytest.mark.parametrize("result", [-1, 16, 110, 4242, -2147483648])
def test_the_result_of_the_call_is_recorded_and_given_back(session, gate, call, kind, result):
    run = run_gated(session, gate, call, result=result)
    assert run.result == str(result)
    assert [record.result for record in run.calls(kind)] == [result]


@pytest.mark.parametrize("call, parked", [("blocking", True), ("timed", True), ("try", False), ("spin", False),
                                          ("cancel", False)])
def test_only_blocking_and_timed_calls_park_a_provisional_record(session, gate, call, parked):
    run = gate.start(session, call)
    run.line()
    run.tell("go")
    gate.wait()
    session.block.stop()
    run.wait_for_writers_end()
    assert [record.end for record in run.calls()] == [records.NOT_ENDED] * parked
    gate.open()
    run.expect("result 0")
    run.finish()
    assert (run.status, run.err) == (0, b"")


# ---- members with logic of their own -------------------------------------------------------------------------

def test_pthread_cancel_that_returns_0_writes_no_thread_end_record(session, gate):
    run = run_gated(session, gate, "cancel", result=0)
    (cancelled,) = run.calls(records.CANCEL)
    assert (cancelled.lock, cancelled.result) == (0x5151, 0)
    assert len([record for record in run.trace() if record.type == records.THREAD_END]) == 1


@pytest.mark.parametrize("call, handle", [("cancel", 0x5151), ("cancel_self", 0)])
def test_pthread_cancel_that_fails_writes_one_naming_the_thread(session, gate, call, handle):
    run = run_gated(session, gate, call, result=3)
    (cancelled,) = run.calls(records.CANCEL)
    assert cancelled.result == 3
    ends = [record for record in run.trace() if record.type == records.THREAD_END]
    assert [(record.tid, record.handle) for record in ends] == [(run.pid, handle), (run.pid, 0)]


def test_pthread_cancel_with_the_event_disabled_writes_only_the_thread_end(session, gate):
    session.configure(QELIX_TRACE_PTHREAD="0")
    run = run_gated(session, gate, "cancel", result=3)
    # without a lock of its own the agent does not start, and leaves no file at all
    assert not run.trace_path.exists() or run.calls() == []
    assert [record.handle for record in run.trace() if record.type == records.THREAD_END] == [0x5151, 0]


def test_pthread_setname_np_on_another_thread_writes_a_proc_record_with_thread_id_minus_1(session):
    run = session.run("names")
    run.assert_healthy()
    assert run.lines()[:5] == ["self 0", "other 0", "too long 34", "now renamed", "now a worker"]
    _, own, other = run.lines()[5].split()
    named = [(record.tid, record.name, record.handle) for record in run.trace()
             if record.type == records.PROC and record.name != b"names"]
    # the one that failed wrote none
    assert named == [(run.pid, b"renamed", int(own)), (-1, b"a worker", int(other))]
    assert all(record.start > 0 for record in run.trace() if record.type == records.PROC)


def test_pthread_setname_np_writes_its_proc_record_also_with_the_event_disabled(session):
    session.configure(QELIX_TRACE_PTHREAD="0")
    run = session.run("names")
    run.assert_healthy()
    assert len([r for r in run.trace() if r.type == records.PROC and r.tid == -1]) == 1


def test_pthread_setname_np_while_stopped_names_and_writes_nothing(session):
    session.block.stop()
    run = session.run("names")
    assert run.lines()[3:5] == ["now renamed", "now a worker"]
    assert not run.trace_path.stat().st_size or run.trace() == []


# ---- look-ups that find nothing ------------------------------------------------------------------------------

@pytest.mark.parametrize("lookup, name, call", [
    ("fail_dlsym.so", "pthread_mutex_lock", "blocking"), ("fail_dlvsym.so", "pthread_mutex_trylock", "try"),
    ("fail_dlvsym.so", "sem_timedwait", "timed"), ("fail_dlvsym.so", "pthread_spin_lock", "spin"),
    ("fail_dlvsym.so", "pthread_cancel", "cancel"), ("fail_dlvsym.so", "pthread_create", "create"),
])
def test_a_failed_look_up_prints_its_message_and_returns_minus_1(session, lookup, name, call):
    run = session.start("gated", call, ahead=[program(lookup)],
                        env={"ZORV_TEST_LOOKUP": name, "ZORV_TEST_LOOKUP_WHILE": session.root})
    run.line()
    run.tell("go")
    run.expect("result -1")
    run.finish()
    assert run.status == 0
    # the agent itself needs some of these names too, and says so in other words
    assert run.err.decode().splitlines().count(f"Failed to get the symbol address for ({name}).") == 1
    # without a lock of its own the agent does not start, and leaves no file at all
    assert not run.trace_path.exists() or run.calls() == []


@pytest.mark.parametrize("failures", [1, 2, 5])
def test_a_failed_look_up_is_tried_again_by_the_next_call(session, failures):
    marker = session.root / "look-ups fail"
    marker.touch()
    run = session.start("stepper", ahead=[program("fail_dlvsym.so")],
                        env={"ZORV_TEST_LOOKUP": "pthread_setname_np", "ZORV_TEST_LOOKUP_WHILE": marker})
    results = ["named -1"] * failures + ["named 0"] * 2
    for number, result in enumerate(results):
        if number == failures:
            marker.unlink()
        run.tell("name")
        run.expect(result)
        run.expect("done")
    run.finish()
    message = b"Failed to get the symbol address for (pthread_setname_np).\n"
    assert (run.status, run.err) == (3, message * failures)
    assert [record.name for record in run.trace() if record.type == records.PROC] == [b"stepper"] * 3
