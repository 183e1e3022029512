"""How fast, and in how much memory, a large session is reported, beside a profiler's report on as many events."""

import os
import shutil
import subprocess
import tempfile
import time

from measure.results import Row, Target, skipped
from measure.session import Failed, clean_environment, fast_directory, run

GROUP = "report of a session"
RECORDS = 10_000_000
MOST_SECONDS = 3.0
MOST_MIB = 200.0


def _timed(arguments):
    """Seconds from start to end and on a CPU, and the peak of the resident memory in MiB."""
    start = time.monotonic()
    try:
        process = subprocess.Popen(arguments, env=clean_environment(), stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    except OSError as error:
        raise Failed(f"{arguments[0]}: {error.strerror}") from None
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        raise Failed(f"{os.path.basename(arguments[0])} ended with status {process.returncode}")
    return time.monotonic() - start, usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024


def _rows(subject, arguments, records, rounds, targets):
    try:
        runs = [_timed(arguments) for _ in range(rounds)]
    except Failed as failure:
        return [skipped(GROUP, subject, "time", str(failure))]
    seconds, peak = [run[0] for run in runs], max(run[2] for run in runs)
    rate = Row(GROUP, subject, "rate", "M records/s", [records / second / 1e6 for second in seconds])
    duration = Row(GROUP, subject, "time", "s", seconds)
    cpu = Row(GROUP, subject, "CPU time", "s", [run[1] for run in runs])
    memory = Row(GROUP, subject, "peak memory", "MiB", [run[2] for run in runs])
    if targets and records == RECORDS:
        duration.target = Target(f"< {MOST_SECONDS:g} s", duration.median < MOST_SECONDS)
        memory.target = Target(f"< {MOST_MIB:g} MiB", peak < MOST_MIB)
    return [duration, cpu, rate, memory]


def _peer(directory, records, rounds):
    """The system profiler, when it is installed, on the same number of the system calls of a program."""
    subject = "perf report, system calls"
    data = os.path.join(directory, "perf.data")
    if shutil.which("perf") is None:
        return [skipped(GROUP, subject, "time", "perf is not installed")]
    try:
        # a byte at a time: two calls for each
        run(["perf", "record", "-q", "-m", "8192", "-e", "raw_syscalls:sys_exit", "-o", data, "--", "dd",
             "if=/dev/zero", "of=/dev/null", "bs=1", f"count={records // 2}", "status=none"])
        said = run(["perf", "report", "-i", data, "--stdio", "--header-only"])
    except Failed as failure:
        return [skipped(GROUP, subject, "time", f"nothing could be recorded: {failure}")]
    rows = _rows(subject, ["perf", "report", "-i", data, "--stdio"], records, rounds, False)
    if not rows[0].is_skipped:
        rows[0].note = f"{os.path.getsize(data) / 1e6:.0f} MB" + (", events lost" if "lost" in said else "")
    return rows


def measure(context):
    records = context.count(RECORDS, 100_000)
    directory = tempfile.mkdtemp(prefix="qelix-bench-", dir=fast_directory())
    try:
        session = os.path.join(directory, "session")
        run([context.program("BenchMakeSession"), session, str(records)])
        command = os.path.join(context.build, "bin", "qelix")
        for view in ("report", "locks"):
            yield from _rows(f"qelix {view}, {records:,} records", [command, view, session], records, context.rounds,
                             view == "report")
        shutil.rmtree(session)
        yield from _peer(directory, records, context.rounds)
    finally:
        shutil.rmtree(directory)
