"""Cost of a sample, of a sampled program, and of an exception, against floors and a peer profiler."""

import os
import re
import shutil
import tempfile
import time

from measure.results import Row, Target
from measure.session import Failed, Session, run

COST = "one sample, CPU time of the sampled thread"
BUSY = "a program that only computes, sampled at the kernel's tick, wall time"
THROW = "one exception through five frames, CPU time"

DEPTHS = (8, 32, 64)
SAMPLES = 20_000
REPETITIONS = 5
MOST_COST_RATIO = 1.15
MOST_THROW_RATIO = 1.1
THROWS = 100_000
BUSY_MILLION_STEPS = 1000
BUSY_THREADS = (1, 4)
BUSY_DEPTH = 32
FILE_HEADER, NAME_RECORD, END_RECORD = 24, 72, 32
PEER = "perf record, cpu-clock"


CLOCK_MONOTONIC_COARSE = 6


def tick_ns():
    """What the kernel's timers of CPU time can do at best."""
    return round(1e9 * time.clock_getres(CLOCK_MONOTONIC_COARSE))


class SampleSession(Session):
    """A session that samples, with or without other keys."""

    def __init__(self, context, depth, interval_ns):
        super().__init__(context.agent, {
            "QELIX_ENABLE_SAMPLING": 1, "QELIX_CALLSTACK_COLLECTION": 1, "QELIX_PROFILING_SIGNAL_NUMBER": 44,
            "QELIX_CALLSTACK_DEPTH": depth, "QELIX_TIMER_INTERVAL": interval_ns})

    def _write_configuration(self):
        os.mkdir(self.path("sample"))
        self.keys["QELIX_CPU_PROFILE_DIR"] = self.path("sample")
        super()._write_configuration()

    def lost_samples(self):
        counts = re.findall(r"Lost sample records count = (\d+)", self.log())
        if not counts:
            raise Failed("the agent has not reported its count of lost samples")
        return sum(map(int, counts))

    def sample_bytes(self):
        return sum(entry.stat().st_size for entry in os.scandir(self.path("sample")))


def _in_session(context, session, arguments):
    if not context.has_agent():
        raise Failed("the agent is not built")
    return context.run_in(session, arguments)


# ---- cost of one sample ----------------------------------------------------------------------------------

def _samples_under_agent(context, depth, arguments, sizes, losses):
    with SampleSession(context, depth, 0) as session:
        costs = [float(line) for line in _in_session(context, session, arguments).splitlines()]
        taken = int(arguments[2]) * (REPETITIONS + 1)
        lost = session.lost_samples()
        losses.append(lost)
        sizes.append((session.sample_bytes() - FILE_HEADER - NAME_RECORD - END_RECORD) / max(1, taken - lost))
    return costs


def measure_cost(context):
    count = context.count(SAMPLES, 1000)
    for depth in DEPTHS:
        title = f"{depth} frames below"
        arguments = [context.program("BenchSampleCost"), str(depth), str(count), str(REPETITIONS)]
        sizes, losses = [], []
        rows = {"bare handler": Row(COST, title, "bare handler that unwinds", "ns", []),
                "agent": Row(COST, title, "agent", "ns", [])}
        context.take_turns(rows, {
            "bare handler": lambda: [float(line) for line in context.run_native(arguments).splitlines()],
            "agent": lambda: _samples_under_agent(context, depth, arguments, sizes, losses)})
        agent = rows["agent"]
        if agent.samples and rows["bare handler"].samples:
            agent.floors = {"bare handler": rows["bare handler"]}
            agent.target = Target(f"<= {MOST_COST_RATIO:g} x bare handler",
                                  agent.ratios()["bare handler"] <= MOST_COST_RATIO)
            taken = len(losses) * count * (REPETITIONS + 1)
            agent.note = f"{sizes[-1]:.0f} bytes a sample, lost {sum(losses)} of {taken:,}"
        yield from rows.values()


# ---- a busy program --------------------------------------------------------------------------------------

def _milliseconds(output):
    return [int(output.splitlines()[-1]) / 1e6]


def _busy_under_agent(context, arguments, losses):
    with SampleSession(context, BUSY_DEPTH, tick_ns()) as session:
        wall = _milliseconds(_in_session(context, session, arguments))
        losses.append(session.lost_samples())
    return wall


def _busy_under_peer(arguments):
    if not shutil.which("perf"):
        raise Failed("perf is not installed")
    with tempfile.TemporaryDirectory() as scratch:
        rate = str(round(1e9 / tick_ns()))
        return _milliseconds(run(["perf", "record", "-q", "-e", "cpu-clock", "-F", rate, "--call-graph", "fp",
                                  "-o", os.path.join(scratch, "data"), "--", *arguments]))


def measure_busy(context):
    for threads in BUSY_THREADS:
        title = f"{threads} thread{'s' if threads > 1 else ''} on {os.cpu_count()} CPUs"
        arguments = [context.program("BenchBusy"), str(threads), str(context.count(BUSY_MILLION_STEPS))]
        losses = []
        rows = {name: Row(BUSY, title, name, "ms", []) for name in ("native", PEER, "agent")}
        context.take_turns(rows, {"native": lambda: _milliseconds(context.run_native(arguments)),
                                  PEER: lambda: _busy_under_peer(arguments),
                                  "agent": lambda: _busy_under_agent(context, arguments, losses)})
        native, peer, agent = rows["native"], rows[PEER], rows["agent"]
        peer.native = agent.native = native
        if agent.samples and peer.samples:
            agent.floors = {"peer": peer}
            agent.target = Target("not slower than the peer", agent.median <= peer.median)
        agent.note = f"lost {sum(losses)} samples" if losses else agent.note
        yield from rows.values()


# ---- exceptions ------------------------------------------------------------------------------------------

def _throw(context, arguments, keys=None, is_sampled=False):
    session = SampleSession(context, BUSY_DEPTH, tick_ns()) if is_sampled else context.session(keys)
    with session:
        return [float(line) for line in _in_session(context, session, arguments).splitlines()]


def measure_throw(context):
    arguments = [context.program("BenchThrowCost"), str(context.count(THROWS, 2000)), str(REPETITIONS)]
    rows = {name: Row(THROW, "throw and catch", name, "ns", [])
            for name in ("native", "agent, sampling off", "agent, sampled at the tick")}
    context.take_turns(rows, {
        "native": lambda: [float(line) for line in context.run_native(arguments).splitlines()],
        "agent, sampling off": lambda: _throw(context, arguments, {"QELIX_TRACE_PTHREAD": "1:0:0"}),
        "agent, sampled at the tick": lambda: _throw(context, arguments, is_sampled=True)})
    off, sampled = rows["agent, sampling off"], rows["agent, sampled at the tick"]
    off.native = sampled.native = rows["native"]
    if off.samples and rows["native"].samples:
        off.target = Target(f"<= {MOST_THROW_RATIO:g} x native", off.ratios()["native"] <= MOST_THROW_RATIO)
    yield from rows.values()
