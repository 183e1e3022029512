"""Programs whose allocator is not libc's."""

import pytest

from processes import without_numbers
from session import program

ALLOCATOR = [program("own_allocator.so")]


def assert_as_natively(session, place, *command):
    native = session.native(*command, ahead=ALLOCATOR)
    run = session.run(*command, **{place: ALLOCATOR})
    assert (run.status, run.err) == (native.status, native.err)
    assert without_numbers(run) == without_numbers(native)
    assert run.log_texts("ERROR", "WARN") == []
    run.assert_all_files_parse()


@pytest.mark.parametrize("place", ["ahead", "behind"])
@pytest.mark.parametrize("mode", ["fork", "nested", "thread", "spawn"])
def test_children_and_threads_run_with_the_programs_own_allocator(session, place, mode):
    assert_as_natively(session, place, "forks", mode)


@pytest.mark.parametrize("place", ["ahead", "behind"])
def test_a_sampled_program_runs_with_its_own_allocator(session, place):
    session.configure_sampling(("QELIX_CALLSTACK_COLLECTION", 1), ("QELIX_CALLSTACK_DEPTH", 16))
    assert_as_natively(session, place, "forks", "fork")


@pytest.mark.parametrize("place", ["ahead", "behind"])
def test_a_changed_environment_goes_through_the_programs_own_allocator(session, place):
    run = session.run("environment", "agent.so", **{place: ALLOCATOR})
    assert (run.status, run.err) == (90, b"")
