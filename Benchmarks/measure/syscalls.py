"""System calls made for a recorded call, counted by strace over a million of them."""

import shutil

from measure import calls
from measure.results import Row, Target, skipped
from measure.session import Failed, run

GROUP = "system calls for a recorded call (strace -c)"
ITERATIONS = 1_000_000
# A full buffer may cost its owner a call or two, and holds 511 records.
MOST_OF_THE_THREAD = 0.01
# What is counted: strace without -f follows the program's main thread only, which makes the calls.
SCOPES = [("calling thread", []), ("all threads", ["-f"])]


def parse_summary(text):
    """Output of `strace -c`: name -> calls."""
    counts = {}
    for line in text.splitlines():
        words = line.split()
        if len(words) >= 5 and words[3].isdigit():
            counts[words[-1]] = int(words[3])
    return counts


def _count(context, loop, scope, iterations):
    with context.session({loop.key: "1:0:0"}) as session:
        summary = session.path("strace.txt")
        command = ["strace", "-c", *scope, "-o", summary, "-E", f"LD_PRELOAD={context.agent}",
                   context.program("BenchCallCost"), loop.name, str(iterations), "1"]
        calls_made = calls.parse(run(command, session.environment()))[1]
        session.check_health()
        with open(summary) as file:
            return parse_summary(file.read()), calls_made


def _measure_scope(context, loop, scope_name, scope):
    base, base_calls = _count(context, loop, scope, 1)
    full, full_calls = _count(context, loop, scope, context.count(ITERATIONS, 100_000))
    made = full_calls - base_calls
    own = {loop.system_call: made}
    more = {name: full[name] - base.get(name, 0) - own.get(name, 0) for name in full if name != "total"}
    per_call = max(0, sum(more.values())) / made
    most = sorted((-count, name) for name, count in more.items() if count > 0)[:4]
    row = Row(GROUP, loop.title, scope_name, "calls", [per_call],
              note=", ".join(f"{name} {-count}" for count, name in most))
    if not scope:
        row.target = Target(f"<= {MOST_OF_THE_THREAD:g}, buffer changes only", per_call <= MOST_OF_THE_THREAD)
    return row


def measure(context):
    for loop in calls.LOOPS:
        for scope_name, scope in SCOPES:
            try:
                if not shutil.which("strace"):
                    raise Failed("strace is not installed")
                yield _measure_scope(context, loop, scope_name, scope)
            except Failed as failure:
                yield skipped(GROUP, loop.title, scope_name, str(failure))
