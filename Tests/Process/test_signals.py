"""The agent's profiling signal, and threads that rename themselves."""

import signal
import subprocess

import pytest

import records
from session import program

PROFILING = 44
COLLISION = ("ERROR : Application has own signal handler for signal (44). Provide un-used realtime signal with "
             "--profiling-signal.\n")
CALLS = ["sigaction", "signal", "__sysv_signal"]
COLLIDING = [(call, "handler") for call in CALLS] + [("sigaction", "info")]
HARMLESS = [(call, action) for call in CALLS for action in ("ignore", "default")] + [("sigaction", "query"),
                                                                                     ("sigaction", "info-null")]


@pytest.fixture
def launcher():
    """A process that stands for the launcher, in a session of its own."""
    process = subprocess.Popen(["sleep", "600"], start_new_session=True)
    yield process
    process.kill()
    process.wait()


def configure(session, pid):
    session.configure_sampling(("QELIX_LAUNCH_PROCESS_ID", pid))


@pytest.mark.parametrize("call, action", COLLIDING)
def test_a_handler_for_the_profiling_signal_ends_the_process_and_the_launcher(session, launcher, call, action):
    configure(session, launcher.pid)
    run = session.run("signals", call, action, PROFILING)
    assert (run.status, run.out, run.err) == (0, b"", b"")
    assert run.error_path.read_bytes() == b"1"
    assert launcher.wait(60) == -signal.SIGKILL
    run.assert_all_files_parse()


@pytest.mark.parametrize("call, action", COLLIDING)
def test_without_an_error_file_it_is_told_on_standard_error(session, launcher, call, action):
    configure(session, launcher.pid)
    run = session.run("signals", call, action, PROFILING, ahead=[program("faults.so")],
                      env={"ZORV_TEST_FAULT": "ZorvUmaWrite:1+", "ZORV_TEST_WRITE_TO": ".err"})
    assert (run.status, run.out, run.err.decode()) == (0, b"", COLLISION)
    assert launcher.poll() is None


@pytest.mark.parametrize("pid", [None, 0, -1])
def test_without_a_launcher_nobody_is_killed(session, pid):
    if pid is None:
        session.configure_sampling()
    else:
        configure(session, pid)
    kills = session.root / "kills"
    run = session.run("signals", "signal", "handler", PROFILING, ahead=[program("fake_kill.so")],
                      env={"ZORV_TEST_KILLS": kills})
    assert (run.status, run.out, run.err) == (0, b"", b"")
    assert run.error_path.read_bytes() == b"1"
    assert not kills.exists()


@pytest.mark.parametrize("call, action", HARMLESS)
def test_the_profiling_signal_may_be_ignored_defaulted_and_asked_about(session, launcher, call, action):
    configure(session, launcher.pid)
    run = session.run("signals", call, action, PROFILING)
    assert run.status == 70 and run.err == b""
    assert run.lines()[0].startswith("survived ")
    assert run.error_path.read_bytes() == b""
    assert launcher.poll() is None


@pytest.mark.parametrize("number", [10, 43, 45, 64, 9, 0, -1, 99])
@pytest.mark.parametrize("call, action", COLLIDING)
def test_handlers_for_other_signals_are_installed_as_natively(session, launcher, call, action, number):
    configure(session, launcher.pid)
    native = session.native("signals", call, action, number)
    run = session.run("signals", call, action, number)
    assert (run.out, run.status, run.err) == (native.out, native.status, native.err)
    assert launcher.poll() is None


@pytest.mark.parametrize("call, action", COLLIDING)
def test_with_no_signal_configured_every_handler_is_installed(session, launcher, call, action):
    session.configure(("QELIX_LAUNCH_PROCESS_ID", launcher.pid))
    native = session.native("signals", call, action, PROFILING)
    run = session.run("signals", call, action, PROFILING)
    assert (run.out, run.status, run.err) == (native.out, native.status, native.err)


def names(run):
    return [(record.tid, record.name, record.handle) for record in run.trace() if record.type == records.PROC]


@pytest.mark.parametrize("config", ["1:0:0", "0"])
def test_prctl_set_name_writes_a_proc_record_with_the_new_name(session, config):
    session.configure(QELIX_TRACE_SYSCALL=config)
    native = session.native("signals", "new name")
    run = session.run("signals", "new name")
    assert (run.out, run.status, run.err) == (native.out, native.status, native.err)
    assert names(run) == [(run.pid, b"signals", 0), (run.pid, b"new name", 0), (run.pid, b"a name of more ", 0)]
    other = [record for record in run.trace() if record.type == records.SYSCALL and record.kind == 6]
    assert len(other) == (4 if config == "1:0:0" else 0)


def test_prctl_in_a_stopped_collection_names_and_writes_nothing(session):
    session.block.stop()
    native = session.native("signals", "new name")
    run = session.run("signals", "new name")
    assert (run.out, run.status, run.err) == (native.out, native.status, native.err)
    assert not run.trace_path.stat().st_size or names(run) in ([], [(run.pid, b"signals", 0)])
