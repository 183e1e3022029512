"""Cost of one call in the calling thread's own CPU time: native, with the floors, with the agent."""

import dataclasses

from measure.results import Row, Target
from measure.session import Failed

GROUP = "cost of a call, CPU time of the calling thread"
ITERATIONS = 1_000_000
REPETITIONS = 3
ONE_SECOND = 1_000_000_000

MOST_OFF_NS = 2.0
MOST_RECORDED_RATIO = 1.2
# "Not dearer" within what two medians of the same code differ by.
SAME_WITHIN = 1.02


@dataclasses.dataclass(frozen=True)
class Loop:
    """One row a call. `name` is the loop of BenchCallCost; the floors have a row for its call too."""
    name: str
    title: str
    key: str      # configures the call's class
    record: tuple  # (type, subtype) of its records
    system_call: str = ""  # what every pass makes natively


LOOPS = [
    Loop("mutex", "pthread_mutex_lock, _unlock", "QELIX_TRACE_PTHREAD", (1, 1)),
    Loop("semaphore", "sem_wait, sem_post", "QELIX_TRACE_PTHREAD", (1, 10)),
    Loop("write", "write, one byte", "QELIX_TRACE_SYSCALL", (3, 5), "write"),
    Loop("read", "read, one byte", "QELIX_TRACE_SYSCALL", (3, 5), "read"),
]


@dataclasses.dataclass(frozen=True)
class Variant:
    name: str
    floor: str = ""      # object to preload in the agent's place
    event: str = ""      # value of the class's key; empty: without the agent
    is_paused: bool = False
    is_recording: bool = False
    arguments: tuple = ()


NATIVE, FORWARD, RECORD = "native", "forward floor", "record floor"
ALONE, OFF, RECORDED, BELOW, PAUSED = "native, one thread", "class off", "recorded", "below threshold", "paused"

VARIANTS = [
    Variant(NATIVE),
    Variant(ALONE, arguments=("alone",)),
    Variant(FORWARD, floor="BenchForwardFloor"),
    Variant(RECORD, floor="BenchRecordFloor"),
    Variant(OFF, event="0"),
    Variant(RECORDED, event="1:0:0", is_recording=True),
    Variant(BELOW, event=f"1:{ONE_SECOND}:0"),
    Variant(PAUSED, event="1:0:0", is_paused=True),
]


def _check_records(context, session, loop, variant, calls):
    """Whether the agent did what the variant is named after: a row for a call that was not recorded misleads."""
    found = context.count_records(session).get(loop.record, 0)
    expected = calls if variant.is_recording else 0
    if found != expected:
        raise Failed(f"{found} records of {expected} expected")


def parse(output):
    """Output of BenchCallCost: [(CPU ns, wall ns)], number of calls."""
    *measured, last = output.splitlines()
    return [tuple(map(float, line.split())) for line in measured], int(last.split()[1])


def run_loop(context, loop, variant, iterations, repetitions):
    arguments = [context.program("BenchCallCost"), loop.name, str(iterations), str(repetitions), *variant.arguments]
    if not variant.event:
        return parse(context.run_native(arguments, variant.floor and context.floor(variant.floor)))[0]
    with context.session({loop.key: variant.event}, is_paused=variant.is_paused) as session:
        measured, calls = parse(context.run_in(session, arguments))
        _check_records(context, session, loop, variant, calls)
    return measured


def _sampler(context, loop, variant):
    iterations = context.count(ITERATIONS, 20_000)
    return lambda: [cpu for cpu, _ in run_loop(context, loop, variant, iterations, REPETITIONS)]


def _compare(rows):
    for name, row in rows.items():
        if name != NATIVE:
            row.native = rows[NATIVE]
        if name in (OFF, PAUSED, RECORDED, BELOW):
            row.floors = {"forward": rows[FORWARD], "record": rows[RECORD]}
    off, recorded, below = rows[OFF], rows[RECORDED], rows[BELOW]
    if off.samples:
        off.target = Target(f"<= {MOST_OFF_NS:g} ns over native", off.added() <= MOST_OFF_NS)
    if recorded.samples:
        recorded.target = Target(f"<= {MOST_RECORDED_RATIO:g} x record floor",
                                 recorded.ratios()["record"] <= MOST_RECORDED_RATIO)
    if below.samples and recorded.samples:
        below.floors["recorded"] = recorded
        below.target = Target("not dearer than recorded", below.median <= recorded.median * SAME_WITHIN)


def measure(context):
    for loop in LOOPS:
        rows = {variant.name: Row(GROUP, loop.title, variant.name, "ns", []) for variant in VARIANTS}
        context.take_turns(rows, {variant.name: _sampler(context, loop, variant) for variant in VARIANTS})
        _compare(rows)
        yield from rows.values()
