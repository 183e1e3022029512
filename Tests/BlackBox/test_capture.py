"""Which calls are recorded, and what becomes of a provisional record."""

import pytest

import records
from session import program

HOUR = 3600 * 10**9
CALLS = ["mutex_lock", "mutex_timedlock", "cond_wait", "cond_timedwait", "rdlock", "timedrdlock", "wrlock",
         "timedwrlock", "barrier_wait", "sem_wait", "sem_timedwait", "join"]


def run_with_clock(session, step, threshold, *command, tell=""):
    """The agent's clock goes on by `step` with every look at it, so a lone thread's call lasts one step."""
    session.configure(QELIX_TRACE_PTHREAD=f"1:{threshold}")
    run = session.start(*command, ahead=[program("fake_clock.so")], env={"ZORV_TEST_CLOCK_STEP": step})
    if tell:
        run.tell(tell)
    run.finish()
    assert run.err == b""
    return run


# ---- thresholds ----------------------------------------------------------------------------------------------

@pytest.mark.parametrize("threshold, recorded", [(0, 100), (999, 100), (1000, 100), (1001, 0), (2**64 - 1, 0)])
def test_a_call_whose_duration_equals_the_threshold_is_recorded(session, threshold, recorded):
    run = run_with_clock(session, 1000, threshold, "stepper", tell="lock 100")
    assert run.status == 3
    locks = run.calls(records.LOCK_MUTEX)
    assert len(locks) == recorded
    assert {record.end - record.start for record in locks} <= {1000}


def test_a_threshold_of_0_records_every_call_even_without_duration(session):
    run = run_with_clock(session, 0, 0, "hammer", 1, 100)
    assert len(run.calls(records.LOCK_MUTEX)) == 100


def test_a_blocking_call_shorter_than_the_threshold_is_not_recorded_and_its_provisional_one_withdrawn(session):
    session.configure(QELIX_TRACE_PTHREAD=f"1:{HOUR}")
    run = session.run("member_calls")
    run.assert_healthy()
    own = [record for record in run.trace() if record.tid == run.pid]
    assert {record.kind for record in own if record.type == records.PTHREAD} == {records.CREATE, records.CANCEL}
    # nothing trails behind the last record of the thread
    assert own[-1].type == records.THREAD_END


def test_a_disabled_event_records_no_call(session):
    session.configure(QELIX_TRACE_PTHREAD="0")
    run = session.run("member_calls")
    run.assert_healthy()
    assert run.calls() == []


def test_other_classes_do_not_record_pthread_calls(session):
    session.configure(("QELIX_TRACE_SLEEP", "1"), without=("QELIX_TRACE_PTHREAD",))
    run = session.run("hammer", 2, 100)
    run.assert_healthy(5)
    assert run.calls() == []


# ---- calls that do not return --------------------------------------------------------------------------------

def test_a_blocking_call_that_never_returns_leaves_a_record_with_end_time_all_ones(session):
    # whatever the threshold: nobody knows how long it would have lasted
    session.configure(QELIX_TRACE_PTHREAD=f"1:{HOUR}")
    run = session.run("blocked", "mutex_lock", "main")
    run.assert_healthy(9)
    _, tid, address = run.lines()[0].split()
    (record,) = [record for record in run.calls(records.LOCK_MUTEX) if record.tid == int(tid)]
    assert (record.lock, record.end) == (int(address), 2**64 - 1)


def test_a_wait_without_a_complete_record_before_it_is_not_written(session):
    # the name of the blocked thread, the fourth to be asked for, is not readable: it has no proc record
    run = session.run("blocked", "sem_wait", "main", ahead=[program("faults.so")],
                      env={"ZORV_TEST_FAULT": "ZorvUmaGetCurrentThreadName:4"})
    run.assert_healthy(9)
    tid = int(run.lines()[0].split()[1])
    assert [record for record in run.trace() if record.tid == tid] == []


def test_a_wait_of_the_thread_that_ends_the_process_is_withdrawn(session):
    run = session.run("blocked", "sem_wait", "handler")
    run.assert_healthy(9)
    own = [record for record in run.trace() if record.tid == run.pid]
    assert own[-1].type == records.THREAD_END
    assert [record.end for record in own].count(records.NOT_ENDED) == 0


# ---- traced calls inside of a traced call --------------------------------------------------------------------

# none; one; a few; more than a buffer; more than two buffers; and just around a buffer's end
@pytest.mark.parametrize("count", [0, 1, 5, 507, 508, 509, 510, 511, 512, 600, 1100])
@pytest.mark.parametrize("call", CALLS)
def test_calls_of_a_signal_handler_inside_a_traced_wait_tear_nothing_and_lose_nothing(session, call, count):
    run = session.run("nested", call, count)
    run.assert_healthy()
    tid, waited_on, in_handler, entered = (int(word) for word in run.lines()[0].split())
    own = [record for record in run.calls() if record.tid == tid]
    nested = [record for record in own if record.lock == in_handler]
    waits = [record for record in own if record.lock == waited_on]
    assert len(nested) == count
    assert len(waits) == entered
    assert [record for record in own if record.end == records.NOT_ENDED] == []
    assert waits[-1].result in (0, -1)  # the serial thread of a barrier gets -1
    # the handler's calls lie inside of the wait that it interrupted
    assert all(waits[0].start <= record.start <= record.end <= waits[0].end for record in nested)


@pytest.mark.parametrize("count", [1, 5, 509, 600])
@pytest.mark.parametrize("call", ["mutex_lock", "sem_wait"])
def test_calls_of_a_signal_handler_also_when_a_function_of_the_agent_is_replaced(session, call, count):
    run = run_with_clock(session, 1, 0, "nested", call, count)
    run.assert_healthy()
    tid, waited_on, in_handler, entered = (int(word) for word in run.lines()[0].split())
    locks = [record.lock for record in run.calls() if record.tid == tid and record.end != records.NOT_ENDED]
    assert (locks.count(in_handler), locks.count(waited_on)) == (count, entered)


@pytest.mark.parametrize("call", ["mutex_lock", "sem_wait"])
def test_calls_of_a_signal_handler_below_the_threshold_leave_the_wait_alone(session, call):
    session.configure(QELIX_TRACE_PTHREAD=f"1:{HOUR}")
    run = session.run("nested", call, 20)
    run.assert_healthy()
    tid = int(run.lines()[0].split()[0])
    assert [record for record in run.calls() if record.tid == tid] == []


# ---- threads that the agent knows nothing of -----------------------------------------------------------------

def test_a_thread_without_a_per_thread_record_writes_nothing_and_logs_nothing(session):
    run = session.run("unknown_thread")
    run.assert_healthy()
    tid = int(run.lines()[0].split()[1])
    assert tid not in {record.tid for record in run.trace()}
    assert len(run.calls(records.LOCK_MUTEX)) == 1


# ---- the OpenMP agent's region -------------------------------------------------------------------------------

def run_openmp(session, path, loaded, told):
    session.configure(("QELIX_OPENMP_AGENT_PATH", path))
    run = session.run("openmp", loaded, told)
    assert (run.status, run.err) == (0, b"")
    (record,) = run.calls(records.LOCK_MUTEX)
    return record.region, run.log_texts("ERROR")


def test_the_region_comes_from_the_openmp_agent_once_it_has_told_that_it_is_there(session):
    library = program("openmp_agent.so")
    assert run_openmp(session, library, library, 1) == (77, [])
    assert run_openmp(session, library, library, 0) == (0, [])


def test_an_openmp_agent_that_is_not_loaded_is_not_loaded_for_it(session):
    assert run_openmp(session, program("openmp_agent.so"), "none", 1)[0] == 0


def test_an_openmp_agent_without_the_function_is_logged(session):
    library = program("libjemalloc.so.2")
    text = 'Failed to get the symbol address for "ZorvGetOpenMPParId".'
    assert run_openmp(session, library, library, 1) == (0, [text])


# ---- call-stack buffers --------------------------------------------------------------------------------------

@pytest.mark.parametrize("depth", [0, 1, 64, 0xFFFFFFF8])
def test_any_call_stack_depth_that_there_is_memory_for_starts(session, depth):
    # 0xFFFFFFF8 and its eight extra entries wrap to nothing
    session.configure(("QELIX_CALLSTACK_DEPTH", depth), QELIX_TRACE_PTHREAD="1:0:1")
    run = session.run("hammer", 2, 10)
    run.assert_healthy(5)
    assert len(run.calls(records.LOCK_MUTEX)) == 20
