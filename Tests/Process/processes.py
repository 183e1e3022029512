"""Sessions of whole process trees: every process that ran in one, with its files."""

import re
from types import SimpleNamespace

import records
from session import AGENT, HOST, Run, Session


class Relative(Run):
    """A process of the session that the test did not start itself."""

    def __init__(self, session, pid):
        super().__init__(session, SimpleNamespace(pid=pid))


class ProcessSession(Session):
    """Traces every system call; children find the agent's path in the configuration."""

    def base_keys(self):
        return [("QELIX_TRACE_PTHREAD", "1:0:0"), ("QELIX_TRACE_SYSCALL", "1:0:0"),
                ("QELIX_USERMODE_AGENT_PATH", AGENT), ("QELIX_UMT_DIR", self.root / "trace"),
                ("QELIX_METADATA_DIR", self.root / "metadata"), ("QELIX_SHM_NAME", self.block.name)]

    def without_children(self):
        self.configure(("QELIX_PROFILE_CHILDREN", 0))

    def configure_sampling_alone(self, *more):
        """Sampling with a timer that never fires, and no tracing."""
        keys = (("QELIX_ENABLE_SAMPLING", 1), ("QELIX_PROFILING_SIGNAL_NUMBER", 44), ("QELIX_TIMER_INTERVAL", 0),
                ("QELIX_CPU_PROFILE_DIR", self.root / "sample"))
        self.configure(*keys, *more, without=("QELIX_TRACE_PTHREAD", "QELIX_TRACE_SYSCALL"))

    def relative(self, pid):
        return Relative(self, int(pid))

    def traced_pids(self):
        """Every process that has a trace file."""
        pattern = re.compile(rf"trace_{re.escape(HOST)}_(\d+)\.umt")
        names = (pattern.fullmatch(path.name) for path in (self.root / "trace").iterdir())
        return {int(match.group(1)) for match in names if match}

    def all_log_texts(self, *levels):
        texts = []
        for pid in {int(path.stem.rpartition("_")[2]) for path in (self.root / ".log").iterdir()}:
            texts += self.relative(pid).log_texts(*levels)
        return texts


def assert_files_whole(run):
    """A process that ended with its data written: nothing lost, nothing torn, nothing complained of."""
    assert run.log_texts("ERROR", "WARN") == []
    assert "Lost trace records count = 0" in run.log_texts("INFO")
    run.assert_all_files_parse()
    assert run.error_path.read_bytes() == b""


def work_of(run, address):
    """How many of the calls that stand for work the process left in its trace."""
    return len([record for record in run.trace() if record.type == records.SYSCALL and record.function == address])


def told(run, word):
    """The fields of every line that begins with the word."""
    return [line.split()[1:] for line in run.lines() if line.split()[:1] == [word]]


def said_work(run):
    """pid -> (calls that it says it made, address of their function)."""
    work = {}
    for pid, calls, address in told(run, "work"):
        before = work.get(int(pid), (0, 0))[0]
        work[int(pid)] = before + int(calls), int(address)
    return work


def without_numbers(run):
    """Lines of a run without what differs from run to run: ids and addresses."""
    lines = []
    for line in run.lines():
        line = re.sub(r"^work \d+ (\d+) \d+", r"work \1", line)
        lines.append(re.sub(r"^child \d+", "child", line))
    return lines
