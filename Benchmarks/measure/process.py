"""Start and end of a process, its memory after many threads, and what the agent costs a program that idles."""

import dataclasses
import os
import random
import statistics
import subprocess
import tempfile
import time

from measure.results import Row, Target, skipped
from measure.session import Failed, WAKES, clean_environment, run

SPAWN = "fork, exec, end and wait of /bin/true, wall time"
MEMORY = "memory of threads created and ended, one after the other"
IDLE = "a program that sleeps"
BUSY = "a program that only computes, wall time"

KEYS = {"QELIX_TRACE_PTHREAD": "1:0:0"}
SPAWNS_A_ROUND = 50
MOST_SPAWN_MS = 2.0
CHURN_THREADS = 20_000
MOST_KIB_A_THREAD = 40.0
IDLE_MS = 5000
IDLE_ROUNDS = 3
MOST_IDLE_PERCENT = 2.0
BUSY_MILLION_STEPS = 200
STOPS = 20
MOST_STOP_MS = 5.0


def _spawn_samples(context, count, environment):
    output = run([context.program("BenchSpawn"), str(count), "/bin/true"], environment)
    return [int(line) / 1e6 for line in output.splitlines()]


def _spawn_under_agent(context, count, parent=None):
    with context.session(KEYS, parent=parent) as session:
        samples = _spawn_samples(context, count, {"BENCH_CHILD_PRELOAD": context.agent, **session.environment()})
        session.check_health()
        if len(session.trace_files()) != count:
            raise Failed(f"{count} processes left {len(session.trace_files())} trace files")
    return samples


def _spawn_samplers(context):
    count = context.count(SPAWNS_A_ROUND, 10)
    waiting = {"BENCH_CHILD_PRELOAD": context.floor("BenchWaitingThread")}
    return {
        "native": lambda: _spawn_samples(context, count, {}),
        "one waiting thread": lambda: _spawn_samples(context, count, waiting),
        "agent": lambda: _spawn_under_agent(context, count),
        "agent, session on disk": lambda: _spawn_under_agent(context, count, tempfile.gettempdir()),
    }


def measure_spawn(context):
    samplers = _spawn_samplers(context)
    rows = {name: Row(SPAWN, "/bin/true", name, "ms", []) for name in samplers}
    context.take_turns(rows, samplers)
    for name, row in rows.items():
        row.native = rows["native"] if name != "native" else None
        row.floors = {"waiting thread": rows["one waiting thread"]} if name.startswith("agent") else {}
    agent = rows["agent"]
    if agent.samples:
        agent.target = Target(f"<= {MOST_SPAWN_MS:g} ms over native", agent.added() <= MOST_SPAWN_MS)
    yield from rows.values()


def _churn(output):
    resident, peak, wall = map(int, output.split())
    return max(resident, peak), wall


def measure_memory(context):
    threads = context.count(CHURN_THREADS, 1000)
    arguments = [context.program("BenchThreadChurn"), str(threads)]
    title = f"{threads:,} threads"
    kib, wall = _churn(context.run_native(arguments))
    native = Row(MEMORY, title, "native", "KiB", [kib])
    native_wall = Row(MEMORY, "create, end and join of one", "native", "us", [wall / threads / 1e3])
    yield native
    try:
        with context.session(KEYS) as session:
            kib, wall = _churn(context.run_in(session, arguments))
            if session.lost_records() != 0:
                raise Failed(f"{session.lost_records()} records lost")
    except Failed as failure:
        yield skipped(MEMORY, title, "agent", str(failure))
        return
    per_thread = (kib - native.median) / threads
    yield Row(MEMORY, title, "agent", "KiB", [kib], native=native)
    yield Row(MEMORY, "added for a thread, one stream", "agent", "KiB", [per_thread],
              target=Target(f"<= {MOST_KIB_A_THREAD:g} KiB", per_thread <= MOST_KIB_A_THREAD))
    yield native_wall
    yield Row(MEMORY, "create, end and join of one", "agent", "us", [wall / threads / 1e3], native=native_wall)


def _idle_percent(output):
    cpu, wall = map(int, output.split())
    return 100 * cpu / wall


def _idle_under_agent(context, arguments, keys):
    with context.session(keys) as session:
        return [_idle_percent(context.run_in(session, arguments))]


def _time_to_stop(context):
    """Milliseconds from the controller's stop to the log line with which the agent closes its last stream."""
    with context.session(KEYS) as session:
        program = subprocess.Popen([context.program("BenchIdle"), "60000"], stdout=subprocess.DEVNULL,
                                   env={**clean_environment(), "LD_PRELOAD": context.agent,
                                        **session.environment()})
        try:
            _wait_for_line(session, "Writer thread id is")
            time.sleep(random.uniform(0.05, 0.06))
            start = time.monotonic_ns()
            session.stop()
            _wait_for_line(session, "Lost trace records count")
            return (time.monotonic_ns() - start) / 1e6
        finally:
            program.kill()
            program.wait()


def _wait_for_line(session, text, seconds=5):
    give_up = time.monotonic() + seconds
    while text not in session.log():
        if time.monotonic() > give_up:
            raise Failed(f"the log did not say \"{text}\" within {seconds} s")


def measure_idle(context):
    milliseconds = context.count(IDLE_MS, 1000)
    arguments = [context.program("BenchIdle"), str(milliseconds)]
    agents = {"agent": KEYS, "agent, woken by its controller": KEYS | WAKES}
    rows = {name: Row(IDLE, "CPU time, of one CPU", name, "%", []) for name in ("native", *agents)}
    samplers = {name: lambda keys=keys: _idle_under_agent(context, arguments, keys) for name, keys in agents.items()}
    dataclasses.replace(context, rounds=IDLE_ROUNDS).take_turns(
        rows, {"native": lambda: [_idle_percent(context.run_native(arguments))], **samplers})
    for agent in (rows[name] for name in agents if rows[name].samples):
        agent.target = Target(f"<= {MOST_IDLE_PERCENT:g} %", agent.median <= MOST_IDLE_PERCENT)
    yield from rows.values()
    try:
        times = [_time_to_stop(context) for _ in range(context.count(STOPS, 5))]
        yield Row(IDLE, "stop flag set to streams closed", "agent", "ms", times,
                  note=f"longest {max(times):.2f} ms",
                  target=Target(f"<= {MOST_STOP_MS:g} ms", statistics.median(times) <= MOST_STOP_MS))
    except Failed as failure:
        yield skipped(IDLE, "stop flag set to streams closed", "agent", str(failure))


def _busy_under_agent(context, arguments):
    with context.session(KEYS) as session:
        return [int(context.run_in(session, arguments)) / 1e6]


def measure_busy(context):
    for threads in (os.cpu_count(), 2 * os.cpu_count()):
        title = f"{threads} threads on {os.cpu_count()} CPUs"
        arguments = [context.program("BenchBusy"), str(threads), str(context.count(BUSY_MILLION_STEPS))]
        rows = {name: Row(BUSY, title, name, "ms", []) for name in ("native", "agent")}
        context.take_turns(rows, {"native": lambda: [int(context.run_native(arguments)) / 1e6],
                                  "agent": lambda: _busy_under_agent(context, arguments)})
        rows["agent"].native = rows["native"]
        yield from rows.values()
