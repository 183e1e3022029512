"""Runs one of the folders' scripts, natively and in each mode of the agent, and judges the difference."""

import difflib
import hashlib
import os
import re
import shutil
import signal
import subprocess
from collections import namedtuple
from pathlib import Path

import pytest

import records
from processes import ProcessSession
from session import AGENT, LogLine

HERE = Path(__file__).parent
# How long a script may take before it counts as hung. Never a measure of speed.
PATIENCE = 900.0
BUFFER_SIZE = 32768
TICK_NS = 4_000_000
MILLISECOND = 1_000_000
SIGNAL = 44

Outcome = namedtuple("Outcome", "status out err tree")


def _traced(threshold):
    return [("QELIX_TRACE_PTHREAD", f"1:{threshold}:0"), ("QELIX_TRACE_SYSCALL", f"1:{threshold}:0")]


MODES = {
    "off": [("QELIX_TRACE_PTHREAD", "0"), ("QELIX_TRACE_SYSCALL", "0")],
    "traced": _traced(0),
    "traced_at_1ms": _traced(MILLISECOND),
    "sampled": [("QELIX_ENABLE_SAMPLING", 1), ("QELIX_CALLSTACK_COLLECTION", 1),
                ("QELIX_PROFILING_SIGNAL_NUMBER", SIGNAL), ("QELIX_CALLSTACK_DEPTH", 64),
                ("QELIX_TIMER_INTERVAL", TICK_NS)] + _traced(0),
}


def said_of_itself(script, key):
    """The lines `# KEY: VALUE` of a script: `packages` that it needs, the `user` that root becomes for it."""
    return re.findall(rf"^# {key}: (.*)$", script.read_text(), re.MULTILINE)


def missing_packages(script):
    query = ["dpkg-query", "-W", "-f=${db:Status-Status}"]
    (names,) = said_of_itself(script, "packages")
    return [name for name in names.split()
            if subprocess.run([*query, name], capture_output=True, text=True).stdout != "installed"]


class ProgramSession(ProcessSession):
    """A session whose programs are scripts, each in a fresh working directory."""

    def __init__(self, root):
        super().__init__(root)
        # servers change to users of their own
        for folder in (self.root, *self.root.parents):
            if folder.stat().st_uid == os.getuid():
                folder.chmod(folder.stat().st_mode | 0o011)
        for folder in (".log", ".error", "trace", "sample", "metadata"):
            (self.root / folder).chmod(0o777)
        os.chmod("/dev/shm" + self.block.name, 0o666)

    def configure_mode(self, mode):
        pairs = [*MODES[mode], ("QELIX_USERMODE_AGENT_PATH", AGENT), ("QELIX_UMT_DIR", self.root / "trace"),
                 ("QELIX_METADATA_DIR", self.root / "metadata"), ("QELIX_SHM_NAME", self.block.name)]
        if mode == "sampled":
            pairs.append(("QELIX_CPU_PROFILE_DIR", self.root / "sample"))
        self.write_config("".join(f"{key}={value}\n" for key, value in pairs))

    def run_script(self, script, agent, before=None):
        work = self.root / "work"
        shutil.rmtree(work, ignore_errors=True)
        work.mkdir(mode=0o755)
        env = self.environment(agent=agent, HOME=work, LC_ALL="C", TZ="UTC", PROGRAMS=HERE, CCACHE_DISABLE="1",
                               PATH="/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin")
        user = next(iter(said_of_itself(script, "user")), None) if os.getuid() == 0 else None
        if user:
            shutil.chown(work, user)
        with subprocess.Popen(["/bin/bash", str(script)], cwd=work, env=env, user=user, preexec_fn=before,
                              start_new_session=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE) as process:
            try:
                out, err = process.communicate(timeout=PATIENCE)
            except subprocess.TimeoutExpired:
                os.killpg(process.pid, signal.SIGKILL)
                out, err = process.communicate()
                raise AssertionError(f"hangs; so far it said:\n{out.decode()}\n{err.decode()}") from None
        out, err = (text.decode(errors="replace").replace(str(self.root), "SESSION") for text in (out, err))
        return Outcome(process.returncode, out, err, digest_of(work / "result"))

    def assert_files_whole(self):
        """Nothing complained of, nothing lost, and every file ends with its last record. Only a process that was
        killed in the middle of a write leaves a part of one."""
        started, ended = 0, set()
        for path in sorted((self.root / ".log").iterdir()):
            lines = [LogLine(line) for line in path.read_text(errors="replace").splitlines() if line]
            bad = [line.text for line in lines if line.level in ("ERROR", "WARN")]
            assert bad == [], path
            started += any("Writer thread id" in line.text for line in lines)
            lost = [line.text for line in lines if "Lost trace" in line.text and not line.text.endswith("count = 0")]
            assert lost == [], path
            if any("Exit from the writer thread" in line.text for line in lines):
                ended.add(path.stem.rpartition("_")[2])
        assert started, "no process ran under the agent"
        readers = (("trace", records.read_trace), ("sample", records.read_samples),
                   ("metadata", records.read_metadata))
        for folder, read in readers:
            for path in (self.root / folder).iterdir():
                if path.stat().st_size:
                    self._read_whole(path, read, path.stem.rpartition("_")[2] in ended)

    @staticmethod
    def _read_whole(path, read, has_ended):
        try:
            read(path)
        except records.Damaged as damage:
            if has_ended or "are left" not in damage.reason or path.stat().st_size - damage.offset >= BUFFER_SIZE:
                raise


def digest_of(folder):
    """One line for each entry below the folder: mode, name, and what it holds. None where there is no folder."""
    if not folder.is_dir():
        return None
    lines = []
    for path in sorted(folder.rglob("*")):
        status = path.lstat()
        if path.is_symlink():
            content = os.readlink(path)
        else:
            content = hashlib.sha256(path.read_bytes()).hexdigest() if path.is_file() else ""
        lines.append(f"{status.st_mode:o} {path.relative_to(folder)} {content}")
    return lines


def difference(native, outcome):
    """What the agent changed, as lines of a diff; empty where it changed nothing."""
    lines = []
    for name in Outcome._fields:
        before, after = getattr(native, name), getattr(outcome, name)
        if before != after:
            pair = [value.splitlines() if isinstance(value, str) else value if isinstance(value, list) else [str(value)]
                    for value in (before, after)]
            lines += difflib.unified_diff(*pair, f"{name} natively", f"{name} under the agent", n=1, lineterm="")
    return "\n".join(lines)
