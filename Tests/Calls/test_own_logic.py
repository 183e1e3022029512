"""Raw system calls, thresholds and pauses."""

from pathlib import Path

import pytest

import records
from calls import FUTEX, syscalls_of
from session import wait_for

# FUTEX_WAIT, LOCK_PI, TRYLOCK_PI, WAIT_BITSET, WAIT_REQUEUE_PI
WAITING_OPERATIONS = {0, 6, 8, 9, 11}
PRIVATE, CLOCK = 128, 256
HOUR = 3600 * 10**9


def told_futexes(run):
    calls = [line.split() for line in run.lines() if line.startswith("call ")]
    return [(int(operation), int(result), int(error), int(address)) for _, operation, result, error, address in calls]


@pytest.fixture
def futexes(session):
    run = session.run("futexes", "futex")
    run.assert_healthy(10)
    return run


def test_waiting_futex_operations_are_recorded_with_their_number_in_place_of_a_function(futexes):
    traced = [(operation, address) for operation, _, _, address in told_futexes(futexes)
              if operation & ~(PRIVATE | CLOCK) in WAITING_OPERATIONS]
    found = [record for record in syscalls_of(futexes) if record.kind == 3]
    assert [record.value for record in found] == [address for _, address in traced]
    assert {(record.function, record.flags) for record in found} == {(FUTEX, 1)}
    assert len(traced) == 20


def test_futex_wake_is_passed_through_untraced_and_a_private_wait_is_traced(futexes):
    calls = told_futexes(futexes)
    (wake,) = [address for operation, _, _, address in calls if operation == 1]
    (wait,) = [address for operation, _, _, address in calls if operation == 0 | PRIVATE]
    values = [record.value for record in syscalls_of(futexes) if record.kind == 3]
    assert wake not in values
    assert wait in values


@pytest.mark.parametrize("config", ["1:0:0", f"1:{HOUR}", "0"])
def test_futex_results_and_errno_are_the_native_ones(session, config):
    native = session.native("futexes", "futex")
    session.configure(QELIX_TRACE_SYSCALL=config)
    run = session.run("futexes", "futex")
    relevant = [call[:3] for call in told_futexes(run)]
    assert relevant == [call[:3] for call in told_futexes(native)]
    assert {error for _, _, error in relevant} >= {4242, 11, 38}
    if config != "1:0:0":
        assert [record for record in syscalls_of(run) if record.kind == 3] == []


def test_other_numbers_are_passed_on_with_all_arguments_and_never_recorded(session):
    native = session.native("futexes", "other")
    run = session.run("futexes", "other")
    assert (run.out, run.status, run.err) == (native.out, native.status, native.err)
    assert b"call missing -1\nerrno 38\n" in run.out
    # what it says is written by write(2)
    assert {record.kind for record in syscalls_of(run)} <= {5}


def test_a_nanosleep_shorter_than_the_threshold_writes_no_record_and_its_provisional_record_is_withdrawn(session):
    session.trace_calls_from(HOUR)
    run = session.run("paused", "sleeps")
    run.assert_healthy(11)
    assert syscalls_of(run) == []
    # the thread's end follows its proc record at once
    assert [record.type for record in run.trace()] == [records.PROC, records.THREAD_END]
    session.trace_calls_from(1000000)
    run = session.run("paused", "sleeps")
    (sleep,) = syscalls_of(run)
    assert sleep.kind == 1 and sleep.end - sleep.start >= 1000000


def in_read(run):
    """Whether the program sits in read(2)."""
    return Path(f"/proc/{run.pid}/syscall").read_text().startswith("0 ")


def count_of_reads(session, *changes):
    run = session.start("paused", "reads")
    run.process.stdin = run.process.stdin.detach()
    for change in changes:
        wait_for(lambda: in_read(run), "the read")
        before = Path(f"/proc/{run.pid}/io").read_text()
        change()
        run.process.stdin.write(b"x")
        wait_for(lambda: Path(f"/proc/{run.pid}/io").read_text() != before and in_read(run), "the next read")
    run.process.stdin.close()
    run.process.stdin = None
    run.finish()
    assert (run.status, run.err) == (11, b"")
    return len([record for record in syscalls_of(run) if record.kind == 5])


def test_calls_across_the_edges_of_a_pause_are_recorded_and_those_inside_of_one_are_not(session):
    pause, resume = session.block.pause, session.block.resume
    running = lambda: None  # noqa: E731
    # the last read, which sees the end of input, is recorded where nothing pauses
    assert count_of_reads(session, running, running) == 3
    # begins running and ends paused; begins and ends in that pause (twice, the end of input included)
    assert count_of_reads(session, lambda: pause(7), running) == 1
    resume()
    # ... ends in another pause; ends running
    assert count_of_reads(session, lambda: pause(7), running, lambda: pause(8), resume) == 4
    # an id of 0 counts as running
    assert count_of_reads(session, lambda: pause(0), running) == 3
    resume()
