"""Names and lines for the addresses of a large program with debug information, beside a peer that does the same."""

import os
import shutil
import subprocess
import tempfile
import time

from measure.results import Row, Target
from measure.session import Failed, run

GROUP = "names, inlined calls and lines of distinct addresses, wall time"
ADDRESSES = 100_000
MOST_MS = 5000
OURS, PEER = "qelix", "addr2line -f -i"


def _subject(context):
    """The largest program with debug information that every build has."""
    return os.path.join(context.build, "bin", "qelix")


def _ours(context, subject, count, facts):
    output = run([context.program("BenchNameAddresses"), subject, str(count)])
    nanoseconds, named, with_line, peak_kib = map(int, output.split())
    facts.append((named, with_line, peak_kib))
    return [nanoseconds / 1e6]


def _peer(subject, listing):
    if not shutil.which("addr2line"):
        raise Failed("addr2line is not installed")
    with open(listing) as addresses:
        start = time.monotonic()
        result = subprocess.run(["addr2line", "-f", "-i", "-C", "-e", subject], stdin=addresses,
                                stdout=subprocess.DEVNULL)
        wall = (time.monotonic() - start) * 1000
    if result.returncode != 0:
        raise Failed("addr2line failed")
    return [wall]


def measure(context):
    subject = _subject(context)
    count = context.count(ADDRESSES, 1000)
    title = f"{count:,} addresses of {os.path.getsize(subject) / 2**20:.0f} MiB"
    facts = []
    rows = {name: Row(GROUP, title, name, "ms", []) for name in (OURS, PEER)}
    with tempfile.TemporaryDirectory(prefix="qelix-bench-symbols-") as scratch:
        listing = os.path.join(scratch, "addresses")
        with open(listing, "w") as file:
            file.write(run([context.program("BenchNameAddresses"), subject, str(count), "list"]))
        context.take_turns(rows, {OURS: lambda: _ours(context, subject, count, facts),
                                  PEER: lambda: _peer(subject, listing)})
    ours, peer = rows[OURS], rows[PEER]
    if ours.samples:
        named, with_line, peak_kib = facts[-1]
        ours.target = Target(f"<= {MOST_MS / 1000:g} s", ours.median <= MOST_MS)
        ours.note = f"{named:,} named, {with_line:,} with a line, peak memory {peak_kib / 1024:.0f} MiB"
        ours.floors = {"peer": peer} if peer.samples else {}
    yield from rows.values()
