"""What every measurement needs to know of this run: where the programs are and how much to do."""

import dataclasses
import os

from measure.results import skipped
from measure.session import Failed, Session, run

AGENT = "libZorUserModeTracingAgent.so"


@dataclasses.dataclass
class Context:
    build: str
    agent: str
    rounds: int
    scale: float  # 1 for the figures that are published, less for a quick look

    def program(self, name):
        return os.path.join(self.build, "benchmarks", name)

    def floor(self, name):
        return os.path.join(self.build, "benchmarks", f"lib{name}.so")

    def count(self, number, least=1):
        return max(least, int(number * self.scale))

    def has_agent(self):
        return os.path.exists(self.agent)

    def session(self, keys, **options):
        if not self.has_agent():
            raise Failed("the agent is not built")
        return Session(self.agent, keys, **options)

    def run_native(self, arguments, preload=None):
        return run(arguments, {"LD_PRELOAD": preload} if preload else {})

    def run_in(self, session, arguments):
        """Under the agent; the session must look healthy afterwards."""
        output = run(arguments, {"LD_PRELOAD": session.agent, **session.environment()}, is_quiet=True)
        session.check_health()
        return output

    def take_turns(self, rows, samplers):
        """Every variant once a round, so that what else the machine does falls on all of them alike.

        `rows` and `samplers` go by the variant's name; a sampler returns a list. A variant that fails once is
        left out, and its row says why.
        """
        for _ in range(self.rounds):
            for name in [name for name in samplers if not rows[name].is_skipped]:
                row = rows[name]
                try:
                    row.samples += samplers[name]()
                except Failed as failure:
                    rows[name] = skipped(row.group, row.subject, row.variant, str(failure))

    def count_records(self, session):
        """(type, subtype) -> records in all trace files of the session, each read to its last byte."""
        counts = {}
        for line in run([self.program("BenchCountRecords"), *session.trace_files()]).splitlines():
            record_type, subtype, count = map(int, line.split())
            counts[record_type, subtype] = count
        return counts
