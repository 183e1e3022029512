"""The same programs natively and under the agent print the same results and the same errno, misuse included."""

import pytest

PROGRAMS = {"misuse_mutex": 21, "misuse_rwlock": 22, "misuse_waits": 23, "misuse_threads": 24}


def without_config(session):
    session.write_config("")


def off(session):
    session.configure(without=("QELIX_TRACE_PTHREAD",))


def disabled(session):
    session.configure(QELIX_TRACE_PTHREAD="0")


def traced(session):
    session.configure(QELIX_TRACE_PTHREAD="1:0:1")


def above_a_millisecond(session):
    session.configure(QELIX_TRACE_PTHREAD="1:1000000:0")


def paused(session):
    session.block.pause(5)


def stopped(session):
    session.block.stop()


def with_samples(session):
    session.configure_sampling()


MODES = [off, disabled, traced, above_a_millisecond, paused, stopped, with_samples]


@pytest.mark.parametrize("mode", MODES, ids=lambda mode: mode.__name__)
@pytest.mark.parametrize("name", PROGRAMS)
def test_results_and_errno_are_those_of_the_native_run(session, name, mode):
    native = session.native(name)
    assert native.status == PROGRAMS[name]
    mode(session)
    run = session.run(name)
    assert run.lines() == native.lines()
    assert (run.status, run.err) == (native.status, native.err)
    run.assert_all_files_parse()


@pytest.mark.parametrize("name", PROGRAMS)
def test_results_and_errno_when_the_agent_could_not_start(session, name):
    native = session.native(name)
    without_config(session)
    run = session.run(name)
    assert run.lines() == native.lines()
    assert run.status == native.status
    assert run.err.decode() == f"Qelix : Failed to initialize the constructor for pid ({run.pid}).\n"


def test_hundreds_of_calls_are_compared(session):
    lines = [line for name in PROGRAMS for line in session.native(name).lines()]
    assert len(lines) > 400
    codes = {1: "EPERM", 11: "EAGAIN", 16: "EBUSY", 22: "EINVAL", 34: "ERANGE", 35: "EDEADLK", 110: "ETIMEDOUT",
             130: "EOWNERDEAD", 131: "ENOTRECOVERABLE"}
    for code, name in codes.items():
        assert any(f" = {code}, " in line for line in lines), name
    for code in (4, 11, 22, 75, 110):  # EINTR, EAGAIN, EINVAL, EOVERFLOW, ETIMEDOUT
        assert any(line.endswith(f"= -1, errno {code}") for line in lines), code
    # everything else leaves errno alone
    assert sum(line.endswith("errno 4242") for line in lines) > 350
