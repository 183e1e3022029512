"""Sessions that sample, and what their samples say."""

import os
import re
import signal
from collections import Counter
from pathlib import Path

import records
from session import AGENT, HOST, Run, Session

AGENT_NAME = AGENT.name
SIGNAL = 44
TICK_NS = 4_000_000
NEVER = 0  # a timer that does not fire: the program queues its signals itself, and their number is exact
DEPTH = 32
HANDLER_FRAMES = 8  # what is kept free for the handler and the signal's delivery
RECORD_FIXED = 40


class GroupRun(Run):
    """A program whose children end with it: one that hangs would keep its pipes open."""

    def kill(self):
        try:
            os.killpg(self.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        super().kill()


class SamplingSession(Session):
    """A session that samples and, where a test asks for it, traces."""

    def start(self, *arguments, before=None, **options):
        def lead_group():
            os.setpgid(0, 0)
            if before:
                before()

        run = super().start(*arguments, before=lead_group, **options)
        run.__class__ = GroupRun
        return run

    def base_keys(self):
        return [("QELIX_ENABLE_SAMPLING", 1), ("QELIX_CALLSTACK_COLLECTION", 1),
                ("QELIX_PROFILING_SIGNAL_NUMBER", SIGNAL), ("QELIX_CALLSTACK_DEPTH", DEPTH),
                ("QELIX_TIMER_INTERVAL", NEVER), ("QELIX_CPU_PROFILE_DIR", self.root / "sample"),
                ("QELIX_METADATA_DIR", self.root / "metadata"), ("QELIX_SHM_NAME", self.block.name)]

    def trace_too(self, **changed):
        """Both kinds of collection together."""
        self.configure(("QELIX_TRACE_PTHREAD", "1:0:0"), ("QELIX_UMT_DIR", self.root / "trace"), **changed)

    def run_sampler(self, *commands, **options):
        """The command-driven program, told all of this."""
        run = self.start("sampler", **options)
        tell(run, *commands)
        return run.finish()


def tell(run, *commands):
    """Gives the commands one by one; the lines they answer with are kept in `run.said`."""
    run.said = getattr(run, "said", [])
    if not run.said:
        collect_until(run, "ready")
    for command in commands:
        run.tell(command)
        collect_until(run, "done")


def collect_until(run, last):
    while (line := run.line()) != last:
        run.said.append(line)


def said(run, word):
    """The rest of every line that begins with this word."""
    lines = getattr(run, "said", []) + run.lines()
    return [line.split()[1:] for line in lines if line.split()[:1] == [word]]


def samples_of(run, tid=None, pid=None):
    """The sample records, of one thread if it is named."""
    return [record for record in all_records(run, pid) if record.type == records.SAMPLE and tid in (None, record.tid)]


def all_records(run, pid=None):
    """All records of the sample file, of a child's if its process is named."""
    return records.read_samples(sample_file(run.session, pid or run.pid))[1]


def sample_file(session, pid):
    return session.root / "sample" / f"profile_{HOST}_{pid}.ums"


def child_run(run, pid):
    """A child's files, looked at like those of a run of its own."""
    child = Run.__new__(Run)
    child.session, child.pid = run.session, pid
    return child


def log_text(session):
    return "".join(path.read_text() for path in (session.root / ".log").glob("*.txt"))


def counted(session, text):
    """The sum of a count over the log lines of all processes of the session."""
    counts = re.findall(re.escape(text) + r"\D*(\d+)", log_text(session))
    assert counts, f"no log line with {text!r}"
    return sum(map(int, counts))


def lost(session):
    return counted(session, "Lost sample records count")


def complaints(session):
    return [line for line in log_text(session).splitlines() if line.startswith(("ERROR", "WARN"))]


def assert_sound(run, status=0):
    """The program ended as it does natively, nothing was reported, and every file can be read to its end."""
    assert (run.status, run.err) == (status, b"")
    assert complaints(run.session) == []
    assert_files_parse(run.session)


def assert_files_parse(session):
    readers = (("trace/*.umt", records.read_trace), ("sample/*.ums", records.read_samples),
               ("metadata/*.meta", records.read_metadata))
    for pattern, read in readers:
        for path in session.root.glob(pattern):
            if path.stat().st_size:
                read(path)


def count_types(sample_records):
    return Counter(record.type for record in sample_records)


class Places:
    """Whose code an address is: a function that the program has told, or a module of the metadata file."""

    def __init__(self, run):
        self.functions = [(int(start), int(end), name) for name, start, end in said(run, "range")]
        maps = records.read_metadata(run.metadata_path)[1]
        self.modules = [(record.start, record.end, record.path.decode()) for record in maps]

    def function(self, address):
        return next((name for start, end, name in self.functions if start <= address < end), None)

    def module(self, address):
        path = next((path for start, end, path in self.modules if start <= address < end), "")
        return Path(path).name

    def innermost_function(self, sample):
        """The program's own function that the sample was taken in, as far as the program told it."""
        return next((name for name in map(self.function, sample.stack) if name), None)

    def split(self, sample):
        """The names of the modules, innermost first, neighbours of a kind taken together."""
        names = [self.module(address) for address in sample.stack]
        return [name for i, name in enumerate(names) if i == 0 or name != names[i - 1]]
