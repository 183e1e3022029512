"""Whether the profile is true: shares and counts against the program's own clocks. For a quiet machine."""

import os
import subprocess
from collections import Counter

import pytest

from sampling import TICK_NS, Places, assert_sound, counted, said, samples_of
from session import program

MILLISECONDS = 6000
POINTS = 3.0
FUNCTIONS = ("spend_a", "spend_b", "spend_c")


def shares(counts):
    total = sum(counts.values())
    return {name: 100 * count / total for name, count in counts.items()}


def spent_by_thread(run):
    """Thread id: nanoseconds in each function by the thread's own clock, and all its CPU time."""
    return {int(tid): (dict(zip(FUNCTIONS, map(int, rest[:3]))), int(rest[3])) for tid, *rest in said(run, "spent")}


def assert_close(found, expected):
    for name in FUNCTIONS:
        assert abs(found.get(name, 0) - expected[name]) <= POINTS, (found, expected)


def assert_within(found, expected, part=0.05):
    assert abs(found - expected) <= part * expected, (found, expected)


@pytest.mark.parametrize("threads", [1, 4])
def test_shares_and_counts_are_those_of_the_threads_own_clocks(session, threads):
    session.configure(QELIX_TIMER_INTERVAL=TICK_NS)
    run = session.run("split", threads, MILLISECONDS)
    assert_sound(run)
    places = Places(run)
    spent = spent_by_thread(run)
    assert len(spent) == threads
    all_found, all_spent = Counter(), Counter()
    for tid, (parts, total) in spent.items():
        found = Counter(places.innermost_function(sample) for sample in samples_of(run, tid))
        assert_close(shares({name: found[name] for name in FUNCTIONS}), shares(parts))
        # threads that share a CPU are often off it when the kernel's tick comes: their expiries add up, see below
        if threads < os.cpu_count():
            assert_within(sum(found.values()), total / TICK_NS)
        all_found += found
        all_spent += Counter(parts)
    assert_close(shares({name: all_found[name] for name in FUNCTIONS}), shares(all_spent))
    expiries = len(samples_of(run)) + counted(session, "Timer overrun count")
    assert_within(expiries, sum(total for _, total in spent.values()) / TICK_NS)
    (sleeper,), = said(run, "sleeper")
    assert samples_of(run, int(sleeper)) == []


def test_samples_and_missed_expiries_make_up_a_shorter_interval(session):
    session.configure(QELIX_TIMER_INTERVAL=1000000)
    run = session.run("split", 1, 3000)
    assert_sound(run)
    ((tid, (_, total)),) = spent_by_thread(run).items()
    expiries = len(samples_of(run)) + counted(session, "Timer overrun count")
    # the main thread and the sleeper add next to nothing
    assert_within(expiries, total / 1e6)
    assert tid in {sample.tid for sample in samples_of(run)}


def test_another_profiler_finds_the_same_shares(session, tmp_path):
    """perf's software clock on the same program: each of the functions within 3 points."""
    data = tmp_path / "perf.data"
    command = ["perf", "record", "-q", "-e", "cpu-clock", "-F", "250", "-g", "-o", data]
    try:
        subprocess.run([*command, "--", "true"], check=True, capture_output=True)
    except (OSError, subprocess.CalledProcessError):
        pytest.skip("no usable peer profiler here")
    subprocess.run([*command, "--", program("split"), "1", str(MILLISECONDS)], check=True, capture_output=True)
    peer = peer_shares(data)

    session.configure(QELIX_TIMER_INTERVAL=TICK_NS)
    run = session.run("split", 1, MILLISECONDS)
    places = Places(run)
    found = Counter(places.innermost_function(sample) for sample in samples_of(run))
    assert_close(shares({name: found[name] for name in FUNCTIONS}), shares(peer))


def peer_shares(data):
    """Samples by the first of our functions in their stack."""
    script = subprocess.run(["perf", "script", "-i", data, "-F", "ip,sym"], check=True, capture_output=True,
                            text=True).stdout
    found = Counter()
    for stack in script.split("\n\n"):
        names = [line.split()[1] for line in stack.splitlines() if len(line.split()) > 1]
        found[next((name for name in names if name in FUNCTIONS), "")] += 1
    return {name: found[name] for name in FUNCTIONS}
