"""The start of the process and its end: order, failures on the way, and every road out."""

import os
import signal
import subprocess

import pytest

import records
from session import program, wait_for

ALLOCATOR = "libjemalloc.so.2"
WITHDRAWN = (b"Failed to collect data as libjemalloc is loaded with LD_PRELOAD.\n"
             b"       Please try removing libjemalloc from LD_PRELOAD environment variable.\n")


@pytest.fixture
def launcher():
    """A process that stands for the launcher, in a session of its own."""
    process = subprocess.Popen(["sleep", "600"], start_new_session=True)
    yield process
    process.kill()
    process.wait()


# ---- start ---------------------------------------------------------------------------------------------------

def test_files_begin_before_main_and_are_complete_at_the_end(session):
    run = session.start("stepper")
    run.tell("lock 1")
    run.expect("done")
    assert records.read_trace(run.trace_path)[1] == []
    assert run.trace_path.stat().st_size == records.FILE_HEADER_SIZE
    assert run.metadata_path.stat().st_size >= 16
    run.finish().assert_healthy(3)
    assert [record.type for record in run.trace()] == [records.PROC, records.PTHREAD, records.THREAD_END]


def test_the_constructor_runs_once_though_it_is_called_and_loaded_again(session):
    run = session.run("reload", str(session.environment()["LD_PRELOAD"]))
    run.assert_healthy()
    assert len([text for text in run.log_texts() if text.startswith("Writer thread id")]) == 1
    assert len([record for record in run.trace() if record.type == records.PROC]) == 1


def test_calls_of_exit_handlers_and_destructors_are_recorded(session):
    run = session.run("lifetime")
    run.assert_healthy()
    # a constructor of the program runs after the agent's, a destructor before it
    assert [record.lock for record in run.calls(records.LOCK_MUTEX)] == [int(line) for line in run.lines()]


def test_exit_handler_and_destructor_both_running_finalise_once(session):
    run = session.run("plain")
    texts = run.log_texts("INFO")
    assert len([text for text in texts if text.startswith("Lost trace records count")]) == 1
    assert len([text for text in texts if text.startswith("Exit from the writer thread")]) == 1
    assert len([record for record in run.trace() if record.type == records.THREAD_END]) == 1


def test_no_config_file_variable_runs_normally_and_closes_the_log_at_exit(session):
    run = session.start("stepper", env={"QELIX_UMA_CONFIG_FILE": None})
    run.tell("thread 5")
    run.line()
    run.expect("done")
    log = str(run.log_path)
    links = [os.readlink(f"/proc/{run.pid}/fd/{fd}") for fd in os.listdir(f"/proc/{run.pid}/fd")]
    assert log in links
    run.finish()
    assert run.status == 3
    assert run.log_texts() == ["Failed to read QELIX_UMA_CONFIG_FILE env variable.",
                               f"Failed to read config file in process ({run.pid})"]


def test_a_start_that_failed_half_way_ends_as_natively(session):
    session.configure(without=("QELIX_SHM_NAME",))
    run = session.run("hammer", 4, 1000)
    assert (run.status, run.out) == (5, b"hammered\n")
    assert run.log_texts("INFO") == ["Lost trace records count = 0"]


# ---- end -----------------------------------------------------------------------------------------------------

@pytest.mark.parametrize("road", ["main", "thread", "handler"])
def test_every_road_out_keeps_the_programs_status_and_ends_the_calling_thread(session, road):
    run = session.run("blocked", "sem_wait", road)
    run.assert_healthy(9)
    ended = [record.tid for record in run.trace() if record.type == records.THREAD_END]
    assert len(ended) == len(set(ended))
    assert (run.pid in ended) == (road != "thread")


def test_a_raw_clone_child_leaves_its_parents_files_alone(session):
    run = session.run("children", "raw_clone")
    child = int(run.lines()[0].split()[1])
    assert (run.status, run.err, run.lines()[1:]) == (2, b"", ["status 6"])
    text = f"Finish process for ({run.pid}) is from other process ({child})."
    lines = [line for line in run.log() if line.text == text]
    assert lines and all(line.level == "INFO" and line.pid == child for line in lines)
    run.assert_all_files_parse()
    assert len(run.calls(records.LOCK_MUTEX)) == 10
    assert {record.tid for record in run.trace()} == {run.pid}
    assert "Lost trace records count = 0" in run.log_texts("INFO")


@pytest.mark.parametrize("mode", ["fork", "fork_in_thread", "fork_in_leaving_thread", "spawn"])
def test_children_end_as_natively(session, mode):
    native = session.native("children", mode)
    run = session.run("children", mode)
    assert (run.status, run.out, run.err) == (native.status, native.out, native.err)
    run.assert_all_files_parse()


# ---- the preloaded allocator ---------------------------------------------------------------------------------

def run_with_allocator(session, **options):
    return session.run("plain", behind=[program(ALLOCATOR)], **options)


def test_preloaded_jemalloc_ends_the_process_with_status_0_before_main_and_its_launcher(session, launcher):
    session.configure(("QELIX_LAUNCH_PROCESS_ID", launcher.pid))
    run = run_with_allocator(session)
    assert (run.status, run.out, run.err) == (0, b"", b"")
    assert run.error_path.read_bytes() == b"3"
    assert launcher.wait(60) == -signal.SIGKILL


def test_preloaded_jemalloc_with_only_sampling_configured_is_not_looked_at(session, launcher):
    session.configure_sampling(("QELIX_LAUNCH_PROCESS_ID", launcher.pid))
    text = session.config_path.read_text().replace("QELIX_TRACE_PTHREAD=1:0:0\n", "")
    session.write_config(text)
    run = run_with_allocator(session)
    assert (run.status, run.out) == (7, b"plain\n")
    assert run.error_path.read_bytes() == b""
    assert launcher.poll() is None


@pytest.mark.parametrize("pid", [None, "0", "-1", "-4242", "none"])
def test_without_a_launcher_nobody_is_killed(session, pid):
    if pid is not None:
        session.configure(("QELIX_LAUNCH_PROCESS_ID", pid))
    kills = session.root / "kills"
    run = run_with_allocator(session, ahead=[program("fake_kill.so")], env={"ZORV_TEST_KILLS": kills})
    assert (run.status, run.out, run.err) == (0, b"", b"")
    assert run.error_path.read_bytes() == b"3"
    assert not kills.exists()


def test_the_launcher_is_killed_by_signal_9(session):
    session.configure(("QELIX_LAUNCH_PROCESS_ID", 4242))
    kills = session.root / "kills"
    run_with_allocator(session, ahead=[program("fake_kill.so")], env={"ZORV_TEST_KILLS": kills})
    assert kills.read_text() == "4242 9\n"


def test_preloaded_jemalloc_without_an_error_file_is_told_on_standard_error(session, launcher):
    session.configure(("QELIX_LAUNCH_PROCESS_ID", launcher.pid))
    run = run_with_allocator(session, ahead=[program("faults.so")], env={
        "ZORV_TEST_FAULT": "ZorvUmaWrite:1+", "ZORV_TEST_WRITE_TO": ".err"})
    assert (run.status, run.out, run.err) == (0, b"", WITHDRAWN)
    assert launcher.poll() is None


@pytest.mark.parametrize("value, looked_at", [("/nowhere/libjemalloc.so.2", True),
                                              ("/nowhere/libjemalloc.so", True),
                                              ("/nowhere/libtcmalloc.so", False)])
def test_any_mention_of_jemalloc_in_ld_preload_counts(session, value, looked_at):
    environment = {"LD_PRELOAD": session.environment()["LD_PRELOAD"] + ":" + value}
    run = session.run("plain", env=environment)
    assert run.status == (0 if looked_at else 7)
    assert run.error_path.read_bytes() == (b"3" if looked_at else b"")


# ---- the controller's stop -----------------------------------------------------------------------------------

def test_stop_half_way_finalises_and_the_program_runs_on(session):
    run = session.start("hammer", 4, 0)
    run.expect("running")
    wait_for(lambda: run.trace_path.stat().st_size > 1 << 20, "a megabyte of records")
    session.block.stop()
    run.wait_for_writers_end()
    # the log was closed before the writer could say goodbye
    assert [line.text for line in run.log() if line.tid == run.pid] == []
    assert run.log_texts()[1:] == ["Lost trace records count = 0"]
    size = run.trace_path.stat().st_size
    records.read_trace(run.trace_path)
    run.tell("enough")
    run.finish()
    assert (run.status, run.err) == (5, b"")
    assert run.trace_path.stat().st_size == size
    assert len(run.log()) == 2


def test_a_stopped_program_creates_threads_and_locks_as_before(session):
    run = session.start("stepper")
    run.tell("lock 10")
    run.expect("done")
    session.block.stop()
    run.wait_for_writers_end()
    for _ in range(20):
        run.tell("thread 1000")
        run.line()
        run.expect("done")
    run.finish()
    assert (run.status, run.err) == (3, b"")
    assert len(run.calls(records.LOCK_MUTEX)) == 10


@pytest.mark.parametrize("call", ["mutex_lock", "cond_wait", "sem_wait", "join"])
def test_a_thread_blocked_across_the_stop_leaves_its_wait_as_not_returned(session, call):
    run = session.start("blocked", call, "linger")
    word, tid, address = run.line().split()
    session.block.stop()
    run.wait_for_writers_end()
    run.finish()
    assert (word, run.status, run.err) == ("blocked", 9, b"")
    waits = [record for record in run.calls() if record.tid == int(tid) and record.end == records.NOT_ENDED]
    assert [record.lock for record in waits] == [int(address)]
