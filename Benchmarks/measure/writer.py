"""Records and bytes per second through the writer, and how long a full buffer waits for it."""

import dataclasses
import os
import statistics
import time

from measure.results import Row, Target, skipped
from measure.session import Failed

THROUGHPUT = "through the writer, from the first record to the end of the process"
TAKEN = "full buffer, until it is in the file"
KEYS = {"QELIX_TRACE_PTHREAD": "1:0:0"}
LOCK_RECORD = (1, 1)
THREADS = (1, 2, 4)
LOCKS = 2_000_000
RECORD_SIZE = 64
BURSTS = 100
MOST_WAIT_MS = 4.0
# A burst counts when the moment in which its buffer was taken is known as closely as this.
MOST_DOUBT_MS = 0.25


@dataclasses.dataclass
class Load:
    """One run: how fast records were made, how fast they were all in the file, and what became of them."""
    made_rate: float
    rate: float
    peak_mib: float
    missing: int   # by the records in the file
    lost: int      # by the agent's own count


def _load(context, threads, locks):
    with context.session(KEYS) as session:
        output = context.run_in(session, [context.program("BenchWriterLoad"), str(threads), str(locks)])
        gone = time.monotonic_ns()
        start, end, peak = map(int, output.split())
        found, lost = context.count_records(session).get(LOCK_RECORD, 0), session.lost_records()
    records = threads * locks
    if lost is None:
        raise Failed("the agent has not reported its count of lost records")
    return Load(records / (end - start) * 1e3, records / (gone - start) * 1e3, peak / 1024, records - found, lost)


def _throughput(context, threads):
    locks = context.count(LOCKS, 20_000) // threads
    title = f"{threads} thread{'s' if threads > 1 else ''}"
    try:
        loads = [_load(context, threads, locks) for _ in range(context.rounds)]
    except Failed as failure:
        return [skipped(THROUGHPUT, title, "recorded", str(failure))]
    missing, lost = sum(load.missing for load in loads), sum(load.lost for load in loads)
    note = (f"missing {missing}, counted as lost {lost}, "
            f"made at {statistics.median(load.made_rate for load in loads):.2f} M/s, "
            f"peak memory {statistics.median(load.peak_mib for load in loads):.0f} MiB")
    return [Row(THROUGHPUT, title, "records", "M records/s", [load.rate for load in loads], note=note,
                target=Target(f"none of {len(loads) * threads * locks:,} lost", missing == 0 and lost == 0)),
            Row(THROUGHPUT, title, "bytes", "MB/s", [load.rate * RECORD_SIZE for load in loads])]


def _waits(context, busy_threads):
    title = "every CPU busy" if busy_threads else "CPUs idle"
    try:
        with context.session(KEYS) as session:
            output = context.run_in(session, [context.program("BenchBufferTaken"), session.path("trace"),
                                              str(busy_threads), str(context.count(BURSTS, 20))])
    except Failed as failure:
        return skipped(TAKEN, title, "recorded", str(failure))
    bounds = [[int(word) / 1e6 for word in line.split()] for line in output.splitlines()]
    waits = [taken for not_yet, taken in bounds if taken - not_yet <= MOST_DOUBT_MS]
    if len(waits) < 2:
        return skipped(TAKEN, title, "recorded", "the watching thread was always off its CPU")
    late = statistics.quantiles(waits, n=20)[-1]
    return Row(TAKEN, title, "recorded", "ms", waits,
               note=f"longest {max(waits):.2f} ms, {len(waits)} of {len(bounds)} bursts seen",
               target=Target(f"<= {MOST_WAIT_MS:g} ms, 19 of 20", late <= MOST_WAIT_MS))


def measure(context):
    for threads in THREADS:
        yield from _throughput(context, threads)
    for busy_threads in (0, os.cpu_count()):
        yield _waits(context, busy_threads)
