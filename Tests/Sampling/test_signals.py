"""What a signal that lands anywhere may not do. Each run would hang, die or tear a record without the rule that it is
named after; how long anything may take is the harness's patience."""

import os
import resource
from collections import Counter

import pytest

import records
from sampling import (SIGNAL, all_records, assert_files_parse, assert_sound, child_run, complaints, lost, said,
                      samples_of)
from session import program

STORM_MS = 1500
FORK_MS = 4000
REAL_TIMER = {"QELIX_TIMER_INTERVAL": 1000000}


def storm(session, mode, *arguments, status=0, env=None, **options):
    run = session.start("storm", mode, *(arguments or (STORM_MS,)),
                        env={"ZORV_TEST_MODULE": program("module.so"), **(env or {})}, **options)
    run.finish()
    assert (run.status, run.err) == (status, b""), run.lines()[-3:]
    assert complaints(session) == []
    assert_files_parse(session)
    return run


def sent(run):
    (count,), = said(run, "sent")
    return int(count)


def assert_each_is_present_or_counted(run, names=0):
    """Every signal that a living thread took is a sample, or is lost and counted; so are names and ends."""
    found = Counter(record.type for record in all_records(run))
    threads = found[records.SAMPLE_THREAD_END]
    assert sent(run) > 100
    missing = sent(run) + names - found[records.SAMPLE] - found[records.SAMPLE_PROC] - threads
    # each thread has one record of its name and one of its end
    expected = missing + 2 * run_threads(run)
    assert expected == lost(run.session), (found, sent(run), lost(run.session))


def run_threads(run):
    """All threads that had records: every one of these programs' threads ends by returning."""
    return len({record.tid for record in all_records(run)})


# ---- interrupted work ------------------------------------------------------------------------------------

@pytest.mark.parametrize("mode", ["burn", "memory", "throw", "errno"])
def test_every_sample_is_present_or_counted(session, mode):
    run = storm(session, mode)
    assert_each_is_present_or_counted(run)
    assert len(samples_of(run)) > sent(run) / 2


@pytest.mark.parametrize("mode", ["modules", "dlopen"])
def test_a_sample_inside_the_loader_blocks_nobody(session, mode):
    run = storm(session, mode, STORM_MS, 3000)
    assert_each_is_present_or_counted(run)
    assert len(samples_of(run)) > 100


def test_a_program_with_the_same_unwinder_is_not_blocked(session):
    run = storm(session, "own-unwinder", STORM_MS, 3000)
    assert_each_is_present_or_counted(run)


def test_names_are_written_whole_beside_samples(session):
    run = storm(session, "names")
    found = Counter(record.type for record in all_records(run))
    assert found[records.SAMPLE_PROC] > 1000
    # how many names there were only the program knows; nothing else may be missing
    assert found[records.SAMPLE] + lost(session) >= sent(run)
    names = {record.name for record in all_records(run) if record.type == records.SAMPLE_PROC}
    assert names <= {b"storm"} | {b"name %d" % i for i in range(1000)}


def test_handlers_of_the_program_interrupt_the_sampling_handler(session):
    session.trace_too()
    run = storm(session, "handlers")
    assert_each_is_present_or_counted(run)


@pytest.mark.parametrize("mode", ["memory", "dlopen", "throw", "names"])
def test_storm_timer_and_tracing_together(session, mode):
    session.configure(("QELIX_TRACE_SYSCALL", "1:0:0"), ("QELIX_TRACE_PTHREAD", "1:0:0"),
                      ("QELIX_UMT_DIR", session.root / "trace"), **REAL_TIMER)
    run = storm(session, mode, STORM_MS, 3000)
    assert len(samples_of(run)) + lost(session) >= sent(run)


# ---- threads ---------------------------------------------------------------------------------------------

@pytest.mark.parametrize("mode", ["threads", "exit-threads"])
def test_threads_are_created_and_ended_under_fire(session, mode):
    session.configure(**REAL_TIMER)
    run = storm(session, mode)
    found = Counter(record.type for record in all_records(run))
    assert found[records.SAMPLE_PROC] > 100
    assert found[records.SAMPLE_PROC] + found[records.SAMPLE_THREAD_END] + lost(session) >= \
        2 * (len({record.tid for record in all_records(run)}) - 1)
    for tid in {record.tid for record in all_records(run)} - {run.pid}:
        kinds = [record.type for record in all_records_of(run, tid)]
        assert kinds.count(records.SAMPLE_THREAD_END) <= kinds.count(records.SAMPLE_PROC) or lost(session)


def all_records_of(run, tid):
    cache = run.__dict__.setdefault("by_tid", {})
    if not cache:
        for record in all_records(run):
            cache.setdefault(record.tid, []).append(record)
    return cache[tid]


@pytest.mark.parametrize("mode", ["cancel", "cancel-async"])
@pytest.mark.parametrize("rate", [2000, 20000])
def test_a_thread_is_cancelled_while_it_is_sampled(session, mode, rate):
    session.configure(**REAL_TIMER)
    storm(session, mode, 0, rate)


def test_a_sample_on_an_alternate_stack_touches_nothing_below_it(session):
    native = session.native("storm", "altstack", STORM_MS)
    assert (native.status, native.err) == (0, b"")
    session.configure(QELIX_CALLSTACK_DEPTH=256, **REAL_TIMER)
    storm(session, "altstack")


@pytest.mark.parametrize("depth", [16, 256])
@pytest.mark.parametrize("rate", [0, 5000])
def test_a_thread_with_the_smallest_stack_lives(session, depth, rate):
    native = session.native("storm", "smallstack", 0, rate)
    assert (native.status, native.err) == (0, b"")
    session.configure(QELIX_CALLSTACK_DEPTH=depth, QELIX_TIMER_INTERVAL=1000000 if rate else 0)
    storm(session, "smallstack", 0, rate)


# ---- the end of the process ------------------------------------------------------------------------------

@pytest.mark.parametrize("tracing", [False, True])
def test_signals_during_and_after_the_finalisation(session, tracing):
    session.trace_too(**REAL_TIMER) if tracing else session.configure(**REAL_TIMER)
    for _ in range(40):
        run = session.run("storm", "exit", 0, 20000)
        assert (run.status, run.err) == (5, b"")
        # a thread that starts behind the finalisation is said, and not sampled
        assert [line for line in complaints(session) if "Failed to initialize the thread" not in line] == []
    assert_files_parse(session)
    assert len(samples_of(run)) > 0


@pytest.mark.parametrize("way", ["sigaction", "signal", "sigset", "ignore", "sigignore", "raw", "restore",
                                 "restore-signal"])
@pytest.mark.parametrize("number", [SIGNAL, 27])
def test_a_program_that_resets_every_signal_lives(session, way, number):
    session.configure(QELIX_PROFILING_SIGNAL_NUMBER=number, **REAL_TIMER)
    # without a storm: the timer is enough
    run = session.run("storm", "reset", 0, 0, env={"ZORV_TEST_RESET": way})
    assert_sound(run)
    if way not in ("raw", "ignore", "sigignore"):
        assert len(samples_of(run, run.pid)) > 5


# ---- other images and processes --------------------------------------------------------------------------

WAYS = ["execv", "execve", "execvp", "execl", "fexecve", "execveat", "raw"]


@pytest.mark.parametrize("way", WAYS)
@pytest.mark.parametrize("from_thread", [False, True])
@pytest.mark.parametrize("interval", [0, 1000000])
def test_a_new_image_lives_with_a_signal_pending(session, way, from_thread, interval):
    session.configure(QELIX_TIMER_INTERVAL=interval)
    run = session.run("replace", way, *(["thread"] if from_thread else []))
    assert (run.status, run.err) == (4, b"")
    assert "alive" in run.lines()
    assert "pending 1" in run.lines()
    assert_files_parse(session)


def test_a_failed_replacement_leaves_the_program_sampled(session):
    session.configure(**REAL_TIMER)
    run = session.run("replace", "fail")
    assert_sound(run, 4)
    times = [sample.start for sample in samples_of(run, run.pid)]
    assert len(times) > 30


@pytest.mark.parametrize("rate", [0, 5000])
def test_children_of_a_process_whose_threads_are_being_sampled(session, rate):
    env = {"ZORV_TEST_MODULE": program("module.so")}
    assert session.native("storm", "fork", FORK_MS, rate, env=env).status == 0
    session.configure(QELIX_PROFILE_CHILDREN=1, **REAL_TIMER)
    run = storm(session, "fork", FORK_MS, rate)
    children = [int(pid) for pid, in said(run, "child")]
    assert len(children) >= 8
    for child in children:
        found = all_records(run, child)
        assert {record.pid for record in found} == {child}
        assert Counter(record.type for record in found)[records.SAMPLE_PROC] == 1
        # the threads of the parent are not there
        assert {record.tid for record in found} == {child}
        assert child_run(run, child).metadata_path.exists()


def test_children_that_are_not_profiled(session):
    session.configure(QELIX_PROFILE_CHILDREN=0, **REAL_TIMER)
    run = storm(session, "fork", STORM_MS, 5000)
    for pid, in said(run, "child"):
        assert not child_run(run, int(pid)).sample_path.exists()


# ---- resources -------------------------------------------------------------------------------------------

def test_a_full_signal_queue_harms_nobody(session):
    session.configure(**REAL_TIMER)
    limit = lambda: resource.setrlimit(resource.RLIMIT_SIGPENDING, (8, 8))  # noqa: E731
    run = session.start("storm", "burn", STORM_MS, 20000, before=limit).finish()
    # without room for its signal a timer cannot be had; the program runs on all the same
    assert run.status == 0
    assert_files_parse(session)


def test_a_full_disk_harms_nobody(session):
    session.configure(**REAL_TIMER)
    limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (65536, 65536))  # noqa: E731
    run = session.start("storm", "burn", STORM_MS, 20000, before=limit).finish()
    assert run.status == 0
    assert_files_parse(session)
    assert run.sample_path.stat().st_size <= 65536


def test_few_descriptors_harm_nobody(session):
    session.configure(**REAL_TIMER)
    limit = lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (16, 16))  # noqa: E731
    run = session.start("storm", "modules", STORM_MS, 3000, before=limit,
                        env={"ZORV_TEST_MODULE": program("module.so")}).finish()
    assert (run.status, run.err) == (0, b"")
    assert_files_parse(session)
    assert os.path.getsize(run.sample_path) > 0
