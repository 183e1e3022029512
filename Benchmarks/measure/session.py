"""A session for the agent: its directory, its configuration file and the controller's block of shared memory."""

import itertools
import mmap
import os
import re
import shutil
import subprocess
import tempfile

SHARED_MEMORY = "/dev/shm"
BLOCK_SIZE = 64
OFFSET_PAUSED, OFFSET_STOPPED, OFFSET_PAUSE_ID = 0, 1, 8

_serial = itertools.count(1)


class Failed(Exception):
    """A measurement that cannot be had; the text says why."""


def fast_directory():
    """Where fsync is cheap, so that the disk is not what is measured."""
    return SHARED_MEMORY if os.access(SHARED_MEMORY, os.W_OK) else tempfile.gettempdir()


def clean_environment():
    """This process's environment without anything that could load or configure an agent."""
    return {name: value for name, value in os.environ.items()
            if name != "LD_PRELOAD" and not name.startswith("QELIX_")}


# What a controller promises that wakes its agents with each change of its flags, as the command does.
WAKES = {"QELIX_CONTROLLER_WAKES": 1}


class Session:
    """Used with `with`: everything it made is gone afterwards."""

    def __init__(self, agent, keys, parent=None, is_paused=False):
        self.agent = agent
        self.keys = keys
        self.parent = parent or fast_directory()
        self.is_paused = is_paused

    def __enter__(self):
        self.directory = tempfile.mkdtemp(prefix="qelix-bench-", dir=self.parent)
        for name in (".log", ".error", "trace", "metadata"):
            os.mkdir(self.path(name))
        self.block_name = f"/qelix-bench-{os.getpid()}-{next(_serial)}"
        self._make_block()
        self._write_configuration()
        return self

    def __exit__(self, *_):
        self.block.close()
        os.unlink(SHARED_MEMORY + self.block_name)
        shutil.rmtree(self.directory)

    def path(self, name):
        return os.path.join(self.directory, name)

    def _make_block(self):
        """A POSIX shared-memory object is a file here; the agent keeps the content of one that exists."""
        with open(SHARED_MEMORY + self.block_name, "x+b") as file:
            file.write(bytes(BLOCK_SIZE))
            file.flush()
            self.block = mmap.mmap(file.fileno(), BLOCK_SIZE)
        if self.is_paused:
            self.block[OFFSET_PAUSE_ID] = 1
            self.block[OFFSET_PAUSED] = 1

    def _write_configuration(self):
        lines = {"QELIX_SHM_NAME": self.block_name, "QELIX_METADATA_DIR": self.path("metadata"),
                 "QELIX_UMT_DIR": self.path("trace"), **self.keys}
        with open(self.path("agent.conf"), "w") as file:
            file.writelines(f"{key}={value}\n" for key, value in lines.items())

    def environment(self):
        """What the program needs beside LD_PRELOAD."""
        return {"QELIX_SESSION_DIR": self.directory, "QELIX_UMA_CONFIG_FILE": self.path("agent.conf")}

    def stop(self):
        self.block[OFFSET_STOPPED] = 1

    def log(self):
        text = ""
        for entry in os.scandir(self.path(".log")):
            with open(entry.path, errors="replace") as file:
                text += file.read()
        return text

    def trace_files(self):
        return [entry.path for entry in os.scandir(self.path("trace"))]

    def lost_records(self):
        """The agent's own count, over all processes of the session; None when no process has reported one."""
        counts = re.findall(r"Lost trace records count = (\d+)", self.log())
        return sum(map(int, counts)) if counts else None

    def check_health(self):
        """A figure of an agent that was not working is worth nothing."""
        log = self.log()
        if "Writer thread id is" not in log:
            raise Failed("the agent did not start: " + (log.strip().splitlines() or ["no log"])[-1])
        errors = [line for line in log.splitlines() if line.startswith("ERROR")]
        if errors:
            raise Failed(f"the agent reports: {errors[0]}")


def run(arguments, environment=None, timeout=600, is_quiet=False):
    """Runs a program to its end and returns its standard output; `is_quiet`: it must not use standard error."""
    try:
        result = subprocess.run(arguments, env={**clean_environment(), **(environment or {})}, text=True,
                                errors="replace", stdin=subprocess.DEVNULL, capture_output=True, timeout=timeout)
    except subprocess.TimeoutExpired:
        raise Failed(f"{os.path.basename(arguments[0])} did not end within {timeout} s") from None
    except OSError as error:
        raise Failed(f"{arguments[0]}: {error.strerror}") from None
    if result.returncode != 0 or (is_quiet and result.stderr):
        said = (result.stderr.strip().splitlines() or ["no message"])[-1]
        raise Failed(f"{os.path.basename(arguments[0])} ended with status {result.returncode}: {said}")
    return result.stdout
