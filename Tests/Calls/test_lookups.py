"""Real functions that cannot be found."""

import re

import pytest

from calls import ROWS, SHAPES, VERSIONED, number_of, syscalls_of
from session import program

FAKE = program("fake.so")
ARGUMENT = {0: 0x10101010, 1: 0x10101011}
LINE = re.compile(r"(\w+) round (\d) arrived (\d) as (\S+) arguments.*?(?: result (\w+))? errno (\d+)")


def answer_without_a_function(name, call):
    """What a call gives back as long as its real function is missing."""
    if name == "sleep":
        return ARGUMENT[call]
    if name in ("alarm", "signal", "__sysv_signal"):
        return 0
    return {"i": 2**32 - 1, "l": 2**64 - 1, "v": None}[SHAPES[name][0]]


@pytest.fixture(params=["dlsym", "dlvsym"])
def lookups(request, session):
    run = session.run("faked", "lookups", ahead=[program(f"forbid_{request.param}.so")], behind=[FAKE])
    assert run.status == 6
    run.missing = [name for name in ROWS if (name in VERSIONED) == (request.param == "dlvsym")]
    run.made = [LINE.fullmatch(line).groups() for line in run.lines() if not line.startswith("address ")]
    return run


def test_a_lookup_failure_returns_minus_1_sleep_its_argument_and_alarm_0(lookups):
    made = {(name, int(call)): (arrived, result and int(result, 16), error)
            for name, call, arrived, _, result, error in lookups.made}
    for name in lookups.missing:
        for call in (0, 1):
            assert made[name, call] == ("0", answer_without_a_function(name, call), "4242"), name
    for name in ROWS.keys() - set(lookups.missing):
        assert made[name, 0][0] == made[name, 1][0] == "1", name


def test_the_message_is_printed_each_time_until_the_lookup_succeeds(lookups):
    messages = [f"Failed to get the symbol address for ({name})." for name in lookups.missing for _ in range(2)]
    found = re.findall(r"Failed to get the symbol address for \(\w+\)\.", lookups.err.decode())
    assert [line for line in found if line in messages] == messages


def test_once_the_lookup_succeeds_the_call_is_made_and_recorded(lookups):
    made = [(name, arrived) for name, call, arrived, *_ in lookups.made if call == "2"]
    assert made == [(name, "1") for name in ROWS]
    addresses = {int(line.split()[2]): line.split()[1] for line in lookups.lines() if line.startswith("address ")}
    counts = {}
    for record in syscalls_of(lookups):
        name = addresses[record.function]
        counts[name] = counts.get(name, 0) + 1
        assert record.kind == number_of(name)
    assert counts == {name: 1 if name in lookups.missing else 3 for name in ROWS}


def test_the_start_of_the_agent_is_silent_about_names_that_nobody_calls(session):
    run = session.run("futexes", "none", ahead=[program("forbid_dlsym.so")])
    assert run.err == b""
