"""With a stand-in in libc's place: arguments, result and errno of every row pass unchanged, and each call leaves one
record. No privilege is needed and nothing is harmed by mount, kill or brk."""

import pytest

from calls import ROWS, SHAPES, number_of, syscalls_of
from session import program

OUTCOMES = 7
FAKE = program("fake.so")


def off(session):
    session.configure(without=("QELIX_TRACE_PTHREAD", "QELIX_TRACE_SYSCALL"))


def disabled(session):
    session.configure(QELIX_TRACE_SYSCALL="0")


def traced(session):
    session.configure()


def above_an_hour(session):
    session.trace_calls_from(3600 * 10**9)


def paused(session):
    session.block.pause(9)


def stopped(session):
    session.block.stop()


def not_started(session):
    session.configure(without=("QELIX_SHM_NAME",))


MODES = [off, disabled, traced, above_an_hour, paused, stopped, not_started]


def told(run):
    """What the program said, and the addresses of the stand-ins."""
    lines = run.lines()
    addresses = {name: int(address) for word, name, address in
                 (line.split() for line in lines if line.startswith("address "))}
    return [line for line in lines if not line.startswith("address ")], addresses


@pytest.fixture
def native(session):
    run = session.native("faked", "outcomes", behind=[FAKE])
    assert (run.status, run.err) == (6, b"")
    return told(run)[0]


def test_natively_every_row_reaches_the_stand_in_with_every_outcome(native):
    assert [line.split()[0] for line in native] == [name for name in ROWS for _ in range(OUTCOMES)]
    for line in native:
        name = line.split()[0]
        assert f"arrived 1 as {name} arguments{' same' * (len(SHAPES[name]) - 1)}" in line
    assert {line.rpartition(" ")[2] for line in native} == {"4242", "38", "77", "11", "4"}


@pytest.mark.parametrize("mode", MODES, ids=lambda mode: mode.__name__)
def test_arguments_result_and_errno_of_every_row_pass_unchanged(session, native, mode):
    mode(session)
    run = session.run("faked", "outcomes", behind=[FAKE])
    lines, _ = told(run)
    assert [line for line in lines if line not in native] == []
    assert lines == native
    assert run.status == 6
    assert run.err == b"" or mode is not_started
    run.assert_all_files_parse()


def test_each_call_leaves_one_record_with_class_and_address_of_the_real_function(session):
    run = session.run("faked", "outcomes", behind=[FAKE])
    run.assert_healthy(6)
    addresses = told(run)[1]
    names = {address: name for name, address in addresses.items()}
    made = [(names.get(record.function), record.kind, record.flags) for record in syscalls_of(run)]
    assert made == [(name, number_of(name), 0) for name in ROWS for _ in range(OUTCOMES)]
    others = {record.value for record in syscalls_of(run) if not names[record.function].startswith("mmap")}
    assert others == {0}
    mappings = [record.value for record in syscalls_of(run) if names[record.function].startswith("mmap")]
    assert mappings == 2 * [0, 2**64 - 1, 0x12345678, 0x123456789abcdef0, 1, 2**64 - 2, 2**64 - 4095]


@pytest.mark.parametrize("mode", [off, disabled, above_an_hour, paused, stopped])
def test_no_call_leaves_a_record_where_none_is_due(session, mode):
    mode(session)
    run = session.run("faked", "outcomes", behind=[FAKE])
    assert not run.trace_path.stat().st_size or syscalls_of(run) == []
