"""Buffers, queue and writer: what reaches the file, when, and in which order."""

import os
from collections import Counter

import pytest

import records
from session import HOST, WRITER, program, wait_for

BUFFER = 32768
PROC_SIZE, CALL_SIZE, END_SIZE = 80, 64, 40
# what fits: strictly less than the buffer
FIRST_BUFFER_CALLS = (BUFFER - 1 - PROC_SIZE) // CALL_SIZE
BUFFER_CALLS = (BUFFER - 1) // CALL_SIZE
FIRST_BUFFER = PROC_SIZE + FIRST_BUFFER_CALLS * CALL_SIZE


def lock(run, times):
    run.tell(f"lock {times}")
    run.expect("done")


def wait_for_size(run, size):
    wait_for(lambda: run.trace_path.stat().st_size >= size, f"{size} bytes in the trace file")
    assert run.trace_path.stat().st_size == size


# ---- buffers -------------------------------------------------------------------------------------------------

def test_nothing_but_the_header_is_written_before_a_buffer_is_full(session):
    run = session.start("stepper")
    lock(run, FIRST_BUFFER_CALLS)
    assert run.trace_path.stat().st_size == records.FILE_HEADER_SIZE
    run.finish().assert_healthy(3)
    assert run.trace_path.stat().st_size == records.FILE_HEADER_SIZE + FIRST_BUFFER + END_SIZE


def test_a_record_that_would_fill_the_buffer_to_its_end_does_not_fit(session):
    assert (BUFFER_CALLS + 1) * CALL_SIZE == BUFFER
    run = session.start("stepper")
    lock(run, FIRST_BUFFER_CALLS + 1)
    wait_for_size(run, records.FILE_HEADER_SIZE + FIRST_BUFFER)
    # the second buffer holds calls alone: one less than would fill it
    lock(run, BUFFER_CALLS - 1)
    assert run.trace_path.stat().st_size == records.FILE_HEADER_SIZE + FIRST_BUFFER
    lock(run, 1)
    wait_for_size(run, records.FILE_HEADER_SIZE + FIRST_BUFFER + BUFFER_CALLS * CALL_SIZE)
    run.finish().assert_healthy(3)
    assert len(run.calls()) == FIRST_BUFFER_CALLS + BUFFER_CALLS + 1


def test_one_thread_is_in_the_file_in_the_order_of_time(session):
    run = session.start("stepper")
    lock(run, 20000)
    run.finish().assert_healthy(3)
    times = [record.start for record in run.trace()]
    assert times == sorted(times)
    assert len(times) == 20002


def test_many_threads_are_in_the_file_each_in_the_order_of_time(session):
    run = session.run("hammer", 16, 3000)
    run.assert_healthy(5)
    last = Counter()
    count = Counter()
    for record in run.trace():
        assert record.start >= last[record.tid]
        last[record.tid] = record.start
        if record.type == records.PTHREAD and record.kind == records.LOCK_MUTEX:
            count[record.tid] += 1
    assert sorted(count.values()) == [3000] * 16


def test_800000_locks_of_8_threads_are_800000_records_and_none_is_lost(session):
    run = session.run("hammer", 8, 100000)
    assert (run.status, run.out, run.err) == (5, b"hammered\n", b"")
    assert run.log_texts("ERROR", "WARN") == []
    assert "Lost trace records count = 0" in run.log_texts("INFO")
    count = Counter()
    trace = records.iterate_trace(run.trace_path)
    header = next(trace)
    for record in trace:
        count[record.tid, record.type, record.kind] += 1
    locks = [number for key, number in count.items() if key[1:] == (records.PTHREAD, records.LOCK_MUTEX)]
    assert locks == [100000] * 8
    assert count[run.pid, records.PTHREAD, records.CREATE] == count[run.pid, records.PTHREAD, records.JOIN] == 8
    assert sum(count.values()) == 800000 + 8 + 8 + 9 + 9
    assert header.pid == run.pid


def test_with_all_trace_buffers_in_use_more_are_created(session):
    # many threads alive at once need more than the eight that the stream starts with
    run = session.run("hammer", 40, 600)
    run.assert_healthy(5)
    assert len(run.calls(records.LOCK_MUTEX)) == 40 * 600


# ---- provisional records -------------------------------------------------------------------------------------

BLOCKING = {"mutex_lock": records.LOCK_MUTEX, "mutex_timedlock": records.LOCK_MUTEX,
            "cond_wait": records.WAIT_CV, "cond_timedwait": records.WAIT_CV,
            "rdlock": records.LOCK_RW, "timedrdlock": records.LOCK_RW,
            "wrlock": records.LOCK_RW, "timedwrlock": records.LOCK_RW, "barrier_wait": records.WAIT_BARRIER,
            "sem_wait": records.WAIT_SEMAPHORE, "sem_timedwait": records.WAIT_SEMAPHORE, "join": records.JOIN}


@pytest.mark.parametrize("end", ["main", "thread", "handler"])
@pytest.mark.parametrize("call", BLOCKING)
def test_at_the_end_a_thread_blocked_in_a_traced_call_contributes_its_provisional_record(session, call, end):
    run = session.run("blocked", call, end)
    run.assert_healthy(9)
    word, tid, address = run.lines()[0].split()
    own = [record for record in run.trace() if record.tid == int(tid)]
    assert (word, own[0].type) == ("blocked", records.PROC)
    assert (own[-1].kind, own[-1].lock, own[-1].result) == (BLOCKING[call], int(address), 0)
    assert own[-1].end == records.NOT_ENDED
    assert [record.end for record in own[:-1]].count(records.NOT_ENDED) == 0


def test_a_call_that_returned_leaves_no_provisional_record(session):
    session.configure(QELIX_TRACE_PTHREAD="1:3600000000000")
    run = session.run("hammer", 4, 100)
    run.assert_healthy(5)
    assert run.calls(records.LOCK_MUTEX, records.JOIN) == []


# ---- the writer thread ---------------------------------------------------------------------------------------

def test_the_writer_has_its_name_and_the_log_its_id(session):
    run = session.start("stepper")
    lock(run, 1)
    wait_for(run.writer, "a thread of the writer's name")
    tid = run.writer()
    run.finish().assert_healthy(3)
    assert f"Writer thread id is ({tid})." in run.log_texts("INFO")
    assert f"Exit from the writer thread ({tid})." in run.log_texts("INFO")
    assert WRITER == "ZorUmtWriter"
    assert tid not in {record.tid for record in run.trace()}


def test_a_process_that_ends_before_the_writer_starts_logs_the_two_exit_lines_and_ends_at_once(session):
    run = session.run("hammer", 2, 1000, ahead=[program("late_writer.so")])
    run.assert_healthy(5)
    writer = run.log()[0].tid
    assert run.log_texts() == [f"Writer thread id is ({writer}).", "Timer overrun count (0).",
                               f"Exit from the writer thread ({writer}).", "Lost trace records count = 0"]
    assert len(run.calls(records.LOCK_MUTEX)) == 2000


def test_the_writer_may_run_on_every_cpu_whatever_the_program_was_given(session):
    allowed = os.sched_getaffinity(0)
    one = min(allowed)
    run = session.start("stepper", before=lambda: os.sched_setaffinity(0, {one}))
    lock(run, 1)
    wait_for(run.writer, "a thread of the writer's name")
    assert os.sched_getaffinity(run.writer()) >= allowed
    assert os.sched_getaffinity(run.pid) == {one}
    run.finish().assert_healthy(3)


# ---- files ---------------------------------------------------------------------------------------------------

def test_data_file_names_contain_host_and_process_id(session):
    session.configure_sampling()
    run = session.run("hammer", 1, 10)
    assert os.listdir(session.root / "trace") == [f"trace_{HOST}_{run.pid}.umt"]
    assert os.listdir(session.root / "sample") == [f"profile_{HOST}_{run.pid}.ums"]
    assert os.listdir(session.root / "metadata") == [f"metadata_{HOST}_{run.pid}.meta"]


def test_an_existing_file_of_that_name_is_truncated(session):
    session.configure_sampling()

    def leave_old_files():
        for folder, name in (("trace", "trace_{}_{}.umt"), ("sample", "profile_{}_{}.ums"),
                             ("metadata", "metadata_{}_{}.meta")):
            (session.root / folder / name.format(HOST, os.getpid())).write_bytes(b"old" * 10000)
    run = session.start("hammer", 1, 10, before=leave_old_files).finish()
    run.assert_healthy(5)
    assert len(run.calls(records.LOCK_MUTEX)) == 10


def test_a_disabled_sample_stream_with_a_directory_gets_an_empty_file(session):
    session.configure(("QELIX_CPU_PROFILE_DIR", session.root / "sample"))
    run = session.run("hammer", 1, 10)
    run.assert_healthy(5)
    assert run.sample_path.stat().st_size == 0


def test_a_disabled_trace_stream_with_a_directory_gets_an_empty_file(session):
    session.configure(without=("QELIX_TRACE_PTHREAD",))
    run = session.run("hammer", 1, 10)
    assert (run.status, run.err) == (5, b"")
    assert run.trace_path.stat().st_size == 0
    assert run.metadata_path.stat().st_size >= 16


def test_with_sampling_disabled_only_the_trace_stream_is_drained_and_reported(session):
    run = session.run("hammer", 2, 2000)
    run.assert_healthy(5)
    assert not any("sample" in text for text in run.log_texts())


def test_with_tracing_disabled_only_the_sample_stream_is_drained_and_reported(session):
    session.configure_sampling()
    session.write_config(session.config_path.read_text().replace("QELIX_TRACE_PTHREAD=1:0:0\n", ""))
    run = session.run("hammer", 2, 2000)
    assert (run.status, run.err) == (5, b"")
    assert run.trace_path.stat().st_size == 0
    assert {record.type for record in run.samples()} == {records.SAMPLE_PROC, records.SAMPLE_THREAD_END}
    texts = run.log_texts("INFO")
    assert "Lost sample records count = 0" in texts
    assert not any("trace" in text for text in texts)


def test_with_both_streams_both_counts_are_reported_trace_first(session):
    session.configure_sampling()
    run = session.run("hammer", 2, 2000)
    run.assert_healthy(5)
    assert run.log_texts("INFO")[-2:] == ["Lost trace records count = 0", "Lost sample records count = 0"]


def test_sample_records_that_find_no_buffer_are_counted_as_lost_and_block_nobody(session):
    # Every thread brings eight sample buffers with it, so all that threads need is there.
    session.configure_sampling()
    run = session.run("hammer", 40, 10)
    run.assert_healthy(5)
    assert len([r for r in run.samples() if r.type == records.SAMPLE_THREAD_END]) == 41
    assert run.log_texts("INFO")[-1] == "Lost sample records count = 0"
