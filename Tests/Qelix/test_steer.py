"""status, pause, resume, stop, and the limits that `run` keeps by itself: what the block says, and what is recorded."""

import fcntl
import json
import os
import pathlib
import pty
import re
import select
import signal
import struct
import subprocess
import sys
import termios
import time

import pytest

from conftest import QELIX, SUBJECT, dump, qelix

PATIENCE = 60.0

# Takes a lock, asleep in between, for each line of its input, and says so.
STEPPER = """
import os, sys, threading, time
print(os.getpid(), flush=True)
for line in sys.stdin:
    if line == "nap\\n":
        time.sleep(0.02)
    elif line == "fork\\n":
        if os.fork() == 0:
            time.sleep(0.01)
            os._exit(0)
        os.wait()
    print("done", flush=True)
"""


def wait_for(condition, what):
    deadline = time.monotonic() + PATIENCE
    while not condition():
        assert time.monotonic() < deadline, f"never happened: {what}"
        time.sleep(0.01)


class Running:
    """A program under `qelix record` that does one step for each that it is told."""

    def __init__(self, session, *options):
        self.session = session
        self.process = subprocess.Popen(
            [QELIX, "record", "-o", session, "--no-sample", "--min", "all=off", "--min", "sleep=1ms", *options,
             "/usr/bin/python3", "-c", STEPPER],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
        )
        self.pid = int(self.process.stdout.readline())

    def step(self, word="nap"):
        self.process.stdin.write(word + "\n")
        self.process.stdin.flush()
        assert self.process.stdout.readline() == "done\n"

    def block(self):
        return pathlib.Path("/dev/shm" + json.loads((self.session / "session.json").read_text())["block"]).read_bytes()

    def finish(self):
        _, errors = self.process.communicate(timeout=PATIENCE)
        assert self.process.returncode == 0
        return errors


@pytest.fixture
def running(session):
    run = Running(session)
    yield run
    run.process.kill()
    run.process.communicate()


def naps(session):
    return sum(
        record["type"] == "syscall"
        for path in (session / "trace").iterdir() for record in dump(path)
    )


def test_what_happens_in_a_pause_is_not_recorded(running, session):
    running.step()
    result = qelix("pause", session)
    assert result.returncode == 0 and result.stdout == f"paused {session}\n"
    first = running.block()
    assert first[0] == 1 and first[1] == 0 and int.from_bytes(first[8:16], "little") != 0
    for _ in range(3):
        running.step()
    assert qelix("resume", session).stdout == f"resumed {session}\n"
    assert running.block()[0] == 0
    running.step()
    qelix("pause", session)
    assert running.block()[8:16] != first[8:16], "each pause has an id of its own"
    qelix("resume", session)
    running.finish()
    assert naps(session) == 2


def test_twice_is_told_and_changes_nothing(running, session):
    assert "is not paused" in qelix("resume", session).stdout
    qelix("pause", session)
    before = running.block()
    assert "is paused already" in qelix("pause", session).stdout
    assert running.block() == before


def test_a_stop_writes_the_files_while_the_program_runs_on(running, session):
    running.step()
    assert qelix("stop", session).returncode == 0
    wait_for(lambda: naps(session) == 1, "the record is in the file")
    running.step()
    result = qelix("resume", session)
    assert result.returncode == 1 and "for good" in result.stderr
    assert "stopped" in qelix("status", session).stdout
    running.finish()
    assert naps(session) == 1


def test_a_session_is_found_by_its_process_and_as_the_newest(running, session):
    assert str(session) in qelix("status", "-p", running.pid).stdout
    assert qelix("pause", "-p", running.pid).returncode == 0
    assert "paused" in qelix("status", cwd=session.parent).stdout
    child = subprocess.run(
        [QELIX, "status", "-p", str(os.getpid())], capture_output=True, text=True, timeout=PATIENCE
    )
    assert child.returncode == 1 and "belongs to no session" in child.stderr
    assert "no such process" in qelix("pause", "-p", "4194304").stderr


def test_each_verb_works_by_a_process_too(running, session):
    for verb, done in [("pause", "paused"), ("resume", "resumed"), ("stop", "stopped")]:
        result = qelix(verb, "-p", running.pid)
        assert (result.returncode, result.stdout) == (0, f"{done} {session}\n"), result.stderr
    running.step()
    running.finish()
    assert naps(session) == 0
    assert qelix("stop", session, "-p", running.pid).returncode == 125


def test_status_says_what_is_going_on(running, session):
    running.step()
    facts = json.loads(qelix("status", "--json", session).stdout)
    assert facts["state"] == "running"
    assert facts["pid"] == running.pid
    assert facts["liveProcesses"] == 1 and facts["threads"] == 1
    assert facts["bytes"] > 0 and facts["lost"] == 0 and facts["errors"] == []
    text = qelix("status", session).stdout
    assert f"(process {running.pid})" in text and "1 process, 1 thread" in text
    running.finish()
    text = qelix("status", session).stdout
    assert re.search(r"ended with status 0, \d+ s, 1 process, \d+ records", text), text
    facts = json.loads(qelix("status", "--json", session).stdout)
    assert facts["state"] == "ended" and facts["records"] >= 2
    assert qelix("pause", session).returncode == 1


def test_status_watches_to_the_end(running, session):
    watch = subprocess.Popen([QELIX, "status", "--watch", session], stdout=subprocess.PIPE, text=True)
    assert watch.stdout.readline().startswith("running")
    running.finish()
    rest, _ = watch.communicate(timeout=PATIENCE)
    assert rest.splitlines()[-1].startswith("ended with status 0")
    assert watch.returncode == 0


def test_a_watched_line_follows_the_terminals_width(running, session):
    parent, child = pty.openpty()

    def resize(columns):
        fcntl.ioctl(child, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))

    def next_line(width):
        """The first one of that width; those before were drawn for another."""
        text = ""
        while not re.search(rf"\x1b\[K[^\r]{{{width}}}$", text):
            assert select.select([parent], [], [], PATIENCE)[0], text
            text += os.read(parent, 4096).decode()
        return text.rsplit("\x1b[K", 1)[1]

    resize(21)
    watch = subprocess.Popen([QELIX, "status", "--watch", session], stdout=child, env={**os.environ, "TERM": "xterm"})
    assert next_line(20).startswith("running")
    resize(31)
    assert next_line(30).startswith("running")
    watch.kill()
    watch.wait()
    os.close(parent)
    os.close(child)


def test_what_is_no_session_is_told(tmp_path):
    for command in ["status", "pause", "resume", "stop"]:
        result = qelix(command, tmp_path)
        assert result.returncode == 1 and "is no session" in result.stderr
        assert "qelix-last is no session" in qelix(command, cwd=tmp_path).stderr


@pytest.mark.parametrize("name", ["/etc/passwd", "/../../etc/passwd", "", "/qelix-1", 7])
def test_a_session_that_names_a_strange_block_steers_nothing(running, session, name):
    running.finish()
    facts = json.loads((session / "session.json").read_text())
    facts["block"] = name
    (session / "session.json").write_text(json.dumps(facts))
    assert qelix("stop", session).returncode == 1
    assert qelix("status", session).returncode == 0


def test_after_a_restart_nothing_is_steered(running, session):
    record = session / "session.json"
    facts = json.loads(record.read_text())
    record.write_text(json.dumps({**facts, "bootId": "another"}))
    assert qelix("pause", session).returncode == 1
    assert running.block()[0] == 0


# ---- limits ----------------------------------------------------------------------------------------------


def test_a_duration_ends_the_recording_and_not_the_program(session):
    run = Running(session, "-d", "300ms")
    wait_for(lambda: run.block()[1] == 1, "the stop flag")
    before = naps(session)
    run.step()
    assert "the time to record is over" in run.finish()
    assert naps(session) == before
    assert json.loads((session / "session.json").read_text())["isStopped"] is True
    text = " ".join(qelix("report", session).stdout.split())
    assert "stopped: the recording ended before 1 process did" in text
    assert "killed: " not in text and "never returned" not in text


def test_a_budget_pauses_the_recording_and_says_so(session):
    run = Running(session, "--budget", "1K")
    wait_for(lambda: run.block()[0] == 1, "the session is paused: its first files alone are more than that")
    for _ in range(3):
        run.step()
    assert "paused" in qelix("status", session).stdout
    errors = run.finish()
    assert "has reached its budget" in errors and f"qelix resume {session}" in errors
    facts = json.loads((session / "session.json").read_text())
    assert facts["budgetBytes"] == 1 << 10 and facts["isBudgetReached"] is True
    assert naps(session) == 0
    assert "budget   " in qelix("status", session).stdout
    for form in ([], ["--full"]):
        assert "budget: collection was paused when the files had reached" in \
            " ".join(qelix("report", *form, session).stdout.split())


def test_a_budget_that_is_not_reached_pauses_nothing(session):
    run = Running(session, "--budget", "1G")
    run.step()
    assert "its budget" not in run.finish()
    assert json.loads((session / "session.json").read_text())["isBudgetReached"] is False and naps(session) == 1


# ---- what outlives us ------------------------------------------------------------------------------------

DAEMON = """
import os, sys, time
if os.fork() == 0:
    os.setsid()
    for fd in (0, 1, 2):
        os.close(fd)
    while not os.path.exists(sys.argv[1]):
        time.sleep(0.01)
    os._exit(0)
"""


def stand_ins():
    names = {}
    for path in pathlib.Path("/proc").glob("[0-9]*/comm"):
        try:
            if path.read_text() == "qelix-standin\n":
                names[int(path.parent.name)] = True
        except OSError:
            pass
    return set(names)


def test_a_daemon_is_recorded_on_and_can_be_stopped(session, tmp_path):
    end = tmp_path / "end"
    result = qelix("record", "-o", session, "/usr/bin/python3", "-c", DAEMON, end)
    try:
        assert result.returncode == 0
        assert "1 process of the session still runs and is recorded" in result.stderr and f"qelix stop {session}" in result.stderr
        assert json.loads(qelix("status", "--json", session).stdout)["liveProcesses"] == 1
        block = "/dev/shm" + json.loads((session / "session.json").read_text())["block"]
        launcher = int(re.search(r"LAUNCH_PROCESS_ID=(\d+)", (session / "agent.conf").read_text()).group(1))
        assert launcher in stand_ins()
        assert qelix("stop", session).returncode == 0
    finally:
        end.touch()
    wait_for(lambda: not os.path.exists(block), "the block is removed when nobody uses it any more")
    wait_for(lambda: launcher not in stand_ins(), "the stand-in goes")


def test_of_a_killed_launcher_the_session_stays_readable_and_tidies_up(session):
    run = Running(session)
    run.step()
    run.process.kill()
    run.process.wait()
    assert json.loads(qelix("status", "--json", session).stdout)["state"] == "running"
    run.process.stdin.close()
    block = "/dev/shm" + json.loads((session / "session.json").read_text())["block"]
    wait_for(lambda: not os.path.exists(block), "the block is removed")
    assert "cut off: its end was not seen" in qelix("status", session).stdout
    assert naps(session) == 1


def test_a_sigterm_ends_program_and_launcher_alike(session):
    run = Running(session)
    run.process.send_signal(signal.SIGTERM)
    _, errors = run.process.communicate(timeout=PATIENCE)
    assert run.process.returncode == -signal.SIGTERM
    assert "was ended by signal 15" in errors
    assert json.loads((session / "session.json").read_text())["signal"] == signal.SIGTERM


# ---- the line of progress --------------------------------------------------------------------------------


def on_terminal(*arguments, environment=()):
    """All that comes out of a terminal that the command runs on."""
    pid, terminal = pty.fork()
    if pid == 0:
        os.execve(QELIX, [QELIX, *map(str, arguments)], {**os.environ, "TERM": "xterm", **dict(environment)})
    output = b""
    try:
        while select.select([terminal], [], [], PATIENCE)[0]:
            output += os.read(terminal, 65536)
    except OSError:
        pass  # the other side is gone
    os.close(terminal)
    return output.decode(), os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])


LINE = r"qelix: \d+ s, \d+ process(es)?, \d+ threads?, \d+ records?, [\d.]+ K?i?B, 0 lost"


def test_a_terminal_shows_progress_each_second(session):
    output, status = on_terminal("record", "-o", session, "sh", "-c", "sleep 2.5; echo out; exit 3")
    assert status == 3
    assert len(re.findall(LINE, output)) >= 1
    assert "\x1b[K" in output.split("ended with status")[0].rsplit("lost", 1)[1], "the line is taken away at the end"


@pytest.mark.parametrize("options, environment", [(["-q"], {}), ([], {"TERM": "dumb"})])
def test_no_line_where_none_is_wanted(session, options, environment):
    output, _ = on_terminal("record", *options, "-o", session, "sleep", "1.3", environment=environment)
    assert not re.search(LINE, output) and "\x1b" not in output


def test_no_line_over_a_program_that_draws_the_screen(session):
    code = "import tty, time; tty.setcbreak(0); time.sleep(1.5)"
    output, _ = on_terminal("record", "-o", session, "/usr/bin/python3", "-c", code)
    assert not re.search(LINE, output)


def test_no_line_without_a_terminal(session):
    result = qelix("record", "-o", session, "sleep", "1.3")
    assert "\x1b" not in result.stderr and not re.search(LINE, result.stderr)
    assert len(result.stderr.splitlines()) == 2
