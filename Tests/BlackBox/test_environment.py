"""Programs at the edge of what the system gives them; signals, limits, descriptors."""

import os
import resource
import signal

import pytest

import records
from session import wait_for


def limit(kind, soft, hard=None):
    return lambda: resource.setrlimit(kind, (soft, soft if hard is None else hard))


def assert_like_native(session, *command, before=None, traced=True):
    """Output, errors and status of the run are the native ones; gives back the run."""
    native = session.native(*command, before=before)
    run = session.run(*command, before=before)
    assert (run.status, run.out, run.err) == (native.status, native.out, native.err)
    if traced:
        run.assert_all_files_parse()
    return run


# ---- file size -----------------------------------------------------------------------------------------------

@pytest.mark.parametrize("size", [0, 24, 1000, 40000, 100000, 200000])
@pytest.mark.parametrize("mode", ["file_size_caught", "file_size_default", "file_size_untouched"])
def test_our_writes_never_kill_under_a_file_size_limit_and_the_programs_own_do_as_natively(session, mode, size):
    run = assert_like_native(session, "limits", mode, before=limit(resource.RLIMIT_FSIZE, size), traced=False)
    expected = {"file_size_caught": 11, "file_size_default": -signal.SIGXFSZ, "file_size_untouched": 11}
    assert run.status == expected[mode] or size == 200000


def test_a_signal_that_the_program_ignores_stays_ignored(session):
    def before():
        resource.setrlimit(resource.RLIMIT_FSIZE, (40000, 40000))
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
    assert assert_like_native(session, "limits", "file_size_default", before=before, traced=False).status == 11


# ---- descriptors ---------------------------------------------------------------------------------------------

def test_a_program_with_a_full_descriptor_table_ends_as_natively(session):
    few = limit(resource.RLIMIT_NOFILE, 64)
    run = assert_like_native(session, "limits", "full_descriptor_table", before=few)
    run.assert_healthy(11)


def test_a_program_that_closes_every_descriptor_runs_on(session):
    assert_like_native(session, "limits", "close_everything")


def test_we_never_write_into_a_file_that_the_program_opened_under_a_number_of_ours(session):
    assert_like_native(session, "limits", "reuse_descriptors")


def test_agent_descriptors_are_closed_on_exec_and_at_the_end(session):
    run = session.start("stepper")
    run.tell("lock 1")
    run.expect("done")
    ours = {}
    for fd in os.listdir(f"/proc/{run.pid}/fd"):
        target = os.readlink(f"/proc/{run.pid}/fd/{fd}")
        if target.startswith((str(session.root), "/dev/shm")):
            ours[fd] = target
    assert len(ours) == 5  # log, error, trace, metadata, block
    for fd in ours:
        with open(f"/proc/{run.pid}/fdinfo/{fd}") as info:
            flags = next(int(line.split()[1], 8) for line in info if line.startswith("flags:"))
        assert flags & os.O_CLOEXEC
    session.block.stop()
    run.wait_for_writers_end()
    wait_for(lambda: not set(ours) & set(os.listdir(f"/proc/{run.pid}/fd")), "closed files after a stop")
    run.finish()
    assert run.status == 3


# ---- signals -------------------------------------------------------------------------------------------------

def signals_of(mask):
    return {number + 1 for number in range(64) if int(mask, 16) >> number & 1}


def test_every_signal_is_blocked_in_the_writer_but_those_that_libc_needs_itself(session):
    run = session.start("stepper")
    run.tell("lock 1")
    run.expect("done")
    wait_for(run.writer, "a thread of the writer's name")
    blocked = signals_of(run.thread_status(run.writer(), "SigBlk"))
    assert set(range(1, 65)) - blocked == {signal.SIGKILL, signal.SIGSTOP, 32, 33}
    assert signals_of(run.thread_status(run.pid, "SigBlk")) == set()
    run.finish().assert_healthy(3)


def test_a_signal_for_the_process_waits_for_a_thread_of_the_program(session):
    assert_like_native(session, "limits", "process_signal").assert_healthy(11)


def test_a_change_of_identity_reaches_every_thread(session):
    assert_like_native(session, "limits", "change_identity").assert_healthy(11)


def test_death_by_a_signal_is_the_programs_own(session):
    native, run = session.start("stepper", agent=False), session.start("stepper")
    for each in (native, run):
        each.tell("lock 1")
        each.expect("done")
        os.kill(each.pid, signal.SIGTERM)
        each.finish()
    assert run.status == native.status == -signal.SIGTERM
    assert run.err == native.err


def test_ignored_and_blocked_signals_are_inherited_as_natively(session):
    def before():
        signal.signal(signal.SIGINT, signal.SIG_IGN)
        signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGUSR2})
    statuses = []
    for agent in (False, True):
        run = session.start("stepper", agent=agent, before=before)
        run.tell("lock 1")
        run.expect("done")
        masks = [signals_of(run.thread_status(run.pid, field)) for field in ("SigBlk", "SigIgn", "SigCgt")]
        # libc catches two of its own as soon as there is a thread
        statuses.append([mask - {32, 33} for mask in masks])
        run.finish()
    assert statuses[0] == statuses[1]


# ---- the rest ------------------------------------------------------------------------------------------------

def test_a_tokenisation_in_progress_is_not_disturbed(session):
    assert_like_native(session, "limits", "tokenize").assert_healthy(11)


def test_a_program_that_is_killed_leaves_what_was_written(session):
    run = session.start("stepper")
    run.tell("lock 3000")
    run.expect("done")
    # five buffers are full: all else is lost with the process
    wait_for(lambda: run.trace_path.stat().st_size > 5 * 32000, "five buffers")
    run.kill()
    assert len(run.calls(records.LOCK_MUTEX)) == 510 + 4 * 511


def test_little_stack_and_little_memory(session):
    def before():
        resource.setrlimit(resource.RLIMIT_STACK, (256 << 10, 256 << 10))
        resource.setrlimit(resource.RLIMIT_AS, (64 << 20, 64 << 20))
    assert_like_native(session, "hammer", 2, 2000, before=before).assert_healthy(5)


def test_memory_for_call_stacks_that_is_not_there_fails_the_start(session):
    session.configure(("QELIX_CALLSTACK_DEPTH", 200_000_000))
    run = session.run("hammer", 1, 10, before=limit(resource.RLIMIT_AS, 256 << 20))
    assert (run.status, run.out) == (5, b"hammered\n")
    assert run.log_texts("ERROR") == [
        f"Failed to allocate the trace cs buffer in pid ({run.pid}) and tid ({run.pid}).",
        f"Failed to read config file in process ({run.pid})"]


@pytest.mark.parametrize("streams", [(0,), (1,), (2,), (0, 1, 2)])
def test_a_program_without_standard_streams_does_not_write_into_our_files(session, streams):
    def close_streams():
        for fd in streams:
            os.close(fd)
    assert_like_native(session, "plain", before=close_streams)
    for path in session.root.rglob("*_*"):
        assert not path.is_file() or b"to standard error" not in path.read_bytes()


def test_many_programs_at_once_keep_their_files_apart(session):
    runs = [session.start("hammer", 2, 500) for _ in range(8)]
    for run in runs:
        run.finish().assert_healthy(5)
        assert len(run.calls(records.LOCK_MUTEX)) == 1000
