"""How the writer rests while nothing is to be written, and what ends its rests."""

import ctypes
import os
import time
from pathlib import Path

import pytest

import records
from session import program, wait_for

SYS_FUTEX, FUTEX_WAKE = 202, 1
SYS_FUTEX_WAITV = 449
BUFFER_SIZE, RECORD_SIZE = 32768, 64


def wake_agents(block):
    """What a controller does behind each change that has told its agents that it wakes them."""
    with block.mapped() as view:
        word = ctypes.c_uint32.from_buffer(view)
        ctypes.CDLL(None).syscall(SYS_FUTEX, ctypes.byref(word), FUTEX_WAKE, 2**31 - 1, None, None, 0)
        del word


def writer_of(run):
    """The directory of the writer's task; None until it has given itself its name."""
    tasks = Path(f"/proc/{run.pid}/task").iterdir()
    return next((task for task in tasks if (task / "comm").read_text() == "ZorUmtWriter\n"), None)


def wakes_of_writer(run):
    """How often the writer has gone to rest so far."""
    status = dict(line.split(":", 1) for line in (writer_of(run) / "status").read_text().splitlines())
    return int(status["voluntary_ctxt_switches"])


def start_idle(session, *command):
    run = session.start(*(command or ("stepper",)))
    run.tell("lock 1")
    run.expect("done")
    wait_for(lambda: writer_of(run), "a writer")
    return run


@pytest.fixture
def waking(session):
    session.configure(QELIX_CONTROLLER_WAKES=1)
    return session


# ---- idle ----------------------------------------------------------------------------------------------------

def test_a_writer_that_the_controller_wakes_sleeps(waking):
    run = start_idle(waking)
    before, start = wakes_of_writer(run), time.monotonic()
    time.sleep(1)
    wakes = wakes_of_writer(run) - before
    assert wakes < 50 * (time.monotonic() - start), "ten a second; who looks at the flags wakes 500 times"
    run.finish().assert_healthy(3)


@pytest.mark.parametrize("promise", [None, 0])
def test_without_that_promise_it_looks_at_the_flags(session, promise):
    if promise is not None:
        session.configure(QELIX_CONTROLLER_WAKES=promise)
    run = start_idle(session)
    before = wakes_of_writer(run)
    wait_for(lambda: wakes_of_writer(run) - before > 100, "looks at the flags")
    run.finish().assert_healthy(3)


def test_where_the_kernel_cannot_wait_for_two_words_it_looks_at_the_flags(waking):
    run = start_idle(waking, "without_call", SYS_FUTEX_WAITV, program("stepper"))
    before = wakes_of_writer(run)
    wait_for(lambda: wakes_of_writer(run) - before > 100, "looks at the flags")
    assert (run.finish().status, run.err, len(run.calls())) == (3, b"", 1)


def test_without_that_promise_no_rest_waits_for_a_wake_of_the_controllers(session):
    """Nor does the last of the rests that grow longer behind work."""
    waits = session.root / "waits"
    run = session.start("/usr/bin/strace", "-f", "-qq", "-e", "trace=futex_waitv", "-e", "signal=none", "-o", waits,
                        "-E", f"LD_PRELOAD={session.environment()['LD_PRELOAD']}", program("stepper"),
                        env={"LD_PRELOAD": None})
    run.tell(f"lock {2 * BUFFER_SIZE // RECORD_SIZE}")
    run.expect("done")
    (trace,) = (session.root / "trace").iterdir()
    run.pid = int(trace.stem.rpartition("_")[2])  # not the watcher's
    wait_for(lambda: writer_of(run), "a writer")
    before = wakes_of_writer(run)
    wait_for(lambda: wakes_of_writer(run) - before > 100, "the longest rest")
    run.finish()
    assert (run.status, run.err, waits.read_text()) == (3, b"", "")


# ---- what ends a sleep ---------------------------------------------------------------------------------------

@pytest.mark.parametrize("wakes", [True, False], ids=["woken", "promise_broken"])
def test_a_stop_is_acted_on(waking, wakes):
    run = start_idle(waking)
    time.sleep(0.1)
    waking.block.stop()
    if wakes:
        wake_agents(waking.block)
    run.wait_for_writers_end()
    assert len(run.calls()) == 1
    assert run.finish().status == 3


def test_a_full_buffer_is_written(waking):
    run = start_idle(waking)
    for count in range(1, 4):
        time.sleep(0.1)
        run.tell(f"lock {BUFFER_SIZE // RECORD_SIZE}")
        run.expect("done")
        full = count * (BUFFER_SIZE // RECORD_SIZE - 1) * RECORD_SIZE
        wait_for(lambda: os.stat(run.trace_path).st_size >= full, "the buffer in the file")
    run.finish().assert_healthy(3)
    assert len(run.calls()) == 1 + 3 * (BUFFER_SIZE // RECORD_SIZE)


def test_the_end_of_the_program_does_not_wait_for_it(waking):
    for _ in range(20):
        run = waking.run("hammer", 2, 10)
        run.assert_healthy(5)
        assert len(run.calls(records.LOCK_MUTEX)) == 20
