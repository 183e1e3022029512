"""Other tools that Debian packages, on the same loops, side by side; what is not installed is left out, and said.

The figure is the calling thread's CPU time, as everywhere; the wall time stands beside it, because a tool that
stops the program and works in a process of its own does not show in the program's CPU time.
"""

import contextlib
import dataclasses
import glob
import os
import shutil
import statistics
import subprocess
import tempfile
import time

from measure import calls
from measure.results import Row
from measure.session import Failed, clean_environment, run

GROUP = "peers on the same loops, CPU time of the calling thread"
LTTNG_WRAPPER = "liblttng-ust-pthread-wrapper.so"
LTTNG_EVENTS = ["lttng_ust_pthread:pthread_mutex_lock_req", "lttng_ust_pthread:pthread_mutex_lock_acq"]


@contextlib.contextmanager
def no_service(_scratch):
    yield {}


def _lttng(environment, *arguments):
    """Never with a daemon of its own accord: that one would stay behind."""
    return run(["lttng", "--no-sessiond", *arguments], environment, timeout=60)


def _refuse_foreign_daemon(environment):
    try:
        _lttng(environment, "list")
    except Failed:
        return
    raise Failed("a session daemon is running already; it is left alone")


def _wait_until(succeeds, seconds=10):
    give_up = time.monotonic() + seconds
    while True:
        try:
            return succeeds()
        except Failed:
            if time.monotonic() > give_up:
                raise
            time.sleep(0.1)


def find_lttng_wrapper():
    found = sorted(glob.glob(f"/usr/lib/x86_64-linux-gnu/{LTTNG_WRAPPER}*"))
    return found[0] if found else None


@contextlib.contextmanager
def lttng_session(scratch):
    """A session daemon of our own, with the two events of one lock enabled, and the wrapper preloaded."""
    environment = {"LTTNG_HOME": scratch}
    _refuse_foreign_daemon(environment)
    daemon = subprocess.Popen(["lttng-sessiond", "--no-kernel"], env={**clean_environment(), **environment},
                              stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        _wait_until(lambda: _lttng(environment, "create", "bench", "--output", os.path.join(scratch, "trace")))
        _lttng(environment, "enable-channel", "-u", "--subbuf-size", "4M", "--num-subbuf", "8", "channel")
        _lttng(environment, "enable-event", "-u", "-c", "channel", ",".join(LTTNG_EVENTS))
        _lttng(environment, "start")
        yield {**environment, "LD_PRELOAD": find_lttng_wrapper()}
        _lttng(environment, "destroy")
    finally:
        daemon.terminate()
        daemon.wait()


@contextlib.contextmanager
def lttng_switched_off(scratch):
    """The wrapper alone: its events are compiled in, and nobody listens."""
    yield {"LTTNG_HOME": scratch, "LD_PRELOAD": find_lttng_wrapper()}


@dataclasses.dataclass(frozen=True)
class Peer:
    name: str
    needs: str           # executable
    prefix: tuple = ()   # {scratch} stands for a directory of its own
    service: object = no_service
    iterations: int = 200_000
    loops: tuple = ("mutex", "semaphore")
    note: str = ""


PEERS = [
    Peer("strace -c -f", "strace", ("strace", "-c", "-f", "-o", "{scratch}/out"),
         note="sees system calls only: nothing of an uncontended lock"),
    Peer("perf trace -s", "perf", ("perf", "trace", "-s", "-o", "{scratch}/out"),
         note="sees system calls only: nothing of an uncontended lock"),
    Peer("ltrace -c", "ltrace", ("ltrace", "-c", "-o", "{scratch}/out"), iterations=1000,
         note="times both calls of the pair, aggregates them"),
    Peer("uftrace record", "uftrace", ("uftrace", "record", "--force", "-d", "{scratch}/out"),
         note="records both calls of the pair"),
    Peer("lttng, pthread wrapper", "lttng-sessiond", service=lttng_session, loops=("mutex",),
         note="records two events a lock"),
    Peer("lttng, pthread wrapper, off", "lttng-sessiond", service=lttng_switched_off, loops=("mutex",)),
]


def _require(peer):
    if not shutil.which(peer.needs):
        raise Failed(f"{peer.needs} is not installed")
    if peer.needs == "lttng-sessiond" and not find_lttng_wrapper():
        raise Failed(f"{LTTNG_WRAPPER} is not installed")


def _run_peer(context, peer, loop):
    _require(peer)
    arguments = [context.program("BenchCallCost"), loop.name, str(context.count(peer.iterations, 1000)),
                 str(calls.REPETITIONS)]
    with tempfile.TemporaryDirectory(prefix="qelix-bench-peer-") as scratch, peer.service(scratch) as environment:
        prefix = [word.format(scratch=scratch) for word in peer.prefix]
        output = run(prefix + arguments, environment, timeout=300)
    return calls.parse(_own_lines(output))[0]


def _own_lines(output):
    """The loop's lines alone: some tools print on the program's standard output."""
    lines = output.splitlines()
    last = next((at for at, line in enumerate(lines) if line.startswith("calls ")), None)
    if last is None:
        raise Failed("the loop's output is missing")
    return "\n".join(lines[max(0, last - calls.REPETITIONS):last + 1])


def _runs(context, loop, peers):
    """Variant -> what runs the loop once with it; this agent's own variants first: native, off and recorded."""
    iterations = context.count(calls.ITERATIONS, 20_000)
    ours = [variant for variant in calls.VARIANTS if variant.name in (calls.NATIVE, calls.OFF, calls.RECORDED)]
    runs = {variant.name: lambda variant=variant: calls.run_loop(context, loop, variant, iterations,
                                                                 calls.REPETITIONS) for variant in ours}
    return runs | {peer.name: lambda peer=peer: _run_peer(context, peer, loop) for peer in peers}


def _keep_wall(run_once, walls):
    """The CPU times for the row; the wall times are put aside."""
    measured = run_once()
    walls += [wall for _, wall in measured]
    return [cpu for cpu, _ in measured]


def measure(context):
    for loop in calls.LOOPS:
        peers = [peer for peer in PEERS if loop.name in peer.loops]
        if not peers:
            continue
        notes = {peer.name: peer.note for peer in peers} | {calls.OFF: "this agent", calls.RECORDED: "this agent"}
        runs = _runs(context, loop, peers)
        walls = {name: [] for name in runs}
        rows = {name: Row(GROUP, loop.title, name, "ns", []) for name in runs}
        context.take_turns(rows, {name: lambda name=name: _keep_wall(runs[name], walls[name]) for name in runs})
        for name, row in rows.items():
            row.native = rows[calls.NATIVE] if name != calls.NATIVE else None
            if row.samples:
                wall = f"wall {statistics.median(walls[name]):,.1f} ns"
                row.note = "; ".join(text for text in (wall, notes.get(name)) if text)
        yield from rows.values()
