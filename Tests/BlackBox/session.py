"""Makes a session as the launcher does, and runs programs in it natively or under the agent."""

import mmap
import os
import re
import select
import signal
import socket
import struct
import subprocess
import time
from pathlib import Path

import records

AGENT = Path(os.environ["QELIX_TEST_AGENT"])
PROGRAMS = Path(os.environ["QELIX_TEST_PROGRAMS"])
HOST = socket.gethostname()
# How long anything may take before it counts as hung. Never a measure of speed.
PATIENCE = 40.0
WRITER = "ZorUmtWriter"

_LOG_PREFIXES = (
    ("ERROR", re.compile(r"ERROR : (?P<function>\w+) : (?P<line>\d+) : (?P<text>.*)")),
    ("WARN", re.compile(r"WARN : (?P<function>\w+) : (?P<line>\d+) : (?P<text>.*)")),
    ("DEBUG", re.compile(r"DEBUG : (?P<function>\w+) : (?P<line>\d+) : (?P<text>.*)")),
    ("INFO", re.compile(r"INFO : (?P<pid>\d+) : (?P<tid>\d+): (?P<text>.*)")),
)


class LogLine:
    """One line of the log file, taken apart by the prefix of its level."""

    def __init__(self, line):
        for self.level, prefix in _LOG_PREFIXES:
            match = prefix.fullmatch(line)
            if match:
                fields = match.groupdict()
                self.text = fields["text"]
                self.function = fields.get("function")
                self.line = fields.get("line")
                self.pid = int(fields.get("pid") or 0)
                self.tid = int(fields.get("tid") or 0)
                return
        raise AssertionError(f"not a log line: {line!r}")


def program(name):
    """The path of a test program or of a preloaded object, by name."""
    return str(PROGRAMS / name)


def wait_for(condition, what):
    """Polls until the condition holds; for states that nothing signals, such as a file that others write."""
    deadline = time.monotonic() + PATIENCE
    while not condition():
        assert time.monotonic() < deadline, f"never happened: {what}"
        time.sleep(0.002)


class ControlBlock:
    """The controller's 64 bytes of shared memory."""

    def __init__(self, size=64, content=b""):
        self.name = f"/zorblackbox-{os.getpid()}-{id(self)}-{time.monotonic_ns()}"
        self.path = Path("/dev/shm" + self.name)
        if size is not None:
            self.path.write_bytes(content.ljust(size, b"\0"))

    def mapped(self):
        with open(self.path, "r+b") as file:
            return mmap.mmap(file.fileno(), 64)

    def pause(self, pause_id, flag=1):
        with self.mapped() as block:
            block[8:16] = struct.pack("<Q", pause_id)
            block[0] = flag

    def resume(self):
        with self.mapped() as block:
            block[0] = 0

    def stop(self, flag=1):
        with self.mapped() as block:
            block[1] = flag

    def remove(self):
        self.path.unlink(missing_ok=True)


class Run:
    """A program started in a session: talk to it through its pipes, then look at what it left."""

    def __init__(self, session, process):
        self.session = session
        self.process = process
        self.pid = process.pid
        self.out = b""
        self.err = b""
        self.status = None
        self._unread = b""

    def tell(self, text):
        self.process.stdin.write(text.encode() + b"\n")
        self.process.stdin.flush()

    def line(self):
        """The next line of standard output, as text without its newline."""
        deadline = time.monotonic() + PATIENCE
        while b"\n" not in self._unread:
            ready, _, _ = select.select([self.process.stdout], [], [], max(0.0, deadline - time.monotonic()))
            assert ready, f"the program says nothing; so far {self._unread!r}"
            piece = os.read(self.process.stdout.fileno(), 65536)
            assert piece, f"the program ended after {self._unread!r}: {self.process.stderr.read()!r}"
            self._unread += piece
        text, _, self._unread = self._unread.partition(b"\n")
        return text.decode()

    def expect(self, text):
        line = self.line()
        assert line == text, f"the program said {line!r} in place of {text!r}"

    def finish(self):
        """Closes standard input and waits for the end."""
        try:
            out, err = self.process.communicate(timeout=PATIENCE)
        except subprocess.TimeoutExpired:
            where = self.where_threads_are()
            self.kill()
            raise AssertionError(f"the program hangs:\n{where}") from None
        self.out += self._unread + out
        self.err += err
        self.status = self.process.returncode
        return self

    def kill(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGKILL)
            self.process.communicate()

    def lines(self):
        return self.out.decode().splitlines()

    def thread_status(self, tid, field):
        """A field of a thread's status in /proc, while the program runs."""
        for line in Path(f"/proc/{self.pid}/task/{tid}/status").read_text().splitlines():
            if line.startswith(field + ":"):
                return line.partition(":")[2].strip()
        raise AssertionError(field)

    def threads(self):
        """The names of the threads that are alive now, by thread id."""
        names = {}
        for tid in os.listdir(f"/proc/{self.pid}/task"):
            try:
                names[int(tid)] = Path(f"/proc/{self.pid}/task/{tid}/comm").read_text().rstrip("\n")
            except OSError:
                pass  # ended meanwhile
        return names

    def where_threads_are(self):
        """Name, state and system call of every thread: what a hanging program hangs on."""
        lines = []
        for tid, name in self.threads().items():
            folder = Path(f"/proc/{self.pid}/task/{tid}")
            where = [(folder / file).read_text().strip() for file in ("wchan", "syscall")]
            lines.append(f"{tid} {name}: {self.thread_status(tid, 'State')}, in {where[0]}, call {where[1]}")
        return "\n".join(lines)

    def writer(self):
        """The thread id of the agent's writer, 0 when there is none."""
        return next((tid for tid, name in self.threads().items() if name == WRITER), 0)

    def wait_for_writers_end(self):
        """After the controller's stop: the writer has finalised the process and is gone."""
        # before it has given itself its name it cannot be told from other threads
        log = f".log/ZorvUmtAgent_*_{self.pid}.txt"
        wait_for(lambda: any("Writer thread id" in path.read_text() for path in self.session.root.glob(log)),
                 "the writer's start")
        wait_for(lambda: self.writer() == 0, "the writer's end")

    # ---- what the agent left -----------------------------------------------------------------------------

    @property
    def trace_path(self):
        return self.session.root / "trace" / f"trace_{HOST}_{self.pid}.umt"

    @property
    def sample_path(self):
        return self.session.root / "sample" / f"profile_{HOST}_{self.pid}.ums"

    @property
    def metadata_path(self):
        return self.session.root / "metadata" / f"metadata_{HOST}_{self.pid}.meta"

    def _log_path(self, folder, prefix, suffix):
        (path,) = (self.session.root / folder).glob(f"{prefix}_*_{self.pid}.{suffix}")
        return path

    @property
    def log_path(self):
        return self._log_path(".log", "ZorvUmtAgent", "txt")

    @property
    def error_path(self):
        return self._log_path(".error", "ZorvUmtError", "err")

    def trace(self):
        return records.read_trace(self.trace_path)[1]

    def calls(self, *kinds):
        """The pthread records, of these kinds if any are named."""
        return [record for record in self.trace()
                if record.type == records.PTHREAD and (not kinds or record.kind in kinds)]

    def samples(self):
        return records.read_samples(self.sample_path)[1]

    def log(self):
        text = self.log_path.read_text()
        assert text == "" or text.endswith("\n")
        # a message that ends in a newline of its own leaves an empty line behind it
        return [LogLine(line) for line in text.splitlines() if line]

    def log_texts(self, *levels):
        return [line.text for line in self.log() if not levels or line.level in levels]

    def assert_all_files_parse(self):
        """Every file that is there and not empty can be read to its last byte."""
        readers = ((self.trace_path, records.read_trace), (self.sample_path, records.read_samples),
                   (self.metadata_path, records.read_metadata))
        for path, read in readers:
            if path.exists() and path.stat().st_size:
                read(path)

    def assert_healthy(self, status=0):
        """The end of a run in which nothing failed."""
        assert (self.status, self.err) == (status, b"")
        assert self.log_texts("ERROR", "WARN") == []
        assert "Lost trace records count = 0" in self.log_texts("INFO")
        self.assert_all_files_parse()
        assert self.error_path.read_bytes() == b""


class Session:
    """A session directory with its configuration and the controller's block."""

    def __init__(self, root):
        self.root = Path(root)
        for folder in (".log", ".error", "trace", "sample", "metadata"):
            (self.root / folder).mkdir(parents=True)
        self.config_path = self.root / "agent.conf"
        self.block = ControlBlock()
        self.runs = []
        self.configure()

    def base_keys(self):
        return [("QELIX_TRACE_PTHREAD", "1:0:0"), ("QELIX_UMT_DIR", self.root / "trace"),
                ("QELIX_METADATA_DIR", self.root / "metadata"), ("QELIX_SHM_NAME", self.block.name)]

    def configure(self, *more, without=(), **changed):
        """Writes the usual configuration; keywords change a key, `without` leaves some out, `more` is added."""
        pairs = [(key, changed.pop(key, value)) for key, value in self.base_keys() if key not in without]
        pairs += list(changed.items()) + list(more)
        self.write_config("".join(f"{key}={value}\n" for key, value in pairs))

    def configure_sampling(self, *more, **changed):
        """Sampling with a timer that never fires, beside the tracing of `configure`."""
        self.configure(("QELIX_ENABLE_SAMPLING", 1), ("QELIX_PROFILING_SIGNAL_NUMBER", 44),
                       ("QELIX_TIMER_INTERVAL", 0), ("QELIX_CPU_PROFILE_DIR", self.root / "sample"),
                       *more, **changed)

    def write_config(self, text):
        self.config_path.write_bytes(text if isinstance(text, bytes) else text.encode())

    def new_block(self, **options):
        """Replaces the controller's block, before a run."""
        self.block.remove()
        self.block = ControlBlock(**options)
        self.configure()

    def environment(self, ahead=(), behind=(), agent=True, **changed):
        env = {key: value for key, value in os.environ.items() if not key.startswith(("QELIX_", "LD_"))}
        preload = [*ahead, *([str(AGENT)] if agent else []), *behind]
        if preload:
            env["LD_PRELOAD"] = ":".join(preload)
        if agent:
            env["QELIX_SESSION_DIR"] = str(self.root)
            env["QELIX_UMA_CONFIG_FILE"] = str(self.config_path)
        for key, value in changed.items():
            env.pop(key, None)
            if value is not None:
                env[key] = str(value)
        return env

    def start(self, name, *args, ahead=(), behind=(), agent=True, env=None, before=None, pass_fds=()):
        """Starts a program; `before` runs in the child before the program is loaded."""
        command = [name if "/" in name else program(name), *map(str, args)]
        process = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, preexec_fn=before,
            env=self.environment(ahead, behind, agent, **(env or {})), cwd=self.root, pass_fds=pass_fds)
        run = Run(self, process)
        self.runs.append(run)
        return run

    def run(self, name, *args, **options):
        return self.start(name, *args, **options).finish()

    def native(self, name, *args, **options):
        return self.run(name, *args, agent=False, **options)

    def close(self):
        for run in self.runs:
            run.kill()
        self.block.remove()
