"""What a sample holds, and when there is none."""

import pytest

import records
from sampling import (AGENT_NAME, HANDLER_FRAMES, RECORD_FIXED, Places, all_records, assert_sound, child_run,
                      count_types, counted, lost, said, samples_of, tell)
from session import program

BUFFER_SIZE = 32768


def test_each_signal_of_the_timer_is_one_sample(session):
    run = session.run_sampler("sample 100", "thread 50")
    assert_sound(run, 3)
    (thread,), = said(run, "thread")
    assert len(samples_of(run, run.pid)) == 100
    assert len(samples_of(run, int(thread))) == 50
    assert lost(session) == 0


def test_a_sample_without_counters_has_40_bytes_and_8_for_each_frame(session):
    run = session.run_sampler("sample 10", "deep 20")
    for sample in samples_of(run):
        assert sample.size == RECORD_FIXED + 8 * len(sample.stack)
        assert (sample.flags, sample.region, sample.events) == (records.FLAG_CALL_STACKS, 0, None)
    assert len({sample.size for sample in samples_of(run)}) == 2


def test_ids_and_times_of_a_sample(session):
    run = session.run_sampler("sample 20", "thread 20", "sample 20")
    (thread,), = said(run, "thread")
    main = samples_of(run, run.pid)
    assert [sample.start for sample in main] == sorted(sample.start for sample in main)
    between = [sample.start for sample in samples_of(run, int(thread))]
    assert main[19].start < min(between) <= max(between) < main[20].start
    assert {sample.pid for sample in samples_of(run)} == {run.pid}
    assert all(sample.core < 4096 for sample in samples_of(run))


def test_the_stack_begins_in_the_handler_and_goes_on_in_the_interrupted_function(session):
    run = session.run_sampler("sample 10")
    places = Places(run)
    for sample in samples_of(run):
        # the handler, the signal's delivery, the function that was interrupted, its callers, the start in libc
        assert places.split(sample) == [AGENT_NAME, "libc.so.6", "sampler", "libc.so.6", "sampler"]
        names = [places.function(address) for address in sample.stack]
        assert names.count("sample_self") == 1
        before = sample.stack[:names.index("sample_self")]
        assert len(before) <= HANDLER_FRAMES
        assert places.module(before[-1]) == "libc.so.6"


def test_a_deep_recursion_is_cut_at_the_configured_depth(session):
    session.configure(QELIX_CALLSTACK_DEPTH=16)
    run = session.run_sampler("deep 200")
    (sample,) = samples_of(run)
    places = Places(run)
    assert len(sample.stack) == 16 + HANDLER_FRAMES
    names = [places.function(address) for address in sample.stack]
    assert "recurse" in names
    assert set(names[names.index("recurse"):]) == {"recurse"}


@pytest.mark.parametrize("depth", [0, 1, 100, 1000])
def test_every_depth_leaves_room_for_the_handlers_own_frames(session, depth):
    session.configure(QELIX_CALLSTACK_DEPTH=depth)
    run = session.run_sampler("deep 2000")
    assert_sound(run, 3)
    (sample,) = samples_of(run)
    assert len(sample.stack) == depth + HANDLER_FRAMES


# The thread's first use of the unwinder stays within its buffer, too.
@pytest.mark.parametrize("frames", [1, 2, 7])
def test_a_depth_that_wraps_asks_for_what_its_buffer_holds(session, frames):
    session.configure(QELIX_CALLSTACK_DEPTH=2**32 - HANDLER_FRAMES + frames)
    run = session.run_sampler("thread 3", "sample 3")
    assert_sound(run, 3)
    assert [len(sample.stack) for sample in samples_of(run)] == 6 * [frames]


def test_no_record_is_larger_than_its_size_can_say(session):
    session.configure(QELIX_CALLSTACK_DEPTH=20000)
    run = session.run_sampler("deep 15000", "sample 3")
    assert_sound(run, 3)
    deep, *others = samples_of(run)
    assert deep.size == RECORD_FIXED + 8 * len(deep.stack) and len(deep.stack) > 1000
    assert len(others) == 3


def test_threads_that_sleep_have_no_samples(session):
    session.configure(QELIX_TIMER_INTERVAL=1000000)
    run = session.start("split", 1, 400)
    run.finish()
    assert_sound(run)
    (sleeper,), = said(run, "sleeper")
    (busy, *_), = said(run, "spent")
    assert samples_of(run, int(sleeper)) == []
    assert len(samples_of(run, int(busy))) > 10
    assert [record.type for record in all_records(run) if record.tid == int(sleeper)] == [
        records.SAMPLE_PROC, records.SAMPLE_THREAD_END]


def test_the_timer_samples_the_function_that_burns(session):
    session.configure(QELIX_TIMER_INTERVAL=4000000)
    run = session.run_sampler("burn 300", "burn-thread 300")
    assert_sound(run, 3)
    (thread,), = said(run, "thread")
    places = Places(run)
    for tid in run.pid, int(thread):
        burning = [sample for sample in samples_of(run, tid) if places.innermost_function(sample) == "burn"]
        assert len(burning) > 10


def test_a_signal_from_anybody_but_the_timer_writes_nothing(session):
    run = session.run_sampler("foreign", "foreign", "sample 1")
    assert_sound(run, 3)
    assert len(samples_of(run)) == 1
    assert counted(session, "Timer overrun count") == 0


def test_a_timers_signal_without_the_agents_record_writes_nothing(session):
    run = session.run_sampler("without-record", "sample 1")
    assert_sound(run, 3)
    assert len(samples_of(run)) == 1


def test_missed_expiries_are_added_up_in_the_log(session):
    run = session.run_sampler("overrun 5", "overrun 0", "overrun 2000000000", "overrun 2000000000")
    assert_sound(run, 3)
    assert counted(session, "Timer overrun count") == 4000000005
    assert len(samples_of(run)) == 4


def test_missed_expiries_of_a_real_timer_are_in_the_log(session):
    session.configure(QELIX_TIMER_INTERVAL=100000)
    run = session.run_sampler("burn 200")
    assert_sound(run, 3)
    # the timer fires on the kernel's tick: of 2000 expiries nearly all are missed or sampled
    assert counted(session, "Timer overrun count") + len(samples_of(run)) > 1000


def test_every_thread_has_its_name_and_its_end(session):
    run = session.run_sampler(*["thread 3"] * 10, "name", "sample 1")
    assert_sound(run, 3)
    threads = {int(tid) for tid, in said(run, "thread")}
    assert len(threads) == 10
    for tid in threads:
        kinds = [record.type for record in all_records(run) if record.tid == tid]
        assert kinds == [records.SAMPLE_PROC] + 3 * [records.SAMPLE] + [records.SAMPLE_THREAD_END]
    main = [record for record in all_records(run) if record.tid == run.pid]
    assert [record.type for record in main] == [records.SAMPLE_PROC, records.SAMPLE_PROC, records.SAMPLE,
                                                records.SAMPLE_THREAD_END]
    assert [record.name for record in main[:2]] == [b"sampler", b"renamed"]
    assert {record.flags for record in main[:3]} == {records.FLAG_CALL_STACKS}


def test_the_first_record_is_the_main_threads_name(session):
    run = session.run_sampler("sample 1")
    first = all_records(run)[0]
    assert (first.type, first.tid, first.handle, first.name) == (records.SAMPLE_PROC, run.pid, 0, b"sampler")


def test_sampling_without_call_stacks_writes_no_sample(session):
    session.configure(QELIX_CALLSTACK_COLLECTION=0, QELIX_TIMER_INTERVAL=1000000)
    run = session.run_sampler("sample 5", "overrun 7", "burn 100", "thread 5")
    assert_sound(run, 3)
    assert count_types(all_records(run)) == {records.SAMPLE_PROC: 2, records.SAMPLE_THREAD_END: 2}
    assert {record.flags for record in all_records(run)} == {0}
    # the handler is entered all the same
    assert counted(session, "Timer overrun count") >= 7


def test_nothing_is_sampled_during_a_pause(session):
    run = session.start("sampler")
    tell(run, "sample 3")
    session.block.pause(1)
    tell(run, "sample 5", "thread 2")
    session.block.resume()
    tell(run, "sample 4")
    run.finish()
    assert_sound(run, 3)
    assert len(samples_of(run)) == 7
    assert lost(session) == 0


def test_nothing_is_sampled_after_a_stop(session):
    session.configure(QELIX_TIMER_INTERVAL=1000000)
    run = session.start("sampler")
    tell(run, "sample 3", "burn 50")
    session.block.stop()
    run.wait_for_writers_end()
    size = run.sample_path.stat().st_size
    tell(run, "sample 5", "thread 2", "burn 100", "burn-thread 100")
    run.finish()
    assert_sound(run, 3)
    assert run.sample_path.stat().st_size == size
    assert len(samples_of(run)) >= 3


def test_both_kinds_of_collection_together(session):
    session.trace_too(QELIX_TIMER_INTERVAL=1000000)
    run = session.run_sampler("lock 1000", "sample 20", "burn 100", "thread 5")
    assert_sound(run, 3)
    assert len(run.calls(records.LOCK_MUTEX)) == 1000
    assert len(samples_of(run)) >= 25
    assert {record.type for record in run.trace()} >= {records.PTHREAD, records.PROC, records.THREAD_END}


def test_what_the_handler_does_is_not_traced(session):
    session.configure(("QELIX_TRACE_SYSCALL", "1:0:0"), ("QELIX_TRACE_PTHREAD", "1:0:0"),
                      ("QELIX_UMT_DIR", session.root / "trace"))
    counts = []
    for samples in (0, 500):
        run = session.run_sampler(f"sample {samples:03}", f"thread {samples:03}")  # as long a command
        assert_sound(run, 3)
        assert len(samples_of(run)) == 2 * samples
        counts.append(sum(record.type in (records.PTHREAD, records.SYSCALL) for record in run.trace()))
    assert counts[0] == counts[1]


def test_a_full_sample_stream_counts_what_it_loses(session):
    session.configure(QELIX_CALLSTACK_DEPTH=400)
    hold = session.root / "hold"
    run = session.start("sampler", ahead=[program("held_writes.so")], env={"ZORV_TEST_HOLD": hold})
    tell(run, "sample 1")
    hold.touch()
    tell(run, *["deep 500"] * 200, "name", "thread 2")
    hold.unlink()
    tell(run, "sample 1000")
    run.finish()
    assert_sound(run, 3)
    (thread,), = said(run, "thread")
    # 8 buffers, and none of the 8 that came with the thread: it found the first ones taken
    size = RECORD_FIXED + 8 * (400 + HANDLER_FRAMES)
    deep = [sample for sample in samples_of(run) if sample.size == size]
    per_buffer = (BUFFER_SIZE - 1) // size
    assert len(deep) <= 8 * per_buffer
    assert len(deep) >= 8 * (per_buffer - 1)
    # what a buffer has taken is in order and whole, and what it has not is counted, names and ends included
    names_and_ends = len(all_records(run)) - len(samples_of(run))
    assert len(samples_of(run)) + names_and_ends + lost(session) == 1 + 200 + 1000 + 2 + 5
    assert int(thread) > 0


def test_a_forked_child_is_sampled_on_its_own(session):
    session.configure(QELIX_TIMER_INTERVAL=1000000, QELIX_PROFILE_CHILDREN=1)
    run = session.run_sampler("sample 5", "fork 7", "fork-burn 200", "fork-thread 6", "sample 5")
    assert_sound(run, 3)
    queued, burning, threaded = (int(pid) for pid, in said(run, "child"))
    (thread,), = said(run, "thread")
    assert len(samples_of(run, run.pid)) >= 10
    assert len(samples_of(run, queued, queued)) >= 7
    places = Places(run)
    burned = [sample for sample in samples_of(run, burning, burning) if places.innermost_function(sample) == "burn"]
    assert len(burned) > 10
    assert len(samples_of(run, int(thread), threaded)) >= 6
    for child in queued, burning, threaded:
        assert {record.pid for record in all_records(run, child)} == {child}
        assert child_run(run, child).metadata_path.stat().st_size > 16


def test_an_unprofiled_child_is_not_sampled(session):
    session.configure(QELIX_TIMER_INTERVAL=1000000, QELIX_PROFILE_CHILDREN=0)
    run = session.run_sampler("fork-burn 100", "sample 5")
    assert_sound(run, 3)
    (child,), = said(run, "child")
    assert not child_run(run, int(child)).sample_path.exists()
    assert len(samples_of(run, run.pid)) >= 5


def test_the_parallel_region_is_in_the_sample(session):
    session.configure(("QELIX_OPENMP_AGENT_PATH", program("openmp_agent.so")))
    run = session.run_sampler("sample 2", "openmp", "sample 3", behind=[program("openmp_agent.so")])
    assert_sound(run, 3)
    assert [sample.region for sample in samples_of(run)] == [0, 0, 77, 77, 77]
