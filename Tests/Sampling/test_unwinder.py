"""The unwinder: the agent's own affair, never the program's."""

import re
import subprocess
from pathlib import Path

import pytest

import records
from sampling import (DEPTH, HANDLER_FRAMES, all_records, assert_files_parse, assert_sound, count_types, lost, said,
                      samples_of)
from session import AGENT, PROGRAMS, program


def unwinder_of(kind, frames=1):
    """The environment in which the agent finds this object under the unwinder's name."""
    return {"LD_LIBRARY_PATH": PROGRAMS / kind, "ZORV_TEST_FRAMES": frames}


def test_the_agent_needs_no_unwinder(session):
    dynamic = subprocess.run(["readelf", "-dW", AGENT], capture_output=True, text=True, check=True).stdout
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)
    assert needed and not [name for name in needed if "unwind" in name]


@pytest.mark.parametrize("call_stacks", [0, 1])
def test_the_unwinder_is_loaded_only_for_call_stacks(session, call_stacks):
    session.configure(QELIX_CALLSTACK_COLLECTION=call_stacks)
    run = session.start("sampler")
    while run.line() != "ready":
        pass
    loaded = Path(f"/proc/{run.pid}/maps").read_text()
    run.finish()
    assert ("libunwind.so.8" in loaded) == bool(call_stacks)


def test_no_unwinder_is_loaded_without_sampling(session):
    session.trace_too(QELIX_ENABLE_SAMPLING=0)
    run = session.start("sampler")
    while run.line() != "ready":
        pass
    loaded = Path(f"/proc/{run.pid}/maps").read_text()
    run.finish()
    assert "libunwind" not in loaded


def test_a_program_keeps_its_own_unwinder(session):
    native = session.native("host", program("thrower.so"))
    run = session.run("host", program("thrower.so"))
    assert_sound(run)
    assert native.out.count(b"libgcc_s.so.1") == 1 and b"global unw_backtrace nowhere" in native.out
    assert run.lines() == native.lines()


@pytest.mark.parametrize("interval", [0, 1000000])
def test_exceptions_behave_as_natively(session, interval):
    session.trace_too(QELIX_TIMER_INTERVAL=interval)
    native = session.native("host", program("thrower.so")).lines()
    for _ in range(5):
        run = session.run("host", program("thrower.so"))
        assert_sound(run)
        assert run.lines() == native
    assert any("caught once and again" in line for line in native)


@pytest.mark.parametrize("kind", ["broken", "empty"])
def test_without_an_unwinder_one_error_is_said_and_nothing_is_sampled(session, kind):
    session.configure(QELIX_TIMER_INTERVAL=4000000, QELIX_PROFILE_CHILDREN=1)
    run = session.run_sampler("sample 5", "burn 100", "thread 5", "fork 5", env=unwinder_of(kind))
    assert (run.status, run.err) == (3, b"")
    errors = [line for line in run.log() if line.level in ("ERROR", "WARN")]
    assert [line.level for line in errors] == ["ERROR"]
    assert "libunwind.so.8" in errors[0].text
    assert count_types(all_records(run)) == {records.SAMPLE_PROC: 2, records.SAMPLE_THREAD_END: 2}
    assert lost(session) == 0
    assert_files_parse(session)


def test_the_unwinder_is_asked_for_the_depth_and_the_handlers_frames(session):
    run = session.run_sampler("sample 3", env=unwinder_of("made_up", 1))
    assert_sound(run, 3)
    assert [sample.stack for sample in samples_of(run)] == 3 * [(DEPTH + HANDLER_FRAMES,)]
    assert {sample.size for sample in samples_of(run)} == {48}


@pytest.mark.parametrize("frames", [2, 17, DEPTH + HANDLER_FRAMES, 1000])
def test_all_frames_that_are_found_are_recorded(session, frames):
    run = session.run_sampler("sample 3", env=unwinder_of("made_up", frames))
    assert_sound(run, 3)
    found = min(frames, DEPTH + HANDLER_FRAMES)
    expected = (DEPTH + HANDLER_FRAMES, *(1000 + i for i in range(1, found)))
    assert [sample.stack for sample in samples_of(run)] == 3 * [expected]
    assert {sample.size for sample in samples_of(run)} == {40 + 8 * found}


def test_an_unwinder_that_the_program_has_itself_is_asked(session):
    run = session.run_sampler("sample 3", ahead=[str(PROGRAMS / "made_up" / "libunwind.so.8")],
                              env={"ZORV_TEST_FRAMES": 2})
    assert_sound(run, 3)
    assert [sample.stack for sample in samples_of(run)] == 3 * [(DEPTH + HANDLER_FRAMES, 1001)]


def test_the_first_own_use_of_the_same_unwinder_blocks_nobody(session):
    run = session.run("own_unwinder", env=unwinder_of("holding"))
    assert_sound(run)
    assert (samples_of(run), lost(session)) == ([], 1)


@pytest.mark.parametrize("frames", [0, -1, -10])
def test_an_empty_stack_is_dropped_silently(session, frames):
    run = session.run_sampler("sample 3", "thread 3", env=unwinder_of("made_up", frames))
    assert_sound(run, 3)
    assert samples_of(run) == []


def test_what_the_unwinder_calls_is_not_traced(session):
    session.trace_too()
    run = session.run_sampler("lock 10", "sample 20", "thread 20", "lock 10", env=unwinder_of("made_up", 5))
    assert_sound(run, 3)
    assert len(samples_of(run)) == 40
    assert len(run.calls(records.LOCK_MUTEX)) == 20
    # and the thread is traced again afterwards
    (thread,), = said(run, "thread")
    assert len(samples_of(run, int(thread))) == 20
