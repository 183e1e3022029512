"""Every field of every header and record that this agent writes."""

import os
import time

import pytest

import records
from session import HOST


def run_between_times(session, *command):
    before = time.clock_gettime_ns(time.CLOCK_MONOTONIC)
    run = session.run(*command)
    run.before, run.after = before, time.clock_gettime_ns(time.CLOCK_MONOTONIC)
    return run


@pytest.mark.parametrize("rank, written", [(None, 0), ("5", 5), ("-1", -1), ("32767", 32767), ("32768", -32768),
                                           ("65535", -1), ("65536", 0)])
def test_file_headers(session, rank, written):
    session.configure_sampling(*([("QELIX_MPI_RANK_ID", rank)] if rank else []))
    run = session.run("hammer", 1, 1)
    run.assert_healthy(5)
    expected = (records.MAGIC, run.pid, written, 2, 0, 0)
    assert records.read_trace(run.trace_path)[0] == expected
    assert records.read_samples(run.sample_path)[0] == expected
    assert records.read_metadata(run.metadata_path)[0] == (records.MAGIC, run.pid, 0, 1)


def test_trace_proc_record(session):
    run = run_between_times(session, "hammer", "1", "1")
    first = next(record for record in run.trace() if record.tid == run.pid)
    assert (first.type, first.size, first.kind, first.flags) == (records.PROC, 80, 0, 0)
    assert (first.pid, first.tid, first.handle, first.name) == (run.pid, run.pid, 0, b"hammer")
    assert run.before <= first.start <= run.after
    assert first.end == 0


def test_the_trace_proc_records_end_time_is_0_and_the_thread_ends_two_times_are_equal(session):
    run = run_between_times(session, "hammer", "2", "10")
    procs = [record for record in run.trace() if record.type == records.PROC]
    ends = [record for record in run.trace() if record.type == records.THREAD_END]
    assert [record.end for record in procs] == [0, 0, 0]
    assert len(ends) == 3
    for record in ends:
        assert (record.size, record.kind, record.flags, record.handle) == (40, 0, 0, 0)
        assert run.before <= record.start == record.end <= run.after


def test_pthread_record(session):
    run = run_between_times(session, "member_calls")
    told = [line.split() for line in run.lines()]
    address = {name: int(function) for _, name, _, _, function in told}
    first = run.calls(records.LOCK_MUTEX)[0]
    assert (first.size, first.flags, first.pid, first.tid) == (64, 0, run.pid, run.pid)
    assert (first.lock, first.result) == (int(told[0][2]), 0)
    assert first.function == address["pthread_mutex_lock"]
    assert run.before <= first.start <= first.end <= run.after
    negative = [record.result for record in run.calls(records.WAIT_SEMAPHORE) if record.result]
    assert negative and set(negative) == {-1}


def test_with_no_openmp_agent_loaded_the_region_id_is_0_in_every_record(session):
    session.configure(("QELIX_OPENMP_AGENT_PATH", "/nowhere/libOpenMPAgent.so"))
    run = session.run("member_calls")
    run.assert_healthy()
    assert {record.region for record in run.calls()} == {0}


def test_ids_are_those_of_the_process_and_its_threads(session):
    run = session.run("threads", "nested")
    tids = {int(line.split()[2]) for line in run.lines()} | {run.pid}
    assert {record.tid for record in run.trace()} == tids
    assert {record.pid for record in run.trace()} == {run.pid}


@pytest.mark.parametrize("keys, flags", [
    ((), 0),
    ((("QELIX_CALLSTACK_COLLECTION", 1), ("QELIX_CALLSTACK_DEPTH", 8)), records.FLAG_CALL_STACKS),
])
def test_sample_proc_and_thread_end_records(session, keys, flags):
    session.configure_sampling(*keys)
    run = run_between_times(session, "hammer", "2", "10")
    run.assert_healthy(5)
    cores = os.cpu_count()
    procs = [record for record in run.samples() if record.type == records.SAMPLE_PROC]
    ends = [record for record in run.samples() if record.type == records.SAMPLE_THREAD_END]
    assert len(procs) == len(ends) == 3
    for record in procs:
        assert (record.size, record.flags, record.name) == (72, flags, b"hammer")
    for record in ends:
        assert (record.size, record.flags, record.handle) == (32, 0, 0)
    for record in procs + ends:
        assert record.core < cores
        assert run.before <= record.start <= run.after
    assert sorted(record.tid for record in procs) == sorted(record.tid for record in ends)
    trace_procs = {record.tid: record for record in run.trace() if record.type == records.PROC}
    assert {(r.tid, r.handle, r.start) for r in procs} == \
           {(r.tid, r.handle, r.start) for r in trace_procs.values()}


def test_with_counters_not_configured_the_sample_file_has_no_metadata_record_and_bit_2_is_clear(session):
    session.configure_sampling()
    run = session.run("hammer", 1, 1)
    assert {record.type for record in run.samples()} == {records.SAMPLE_PROC, records.SAMPLE_THREAD_END}
    assert not any(record.flags & records.FLAG_COUNTERS for record in run.samples())


@pytest.mark.parametrize("codes, encoded", [("7", "70"), ("1,2,3", "10,20,30"), ("1,2", "10")])
def test_counter_metadata_record_is_the_first_of_the_sample_file(session, codes, encoded):
    session.configure_sampling(("QELIX_PMC_EVENTS", codes), ("QELIX_ENCODED_EVENTS", encoded))
    run = session.run("hammer", 1, 1)
    assert run.status == 5
    first, *rest = run.samples()
    number = len(codes.split(","))
    ids = [int(item) for item in encoded.split(",")]
    assert (first.type, first.size) == (records.SAMPLE_METADATA, 32 + 8 * number)
    assert (first.pid, first.tid) == (run.pid, run.pid)
    assert (first.core, first.flags, first.start) == (0, records.FLAG_COUNTERS, 0)
    assert list(first.events) == ids + [0] * (number - len(ids))
    assert records.SAMPLE_METADATA not in {record.type for record in rest}


def test_without_sampling_counters_leave_no_metadata_record(session):
    session.configure(("QELIX_PMC_EVENTS", "1,2"), ("QELIX_CPU_PROFILE_DIR", session.root / "sample"))
    run = session.run("hammer", 1, 1)
    assert run.status == 5
    assert run.sample_path.stat().st_size == 0


def test_metadata_file_begins_with_its_header(session):
    run = session.run("hammer", 1, 1)
    raw = run.metadata_path.read_bytes()
    assert raw[:16] == b"\xff" * 8 + run.pid.to_bytes(4, "little") + b"\0\0\1\0"
    assert run.metadata_path.name == f"metadata_{HOST}_{run.pid}.meta"


def test_without_a_metadata_directory_there_is_no_metadata_file(session):
    session.configure(without=("QELIX_METADATA_DIR",))
    run = session.run("hammer", 1, 1)
    run.assert_healthy(5)
    assert not run.metadata_path.exists()


def test_without_a_trace_directory_nothing_is_written_and_the_program_runs(session):
    session.configure(without=("QELIX_UMT_DIR",))
    run = session.run("hammer", 2, 2000)
    assert (run.status, run.out, run.err) == (5, b"hammered\n", b"")
    assert not run.trace_path.exists()
