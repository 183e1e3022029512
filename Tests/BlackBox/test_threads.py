"""How threads begin and end: their proc and end records, their names, the record of their creation."""

import pytest

import records
from session import AGENT, wait_for


def told_threads(run):
    """The (name, tid, handle) of the threads that the program told of."""
    return [(name, int(tid), int(handle))
            for word, name, tid, handle in (line.split() for line in run.lines()) if word == "thread"]


def of_type(run, kind, tid=None):
    return [record for record in run.trace() if record.type == kind and tid in (None, record.tid)]


def run_mode(session, mode, status=0):
    run = session.run("threads", mode)
    run.assert_healthy(status)
    return run


@pytest.mark.parametrize("mode", ["joined", "detached", "exits", "nested"])
def test_a_thread_has_one_proc_record_its_calls_and_one_end_record(session, mode):
    run = run_mode(session, mode)
    threads = told_threads(run)
    assert len(threads) == (2 if mode == "nested" else 1)
    for _, tid, handle in threads:
        own = [record for record in run.trace() if record.tid == tid]
        assert (own[0].type, own[0].handle, own[0].name) == (records.PROC, handle, b"threads")
        assert (own[1].type, own[1].kind) == (records.PTHREAD, records.LOCK_MUTEX)
        assert (own[-1].type, own[-1].handle) == (records.THREAD_END, 0)
        assert [record.type for record in own].count(records.PROC) == 1
        assert [record.type for record in own].count(records.THREAD_END) == 1
        assert own[0].start <= own[1].start <= own[-1].start
    assert {record.tid for record in run.trace()} == {run.pid} | {tid for _, tid, _ in threads}


def test_the_main_threads_proc_record_is_the_first_and_has_no_handle(session):
    run = run_mode(session, "joined")
    first = min(run.trace(), key=lambda record: record.start)
    assert (first.type, first.handle, first.name, first.end) == (records.PROC, 0, b"threads", 0)
    assert first.tid == first.pid == run.pid


def test_creation_is_recorded_with_the_new_handle_whatever_the_threshold(session):
    session.configure(QELIX_TRACE_PTHREAD="1:3600000000000")
    run = run_mode(session, "joined")
    ((_, tid, handle),) = told_threads(run)
    (created,) = run.calls()
    assert (created.kind, created.lock, created.result, created.tid) == (records.CREATE, handle, 0, run.pid)
    assert created.start <= created.end
    assert len(of_type(run, records.PROC, tid)) == 1


def test_a_failed_creation_is_recorded_with_its_result(session):
    run = run_mode(session, "create_fails")
    _, result, handle = run.lines()[0].split()
    (created,) = run.calls(records.CREATE)
    assert (created.result, created.lock) == (int(result), int(handle))
    assert created.result == 11  # EAGAIN
    assert len(of_type(run, records.PROC)) == 1


def test_thread_creation_with_the_pthread_event_disabled_records_nothing_yet_the_thread_is_initialised(session):
    session.configure(QELIX_TRACE_PTHREAD="0")
    run = run_mode(session, "joined")
    ((_, tid, handle),) = told_threads(run)
    assert run.calls() == []
    assert [(record.type, record.handle) for record in run.trace() if record.tid == tid] == \
           [(records.PROC, handle), (records.THREAD_END, 0)]


def test_a_thread_begins_with_the_name_of_its_creator(session):
    run = run_mode(session, "inherits_name")
    ((_, tid, _),) = told_threads(run)
    (proc,) = of_type(run, records.PROC, tid)
    assert proc.name == b"fifteen letters"
    assert of_type(run, records.PROC, run.pid)[0].name == b"threads"


def test_a_null_start_routine_still_gets_the_threads_set_up_and_finalisation(session):
    run = run_mode(session, "null_routine")
    ((_, _, handle),) = told_threads(run)
    (proc,) = [record for record in of_type(run, records.PROC) if record.handle == handle]
    assert len(of_type(run, records.THREAD_END, proc.tid)) == 1


def test_pthread_exit_writes_an_exit_record_and_the_end_of_the_thread(session):
    run = run_mode(session, "exits")
    ((_, tid, _),) = told_threads(run)
    (left,) = run.calls(records.EXIT)
    assert (left.tid, left.lock, left.result) == (tid, records.ALL_ONES, 0)
    assert left.start == left.end
    own = [record.type for record in run.trace() if record.tid == tid]
    assert own[-2:] == [records.PTHREAD, records.THREAD_END]


def test_pthread_exit_is_recorded_whatever_the_threshold(session):
    session.configure(QELIX_TRACE_PTHREAD="1:3600000000000")
    assert len(run_mode(session, "exits").calls(records.EXIT)) == 1


def test_pthread_exit_is_not_recorded_with_the_event_disabled(session):
    session.configure(QELIX_TRACE_PTHREAD="0")
    run = run_mode(session, "exits")
    ((_, tid, _),) = told_threads(run)
    assert run.calls() == []
    assert len(of_type(run, records.THREAD_END, tid)) == 1


def test_the_main_thread_leaving_finalises_the_whole_process(session):
    run = run_mode(session, "main_exits")
    threads = {name: tid for name, tid, _ in told_threads(run)}
    assert threads["main"] == run.pid
    left = [record.type for record in run.trace() if record.tid == run.pid]
    assert left[-2:] == [records.PTHREAD, records.THREAD_END]
    # the survivor goes on unrecorded
    assert run.calls(records.LOCK_MUTEX)[-1].tid == run.pid
    assert of_type(run, records.THREAD_END, threads["survivor"]) == []


def test_200_short_threads(session):
    run = run_mode(session, "many")
    threads = told_threads(run)
    assert len(threads) == 200
    assert len(run.calls(records.CREATE)) == len(run.calls(records.JOIN)) == 200
    assert len(run.calls(records.LOCK_MUTEX)) == 200
    procs, ends = of_type(run, records.PROC), of_type(run, records.THREAD_END)
    assert sorted((record.tid, record.handle) for record in procs) == \
           sorted([(run.pid, 0)] + [told[1:] for told in threads])
    assert sorted(record.tid for record in ends) == sorted([run.pid] + [tid for _, tid, _ in threads])
    assert {record.lock for record in run.calls(records.JOIN)} == {handle for _, _, handle in threads}


def test_a_thread_from_a_library_constructor_that_runs_before_the_agents(session):
    run = session.run("early_thread")
    run.assert_healthy()
    word, tid, handle = run.lines()[0].split()
    assert (word, run.lines()[1]) == ("early", "started 1")
    early = [record for record in run.trace() if record.tid == int(tid)]
    assert [record.type for record in early] == [records.PROC, records.PTHREAD, records.THREAD_END]
    assert early[0].handle == int(handle)
    assert [record.lock for record in run.calls(records.CREATE, records.JOIN)] == [int(handle)] * 2
    assert len([text for text in run.log_texts() if text.startswith("Writer thread id")]) == 1


def test_a_thread_created_while_stopped_is_not_wrapped(session):
    native = session.start("stepper", agent=False)
    native.tell("caller")
    libc = native.line()
    run = session.start("stepper")
    run.tell("caller")
    run.expect(f"caller {AGENT.name}")
    run.expect("done")
    session.block.stop()
    run.wait_for_writers_end()
    run.tell("caller")
    run.expect(libc)
    run.finish()
    assert run.status == 3


def test_the_buffers_of_an_ended_thread_are_written_soon(session):
    run = session.start("stepper")
    run.tell("thread 5")
    word, tid = run.line().split()

    def has_ended():
        return any(record.type == records.THREAD_END and record.tid == int(tid) for record in run.trace())
    wait_for(has_ended, "the thread's records in the file, while the program lives")
    assert word == "thread"
    assert [record.type for record in run.trace() if record.tid == int(tid)] == \
           [records.PROC] + [records.PTHREAD] * 5 + [records.THREAD_END]
    run.finish().assert_healthy(3)


def test_with_sampling_every_thread_has_its_sample_records_too(session):
    session.configure_sampling()
    run = session.run("threads", "joined")
    run.assert_healthy()
    ((_, tid, handle),) = told_threads(run)
    assert [(record.type, record.handle) for record in run.samples() if record.tid == tid] == \
           [(records.SAMPLE_PROC, handle), (records.SAMPLE_THREAD_END, 0)]
    assert [(record.type, record.handle) for record in run.samples() if record.tid == run.pid] == \
           [(records.SAMPLE_PROC, 0), (records.SAMPLE_THREAD_END, 0)]
