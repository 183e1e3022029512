"""What whole programs pay: the loading of a module, and the build of a project by many short processes."""

import os
import resource
import shutil
import subprocess
import tempfile
import time

from measure.results import Row, Target, skipped
from measure.session import Failed, WAKES, clean_environment, fast_directory

LOAD = "dlopen of an empty module, wall time"
MAPPINGS = (0, 500)
LOADS = 200

BUILD = "make -j2 of a real project"
PROJECT = "/usr/src/googletest"
BUILD_ROUNDS = 3
NATIVE, WAITING, TRACED = "native", "one waiting thread", "everything at 10 us"
UNWOKEN = "the same, flags looked at"
MOST_BUILD_RATIO = 1.05
TEN_MICROSECONDS = 10_000
EVERYTHING = {"QELIX_TRACE_PTHREAD": f"1:{TEN_MICROSECONDS}:0", "QELIX_TRACE_SYSCALL": f"1:{TEN_MICROSECONDS}:0"}


def _load_samples(output):
    return [int(line) / 1e3 for line in output.splitlines()]


def _load_under_agent(context, arguments):
    with context.session({"QELIX_TRACE_SYSCALL": "1:0:0"}) as session:
        return _load_samples(context.run_in(session, arguments))


def measure_loads(context):
    for mappings in MAPPINGS:
        arguments = [context.program("BenchLoadModule"), str(mappings), str(context.count(LOADS, 10)),
                     context.floor("BenchEmptyModule")]
        rows = {name: Row(LOAD, f"with {mappings} mappings more", name, "us", []) for name in ("native", "agent")}
        context.take_turns(rows, {"native": lambda: _load_samples(context.run_native(arguments)),
                                  "agent": lambda: _load_under_agent(context, arguments)})
        rows["agent"].native = rows["native"]
        yield from rows.values()


def _cpu_of_children():
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    return used.ru_utime + used.ru_stime


class Project:
    """A project of Debian's, configured once; each build starts from its sources."""

    def __init__(self, folder):
        self.folder = folder
        self._run("cmake", "-S", PROJECT, "-B", folder, "-G", "Unix Makefiles", "-Dgtest_build_samples=ON",
                  "-DCMAKE_CXX_COMPILER=/usr/bin/g++")

    def _run(self, *command, environment=None):
        result = subprocess.run(command, env={**clean_environment(), "CCACHE_DISABLE": "1", **(environment or {})},
                                stdin=subprocess.DEVNULL, capture_output=True, text=True)
        if result.returncode != 0:
            raise Failed(f"{command[0]} failed: {(result.stderr.strip().splitlines() or ['no message'])[-1]}")

    def build(self, environment=None):
        """Milliseconds of one whole build: of the clock, and of CPU time in all its processes."""
        self._run("make", "-C", self.folder, "clean")
        start, cpu_start = time.monotonic(), _cpu_of_children()
        self._run("make", "-C", self.folder, "-j2", environment=environment)
        return (time.monotonic() - start) * 1e3, (_cpu_of_children() - cpu_start) * 1e3


def _build_under_agent(context, project, promise):
    with context.session({**EVERYTHING, **promise, "QELIX_USERMODE_AGENT_PATH": context.agent}) as session:
        took = project.build({"LD_PRELOAD": context.agent, **session.environment()})
        session.check_health()
        return took


def measure_build(context):
    if not os.path.isdir(PROJECT) or not shutil.which("make"):
        yield skipped(BUILD, PROJECT, "", "make or the package googletest is not installed")
        return
    titles = ("wall time", "CPU time of all processes")
    rows = {variant: [Row(BUILD, title, variant, "ms", []) for title in titles] for variant in (NATIVE, WAITING, TRACED, UNWOKEN)}
    waiting = {"LD_PRELOAD": context.floor("BenchWaitingThread")}
    with tempfile.TemporaryDirectory(prefix="qelix-bench-", dir=fast_directory()) as folder:
        project = Project(os.path.join(folder, "build"))
        for _ in range(min(context.rounds, BUILD_ROUNDS)):
            for variant, took in ((NATIVE, project.build()), (WAITING, project.build(waiting)),
                                  (TRACED, _build_under_agent(context, project, WAKES)),
                                  (UNWOKEN, _build_under_agent(context, project, {}))):
                for row, milliseconds in zip(rows[variant], took):
                    row.samples.append(milliseconds)
    for native, floor, traced, unwoken in zip(*rows.values()):
        floor.native = traced.native = unwoken.native = native
        traced.floors = unwoken.floors = {"waiting thread": floor}
        traced.target = Target(f"<= {MOST_BUILD_RATIO:g} x native", traced.ratios()["native"] <= MOST_BUILD_RATIO)
        yield native
        yield floor
        yield traced
        yield unwoken
