"""The agent stays in LD_PRELOAD when the program changes it."""

import pytest

from session import AGENT

STATUS = 90


def changes(run):
    """what -> (result and errno, LD_PRELOAD afterwards)"""
    parts = (line.partition(" preload ") for line in run.lines() if " preload " in line)
    return {head.rsplit(" ", 3)[0]: (head, rest.partition(" other ")[0]) for head, _, rest in parts}


@pytest.fixture
def run(session):
    run = session.run("environment", AGENT)
    assert (run.status, run.err) == (STATUS, b"")
    return run


@pytest.fixture
def native(session):
    return session.native("environment", AGENT)


def test_results_errno_and_other_variables_are_those_of_the_native_run(run, native):
    assert {what: head for what, (head, _) in changes(run).items()} == \
           {what: head for what, (head, _) in changes(native).items()}
    others = [line.rpartition(" other ")[2] for line in run.lines() if " other " in line]
    assert others == [line.rpartition(" other ")[2] for line in native.lines() if " other " in line]


@pytest.mark.parametrize("what, expected", [
    ("set", f"{AGENT}:x.so"), ("keep", f"{AGENT}:x.so"), ("agent", f"q.so:{AGENT}:r.so"), ("empty", f"{AGENT}:"),
    ("other", f"{AGENT}:"), ("longer", f"{AGENT}:"), ("set new", f"{AGENT}:new.so"), ("put", f"{AGENT}:p.so"),
    ("put agent", f"q.so:{AGENT}:r.so"), ("put bare", f"{AGENT}:"), ("removed", "-")])
def test_the_agent_goes_first_and_a_list_that_has_it_is_stored_unchanged(run, what, expected):
    assert changes(run)[what][1] == expected


def test_the_environment_keeps_the_programs_own_string_where_nothing_is_put_in(run):
    assert [line for line in run.lines() if line.startswith("same string")] == ["same string 0", "same string 1"]


def test_without_a_configured_agent_path_nothing_is_changed(session, native):
    session.configure(without=("QELIX_USERMODE_AGENT_PATH",))
    run = session.run("environment", AGENT)
    # what stood in LD_PRELOAD before is gone with the first change
    assert run.lines() == native.lines()
    assert run.status == STATUS
