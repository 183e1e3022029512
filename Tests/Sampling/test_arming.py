"""What arms sampling: the signal's action, the timers, and what is said when one of them cannot be had."""

import pytest

import records
from sampling import (SIGNAL, all_records, assert_files_parse, assert_sound, count_types, said, samples_of,
                      tell)
from session import program


class Calls:
    """What the timer and signal functions were asked for, as the preloaded object wrote it down."""

    def __init__(self, session, fault=""):
        self.path = session.root / "calls"
        self.options = {"ahead": [program("timer_faults.so")],
                        "env": {"ZORV_TEST_CALLS": self.path, "ZORV_TEST_FAULT": fault}}

    def lines(self, kind):
        lines = self.path.read_text().splitlines() if self.path.exists() else []
        return [line.partition(" ")[2] for line in lines if line.split()[0] == kind]

    def timers(self):
        """The fields of each timer that was created."""
        return [dict(field.split("=") for field in line.split()) for line in self.lines("create")]


def test_disabled_sampling_installs_no_handler_and_no_timer(session):
    session.trace_too(QELIX_ENABLE_SAMPLING=0)
    calls = Calls(session)
    run = session.start("sampler", **calls.options)
    tell(run, "again", "thread 0")
    caught = int(run.thread_status(run.pid, "SigCgt"), 16)
    run.finish()
    assert_sound(run, 3)
    assert not caught >> (SIGNAL - 1) & 1
    assert calls.lines("create") == [] and calls.lines("action") == []
    assert said(run, "result") == [["1"]]
    assert run.sample_path.stat().st_size == 0


def test_the_handler_is_installed_once_with_restart_and_siginfo(session):
    calls = Calls(session)
    run = session.run_sampler("again", "again", "thread 1", **calls.options)
    assert_sound(run, 3)
    assert calls.lines("action") == [f"signal={SIGNAL} flags=0x10000004 mask=0"]
    assert said(run, "result") == [["1"], ["1"]]


def test_a_forked_child_keeps_its_parents_handler(session):
    calls = Calls(session)
    session.configure(QELIX_PROFILE_CHILDREN=1)
    run = session.run_sampler("fork 3", "sample 1", **calls.options)
    assert_sound(run, 3)
    assert len(calls.lines("action")) == 1
    (child,), = said(run, "child")
    assert len(samples_of(run, int(child), int(child))) == 3


@pytest.mark.parametrize("number", [27, 34, 64])
def test_any_signal_can_be_the_profiling_signal(session, number):
    session.configure(QELIX_PROFILING_SIGNAL_NUMBER=number, QELIX_TIMER_INTERVAL=4000000)
    calls = Calls(session)
    run = session.run_sampler("burn 200", **calls.options)
    assert_sound(run, 3)
    assert calls.lines("action") == [f"signal={number} flags=0x10000004 mask=0"]
    assert len(samples_of(run)) > 10


def test_each_thread_has_a_timer_of_its_own_cpu_time(session):
    calls = Calls(session)
    run = session.run_sampler("thread 1", "thread 1", **calls.options)
    assert_sound(run, 3)
    tids = [run.pid] + [int(tid) for tid, in said(run, "thread")]
    assert [timer["tid"] for timer in calls.timers()] == [f"{tid}/{tid}" for tid in tids]
    for timer in calls.timers():
        assert (timer["clock"], timer["notify"], timer["signal"], timer["hasValue"]) == ("3", "4", str(SIGNAL), "1")
    assert len(calls.lines("delete")) == 3


@pytest.mark.parametrize("interval, period", [
    (1, "0.000000001"), (999999999, "0.999999999"), (1000000000, "1.000000000"), (1500000000, "1.500000000"),
    (7200000000001, "7200.000000001")])
def test_the_interval_is_split_into_seconds_and_nanoseconds(session, interval, period):
    session.configure(QELIX_TIMER_INTERVAL=interval)
    calls = Calls(session)
    run = session.run_sampler(**calls.options)
    assert_sound(run, 3)
    assert calls.lines("set") == [f"flags=0 value={period} interval={period} old=0"]


def test_a_timer_whose_first_expiry_comes_late_samples_rarely(session):
    session.configure(QELIX_TIMER_INTERVAL=150000000)
    run = session.run_sampler("burn 500")
    assert_sound(run, 3)
    assert 2 <= len(samples_of(run)) <= 4


# ---- failures --------------------------------------------------------------------------------------------

@pytest.mark.parametrize("fault, function, message", [
    ("get:1", "ZorvUmaConfigureTimerAndPmc", "Failed to get signal action in process ({pid})"),
    ("put:1", "ZorvUmaConfigureTimerAndPmc", "Failed to set signal handler for sigprof in process ({pid})"),
    ("ZorvUmaTimerCreate:1", "ZorvUmsCreateTimer",
     "Failed to create the timer for process ({pid}) and thread ({pid})."),
    ("ZorvUmaTimerSetTime:1", "ZorvUmsCreateTimer",
     "Failed to set the timer for process ({pid}) and thread ({pid})."),
])
def test_a_failure_at_the_start_is_said_and_the_program_runs_on(session, fault, function, message):
    session.configure(QELIX_TIMER_INTERVAL=4000000)
    calls = Calls(session, fault)
    run = session.run_sampler("burn 100", "name", **calls.options)
    assert run.status == 3
    assert run.err.decode() == f"Qelix : Failed to initialize the constructor for pid ({run.pid}).\n"
    (error,) = [line for line in run.log() if line.level == "ERROR"]
    assert (error.text, error.function) == (message.format(pid=run.pid), function)
    assert samples_of(run, run.pid) == []
    # the stream itself lives
    assert count_types(all_records(run))[records.SAMPLE_PROC] == 2


def test_a_failure_at_the_start_leaves_tracing_alive(session):
    session.trace_too()
    run = session.run_sampler("lock 100", **Calls(session, "ZorvUmaTimerCreate:1").options)
    assert run.status == 3
    assert len(run.calls(records.LOCK_MUTEX)) == 100


@pytest.mark.parametrize("fault, message", [
    ("ZorvUmaTimerCreate:2", "Failed to create the timer for process ({pid}) and thread ({tid})."),
    ("ZorvUmaTimerSetTime:2", "Failed to set the timer for process ({pid}) and thread ({tid})."),
])
def test_a_thread_without_a_timer_is_said_and_runs_on(session, fault, message):
    session.configure(QELIX_TIMER_INTERVAL=4000000)
    run = session.run_sampler("burn-thread 100", "burn 100", "burn-thread 100", **Calls(session, fault).options)
    assert (run.status, run.err) == (3, b"")
    first, second = (int(tid) for tid, in said(run, "thread"))
    assert [(line.text, line.function) for line in run.log() if line.level == "ERROR"] == [
        (message.format(pid=run.pid, tid=first), "ZorvUmsCreateTimer"),
        (f"Failed to initialize the thread ({first}).", "ZorvUmtPthreadCreateWrapper")]
    assert samples_of(run, first) == []
    assert len(samples_of(run, second)) > 5 and len(samples_of(run, run.pid)) > 5
    assert {record.type for record in all_records(run) if record.tid == first} == {
        records.SAMPLE_PROC, records.SAMPLE_THREAD_END}


def test_a_timer_that_cannot_be_deleted_is_said_for_each_thread(session):
    session.configure(QELIX_TIMER_INTERVAL=4000000)
    run = session.run_sampler("burn-thread 50", "burn 50", **Calls(session, "ZorvUmaTimerDelete:1+").options)
    assert (run.status, run.err) == (3, b"")
    (thread,), = said(run, "thread")
    assert [(line.text, line.function) for line in run.log() if line.level == "ERROR"] == [
        (f"Failed to delete the timer for process ({run.pid}) and thread ({tid}).", "ZorvUmsDestroyTimer")
        for tid in (thread, run.pid)]
    assert_files_parse(session)
    assert len(samples_of(run)) > 5
