"""Every call that does no harm, made for real: the same results, errno and data in every mode, and the right record
for each call."""

import os
import re
import resource
import shutil
import signal
from collections import namedtuple

import pytest

import records
from calls import ROWS, number_of
from session import program

STATUS = 8
# calls that would change the system, and one of a library that is not there: see test_fake_libc
NOT_MADE = {"vhangup", "move_pages"}
HAVE_OTHER_TESTS = {"daemon"}
CHILDREN = {"fork", "forkpty"}
# kinds of pthread records
PTHREAD = {
    "pthread_create": records.CREATE, "pthread_mutex_lock": records.LOCK_MUTEX,
    "pthread_mutex_clocklock": records.LOCK_MUTEX, "pthread_cond_clockwait": records.WAIT_CV,
    "pthread_rwlock_clockrdlock": records.LOCK_RW, "pthread_rwlock_clockwrlock": records.LOCK_RW,
    "sem_clockwait": records.WAIT_SEMAPHORE, "pthread_tryjoin_np": records.JOIN,
    "pthread_timedjoin_np": records.JOIN, "pthread_clockjoin_np": records.JOIN,
}
Made = namedtuple("Made", "name function value result")
FAULTS = ["ZorvUmaMalloc:1+", "ZorvUmaMalloc:40+", "ZorvUmaWrite:1+", "ZorvUmaCalloc:1+", "ZorvUmtAllocateNewBuffer:1+"]


def off(session):
    session.configure(without=("QELIX_TRACE_PTHREAD", "QELIX_TRACE_SYSCALL"))


def disabled(session):
    session.configure(QELIX_TRACE_SYSCALL="0", QELIX_TRACE_PTHREAD="0")


def traced(session):
    session.configure()


def traced_without_children(session):
    session.configure(("QELIX_PROFILE_CHILDREN", 0))


def above_an_hour(session):
    session.trace_calls_from(3600 * 10**9)


def with_samples(session):
    session.configure_sampling()


def paused(session):
    session.block.pause(3)


def stopped(session):
    session.block.stop()


MODES = [off, disabled, traced, traced_without_children, above_an_hour, with_samples, paused, stopped]


def run_calls(session, *args, tell=None, limit=lambda: None, **options):
    """Runs the program in an empty directory of its own."""
    directory = session.root / f"calls-{len(session.runs)}"
    directory.mkdir()
    run = session.start("every_call", *args, before=lambda: (os.chdir(directory), limit()), **options)
    if tell:
        tell(run)
    run.finish()
    shutil.rmtree(directory)
    return run


def notes(run):
    return [line for line in run.lines() if not line.startswith("@")]


def calls_made(run):
    lines = (line.split()[1:] for line in run.lines() if line.startswith("@"))
    return [Made(name, int(function), int(value), int(result)) for name, function, value, result in lines]


@pytest.fixture
def native(session):
    run = run_calls(session, agent=False)
    assert (run.status, run.err) == (STATUS, b"")
    return run


def test_every_row_is_called_at_least_once(native):
    names = {made.name for made in calls_made(native)}
    assert names == (ROWS.keys() - NOT_MADE) | PTHREAD.keys() | CHILDREN


def test_good_and_bad_outcomes_are_compared(native):
    lines = notes(native)
    assert len(lines) > 350
    failed = {line.split("(")[0] for line in lines if "= -1, errno" in line or "all ones" in line}
    assert len(failed) > 120
    assert not any("= -1, errno 4242" in line for line in lines)
    assert native.out.count(b"errno 4242") > 200


@pytest.mark.parametrize("mode", MODES, ids=lambda mode: mode.__name__)
def test_results_errno_and_data_are_those_of_the_native_run(session, native, mode):
    mode(session)
    run = run_calls(session)
    assert notes(run) == notes(native)
    assert (run.status, run.err) == (STATUS, b"")
    run.assert_all_files_parse()


def test_results_errno_and_data_when_the_agent_could_not_start(session, native):
    session.write_config("")
    run = run_calls(session)
    assert notes(run) == notes(native)
    assert run.status == STATUS
    # the program, its forked child, and the shell that it starts
    assert run.err.count(b"Qelix : Failed to initialize the constructor for pid") >= 2


def expected_record(made):
    """The record that a call must leave, or nothing."""
    if made.name in PTHREAD:
        if made.name == "pthread_tryjoin_np" and made.result != 0:
            return None
        return records.PTHREAD, PTHREAD[made.name], 0, made.function, made.value, made.result
    kind = 6 if made.name in CHILDREN else number_of(made.name)
    return records.SYSCALL, kind, 0, made.function, made.value, None


def test_each_call_leaves_one_record_with_class_flags_value_and_the_address_of_the_real_function(session):
    run = run_calls(session)
    run.assert_healthy(STATUS)
    names = {made.function: made.name for made in calls_made(run)}
    expected = [record for record in map(expected_record, calls_made(run)) if record]
    found = [(record.type, record.kind, record.flags, record.function,
              record.lock if record.type == records.PTHREAD else record.value, record.result)
             for record in run.trace()
             if record.tid == run.pid and record.type in (records.PTHREAD, records.SYSCALL)]
    assert [names.get(record[3], record[3]) for record in found] == [names[record[3]] for record in expected]
    assert found == expected
    times = [(record.start, record.end) for record in run.trace()
             if record.tid == run.pid and record.type in (records.PTHREAD, records.SYSCALL)]
    assert all(start <= end for start, end in times)
    assert times == sorted(times)


def test_a_sleep_lasts_in_its_record_as_long_as_it_took(session):
    run = run_calls(session)
    sleeps = {made.function for made in calls_made(run) if made.name in ("nanosleep", "clock_nanosleep")}
    lasted = [record.end - record.start for record in run.trace()
              if record.type == records.SYSCALL and record.function in sleeps]
    # one of a microsecond, one refused, one until the interval timer
    assert len(lasted) == 6
    assert sum(duration >= 1000 for duration in lasted) >= 4


# ---- our own work fails --------------------------------------------------------------------------------------

@pytest.mark.parametrize("fault", FAULTS)
def test_results_and_errno_while_the_agents_own_work_fails(session, native, fault):
    run = run_calls(session, ahead=[program("faults.so")], env={"ZORV_TEST_FAULT": fault})
    # a forked child that gets no records sees a failed fork, and says so by its status
    lines = [re.sub("(forked child's status|status at the terminal) 1\\b", r"\1 @", line) for line in notes(run)]
    repaired = [line.replace("status @", "status 16").replace("terminal @", "terminal 17") for line in lines]
    assert repaired == notes(native)
    assert any("@" in line for line in lines) == (fault == "ZorvUmaMalloc:40+")
    assert run.status == STATUS


@pytest.mark.parametrize("size", [4096, 40000])
def test_results_and_errno_with_a_limit_on_file_sizes(session, size):
    def limit():
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))

    native = run_calls(session, agent=False, limit=limit)
    run = run_calls(session, limit=limit)
    assert notes(run) == notes(native)
    assert (run.status, native.status) == (STATUS, STATUS)
    assert any("errno 27" in line for line in notes(native))
    run.assert_all_files_parse()


def test_results_and_errno_in_a_session_directory_that_is_removed_meanwhile(session, native):
    def remove(run):
        for folder in (".log", ".error", "trace", "metadata"):
            shutil.rmtree(session.root / folder)

    session.configure(("QELIX_PROFILE_CHILDREN", 0))
    run = run_calls(session, "after the end of input", tell=remove)
    assert notes(run) == notes(native)
    assert run.status == STATUS
