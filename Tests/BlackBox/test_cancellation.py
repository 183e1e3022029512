"""Threads that are cancelled, exit or throw inside of interposed calls: unwinding passes through the agent."""

import pytest

import records
from session import program

POINTS = ["cond_wait", "cond_timedwait", "sem_wait", "sem_timedwait", "join"]
NO_POINTS = ["mutex_lock", "mutex_timedlock", "rdlock", "timedrdlock", "wrlock", "timedwrlock", "barrier_wait"]
CASES = [(call, kind) for call in POINTS for kind in ("blocked", "async", "pending")] + \
        [(call, kind) for call in NO_POINTS for kind in ("deferred", "async", "pending")]
UNWOUND = ["cleanup inner", "destructor inner", "cleanup outer", "destructor outer"]


@pytest.fixture(params=["1:0:0", "1:3600000000000", "0"], ids=["recorded", "below threshold", "off"])
def traced(request, session):
    session.configure(QELIX_TRACE_PTHREAD=request.param)
    return session


@pytest.mark.parametrize("call, kind", CASES)
def test_cleanup_handlers_and_destructors_run_through_our_frames(traced, call, kind):
    native = traced.native("cancelled", call, kind)
    assert native.lines() == [*UNWOUND, "cancel 0", "joined cancelled"]
    run = traced.run("cancelled", call, kind)
    assert (run.status, run.out, run.err) == (native.status, native.out, native.err)
    run.assert_healthy(4)


@pytest.mark.parametrize("call", POINTS)
def test_a_cancelled_wait_is_left_as_not_returned_unless_something_was_recorded_over_it(session, call):
    run = session.run("cancelled", call, "blocked")
    run.assert_healthy(4)
    (cancel,) = run.calls(records.CANCEL)
    own = {record.tid for record in run.trace() if record.type == records.PROC and record.handle == cancel.lock}
    (tid,) = own
    last = [record for record in run.trace() if record.tid == tid][-1]
    assert last.type == records.PTHREAD
    # a cancelled thread never passes the agent's end of a thread
    assert records.THREAD_END not in {record.type for record in run.trace() if record.tid == tid}
    assert last.end == records.NOT_ENDED or not call.startswith(("sem", "join"))


def test_exits_and_exceptions_unwind_as_natively(traced):
    native = traced.native("unwinding")
    run = traced.run("unwinding")
    assert (run.status, run.out, run.err) == (native.status, native.out, native.err)
    assert run.lines() == ["destructor inner", "destructor outer", "result 6", "destructor thrown",
                           "caught thrown inside a lock", "result 0"]
    run.assert_healthy()


def test_unwinding_of_a_program_whose_agent_could_not_start(session):
    for call in POINTS:
        native = session.native("cancelled", call, "blocked")
        run = session.run("cancelled", call, "blocked", ahead=[program("faults.so")],
                          env={"ZORV_TEST_FAULT": "ZorvUmaShmOpen:1+"})
        assert (run.status, run.out) == (native.status, native.out)
