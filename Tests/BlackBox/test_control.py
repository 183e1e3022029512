"""The controller's block: pause, resume and stop at known points of a call."""

import pytest

import records
from gate import RUNNING, run_gated, set_state
from session import ControlBlock

# the state before and after a call (running, or a pause's id), and whether the call is recorded
PAUSE_RULE = [
    (RUNNING, RUNNING, True),
    (7, 7, False),
    (7, 8, True),
    (7, RUNNING, True),
    (RUNNING, 7, True),
    (0, 0, True),
    (0, 7, True),
    (7, 0, True),
    (2**64 - 1, 2**64 - 1, False),
    (2**63, 2**63, False),
    (7, 7 + 2**32, True),
]
KINDS = {"blocking": records.LOCK_MUTEX, "try": records.LOCK_MUTEX, "timed": records.WAIT_SEMAPHORE,
         "spin": records.LOCK_SPIN, "cancel": records.CANCEL, "create": records.CREATE}


@pytest.mark.parametrize("before, after, recorded", PAUSE_RULE)
@pytest.mark.parametrize("call", KINDS)
def test_pause_rule(session, gate, call, before, after, recorded):
    run = run_gated(session, gate, call, before, after)
    assert [record.kind for record in run.calls(KINDS[call])] == [KINDS[call]] * recorded


def test_a_call_paused_with_id_7_at_both_ends_is_dropped_one_ending_with_8_or_running_recorded(session, gate):
    assert run_gated(session, gate, "blocking", 7, 7).calls() == []
    assert len(run_gated(session, gate, "blocking", 7, 8).calls()) == 1
    assert len(run_gated(session, gate, "blocking", 7, RUNNING).calls()) == 1


def test_with_pause_set_but_id_0_calls_are_recorded(session, gate):
    assert len(run_gated(session, gate, "blocking", 0, 0).calls()) == 1


@pytest.mark.parametrize("flag", [1, 2, 128, 255])
def test_any_value_of_the_pause_flag_but_0_pauses(session, gate, flag):
    run = gate.start(session, "blocking")
    run.line()
    session.block.pause(7, flag=flag)
    run.tell("go")
    gate.wait()
    gate.open()
    run.line()
    run.finish().assert_healthy()
    assert run.calls() == []


def test_an_id_that_stays_behind_after_a_pause_means_nothing(session, gate):
    session.block.pause(7)
    session.block.resume()
    assert len(run_gated(session, gate, "blocking").calls()) == 1


@pytest.mark.parametrize("before, recorded", [(RUNNING, True), (7, False), (0, False)])
def test_pthread_exit_asks_only_whether_a_pause_is_set(session, before, recorded):
    run = session.start("gated", "exit")
    tid = int(run.line().split()[1])
    set_state(session, before)
    run.tell("go")
    run.finish().assert_healthy()
    assert len(run.calls(records.EXIT)) == recorded
    assert [record.tid for record in run.trace() if record.type == records.THREAD_END] == [tid, run.pid]


def test_a_try_call_that_failed_is_not_recorded_whatever_the_pause(session, gate):
    for after in (RUNNING, 7):
        assert run_gated(session, gate, "try", RUNNING, after, result=16).calls() == []


def test_a_pause_does_not_stop_proc_and_end_records(session):
    session.block.pause(7)
    run = session.run("stepper")
    run.assert_healthy(3)
    assert [record.type for record in run.trace()] == [records.PROC, records.THREAD_END]


# ---- the block itself ----------------------------------------------------------------------------------------

def test_an_object_that_exists_keeps_its_content(session):
    content = bytes([0, 0, 1, 2, 3, 4, 5, 6]) + bytes(range(100, 156))
    session.new_block(content=content)
    session.run("hammer", 1, 10).assert_healthy(5)
    assert session.block.path.read_bytes() == content


def test_an_object_that_exists_paused_is_paused_from_the_beginning(session):
    session.block.pause(3)
    run = session.run("hammer", 2, 50)
    run.assert_healthy(5)
    assert run.calls() == []


def test_a_newly_created_object_reads_as_running_not_stopped_id_0(session):
    session.new_block(size=None)
    run = session.run("hammer", 1, 10)
    run.assert_healthy(5)
    assert len(run.calls(records.LOCK_MUTEX)) == 10
    # the agent leaves its removal to the controller
    assert session.block.path.read_bytes() == bytes(64)
    assert session.block.path.stat().st_mode & 0o777 == 0o644


@pytest.mark.parametrize("size", [0, 16, 63, 65, 4096])
def test_an_object_of_another_size_is_made_64_bytes(session, size):
    session.new_block(size=size)
    session.run("hammer", 1, 10).assert_healthy(5)
    assert session.block.path.stat().st_size == 64


def test_the_agent_never_writes_the_block_of_others(session):
    session.new_block(content=bytes(16) + b"\xff" * 48)
    session.run("hammer", 1, 10).assert_healthy(5)
    assert session.block.path.read_bytes() == bytes(16) + b"\xff" * 48


def test_flags_of_other_agents_mean_nothing(session):
    session.new_block(content=bytes(16) + b"\x01\x01\0\0\0\0\0\0\x07\0\0\0\0\0\0\0" * 3)
    run = session.run("hammer", 1, 10)
    run.assert_healthy(5)
    assert len(run.calls(records.LOCK_MUTEX)) == 10


# ---- stop ----------------------------------------------------------------------------------------------------

@pytest.mark.parametrize("flag", [1, 2, 255])
def test_setting_stop_ends_recording_at_the_next_test_and_collection_through_the_writer(session, flag):
    run = session.start("stepper")
    run.tell("lock 5")
    run.expect("done")
    session.block.stop(flag)
    run.tell("lock 5")
    run.expect("done")
    run.wait_for_writers_end()
    # complete while the program still lives
    assert len(run.calls(records.LOCK_MUTEX)) == 5
    run.finish()
    assert (run.status, run.err) == (3, b"")
    assert len(run.calls(records.LOCK_MUTEX)) == 5


def test_a_call_inside_of_which_stop_came_is_completed_or_left_as_not_returned(session, gate):
    run = gate.start(session, "blocking")
    run.line()
    run.tell("go")
    gate.wait()
    session.block.stop()
    run.wait_for_writers_end()
    gate.open()
    run.expect("result 0")
    run.finish()
    assert (run.status, run.err) == (0, b"")
    (record,) = run.calls(records.LOCK_MUTEX)
    assert (record.end, record.result) == (records.NOT_ENDED, 0)


def test_a_program_started_stopped_runs_unrecorded(session):
    session.block.stop()
    for _ in range(5):
        run = session.run("hammer", 4, 1000)
        assert (run.status, run.out, run.err) == (5, b"hammered\n", b"")
        run.assert_all_files_parse()
        assert not run.trace_path.stat().st_size or run.trace() == []


def test_two_programs_share_one_block(session):
    first, second = session.start("stepper"), session.start("stepper")
    session.block.stop()
    for run in (first, second):
        run.wait_for_writers_end()
        assert run.finish().status == 3


def test_removing_the_block_while_the_program_runs_changes_nothing(session):
    run = session.start("stepper")
    run.tell("lock 1")
    run.expect("done")
    session.block.remove()
    run.tell("lock 1")
    run.expect("done")
    run.finish().assert_healthy(3)
    assert len(run.calls()) == 2


def test_a_name_without_a_slash_names_the_same_object(session):
    block = ControlBlock()
    session.configure(QELIX_SHM_NAME=block.name[1:])
    block.pause(7)
    try:
        run = session.run("hammer", 1, 10)
        run.assert_healthy(5)
        assert run.calls() == []
    finally:
        block.remove()
