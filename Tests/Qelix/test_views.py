"""The views of a session: their rows, filters and forms, and what the one screen says."""

import csv
import fcntl
import io
import json
import os
import pty
import shutil
import struct
import subprocess
import termios

import pytest

from conftest import QELIX, SUBJECT, qelix
from made_session import IO, SLEEP, TICK, Process, write_session

TRUTH = os.environ["QELIX_TRUTH"]
VIEWS = ["threads", "locks", "waits", "io", "blocked"]


@pytest.fixture(scope="module")
def recorded(tmp_path_factory):
    session = tmp_path_factory.mktemp("views") / "session"
    result = qelix("run", "--sample", "-o", session, "--", TRUTH, "queue")
    assert result.returncode == 0, result.stderr
    return session


def view(*arguments):
    result = qelix(*arguments)
    assert result.returncode == 0, result.stderr
    return result.stdout


def rows(*arguments):
    return json.loads(view(*arguments, "--json"))["rows"]


@pytest.mark.parametrize("name", VIEWS)
def test_the_forms_of_a_view_have_the_same_rows(recorded, name):
    as_json = rows(name, recorded)
    as_csv = list(csv.DictReader(io.StringIO(view(name, recorded, "--csv"))))
    assert len(as_json) == len(as_csv)
    for left, right in zip(as_json, as_csv):
        assert list(left) == list(right)
        for key, value in left.items():
            if isinstance(value, float):
                assert abs(float(right[key]) - value) <= 1e-5 * max(1.0, abs(value))
            else:
                assert right[key] == ("" if value is None else str(value))
    text = view(name, recorded, "-n", "0").splitlines()
    assert len(text) > len(as_json)


def test_threads_by_name_and_id(recorded):
    everyone = rows("threads", recorded)
    workers = [row for row in everyone if row["thread"].startswith("worker-")]
    assert len(workers) == 4 and len(everyone) == 5
    assert {row["tid"] for row in rows("threads", recorded, "--thread", "worker-*")} == {row["tid"] for row in workers}
    one = workers[0]
    assert [row["tid"] for row in rows("threads", recorded, "--thread", one["tid"])] == [one["tid"]]
    assert {row["thread"] for row in rows("waits", recorded, "--thread", one["thread"])} == {
        f"{one['thread']} ({one['tid']})"
    }
    assert rows("threads", recorded, "--process", "no-such-process") == []
    assert len(rows("threads", recorded, "--process", one["process"])) == 5


def test_classes(recorded):
    assert {row["class"] for row in rows("waits", recorded, "--class", "sleep")} == {"sleep"}
    assert {row["class"] for row in rows("waits", recorded)} >= {"sleep", "pthread"}
    assert rows("locks", recorded, "--class", "sleep,io") == []


def test_times_cut_calls_at_their_edges(recorded):
    wall = max(row["wallNs"] for row in rows("threads", recorded))
    half = wall // 2
    whole, first, second = (
        sum(row["totalNs"] or 0 for row in rows("waits", recorded, *span))
        for span in ([], ["--time", f"..{half}"], ["--time", f"{half}.."])
    )
    assert first > 0 and second > 0
    assert abs(first + second - whole) <= 1e-6 * whole
    assert rows("waits", recorded, "--time", "1000s..") == []


def test_sorting_and_the_number_of_rows(recorded):
    longest = [row["longestNs"] for row in rows("waits", recorded, "--sort", "longestNs")]
    assert longest == sorted(longest, reverse=True)
    names = [row["call"] for row in rows("waits", recorded, "--sort", "call")]
    assert names == sorted(names)
    assert len(rows("waits", recorded, "-n", "2")) == 2
    assert "more; -n 0 shows all" in view("waits", recorded, "-n", "1")


def test_one_lock_by_its_waiters(recorded):
    waiters = rows("locks", recorded, "g_queueLock")
    assert {row["thread"].split()[0] for row in waiters} == {f"worker-{i}" for i in range(1, 5)}
    assert {row["lock"] for row in waiters} == {"g_queueLock"}
    assert "waiting on average" in view("locks", recorded, "g_queue*")
    result = qelix("locks", recorded, "g_noSuchLock")
    assert result.returncode == 1 and "g_noSuchLock" in result.stderr


def test_the_newest_session_is_meant_without_a_directory(recorded, tmp_path):
    (tmp_path / "qelix-last").symlink_to(recorded)
    for arguments in (["locks", "g_queueLock"], ["threads"], ["report"]):
        result = qelix(*arguments, cwd=tmp_path)
        assert result.returncode == 0 and "worker-" in result.stdout, result.stderr


def test_a_circle_of_waits_is_told(session):
    qelix("run", "--min", "pthread=0", "-o", session, "--", TRUTH, "deadlock")
    blocked = {row["thread"].split()[0]: row for row in rows("blocked", session)}
    assert blocked["forward"]["lock"] == "g_countLock" and blocked["reverse"]["lock"] == "g_queueLock"
    assert blocked["forward"]["lastAcquirer"].startswith("reverse (")
    (cycle,) = [note for note in json.loads(view("blocked", session, "--json"))["notes"] if "cycle" in note]
    assert cycle.count("whose last seen acquirer is") == 2
    screen = view("report", session)
    assert "2 calls never returned" in screen and f"qelix blocked {session}" in screen


def test_who_holds_a_lock_that_was_free_is_said_not_to_be_known(session):
    qelix("run", "--min", "pthread=10s", "-o", session, "--", SUBJECT, "abandon")
    text = view("blocked", session)
    assert "g_mutex" in text and "--min pthread=0" in text and "cycle" not in text


@pytest.mark.parametrize(
    "arguments, part",
    [
        (["--time", "soon"], "FROM..TO"),
        (["--time", "2s..1s"], "ends before it begins"),
        (["--time", "1s..later"], "later"),
        (["--class", "locks"], "the classes are pthread"),
        (["--sort", "beauty"], "there are process, pid"),
        (["--json", "--csv"], "exclude"),
    ],
)
def test_what_cannot_be_understood_is_refused(recorded, arguments, part):
    result = qelix("threads", recorded, *arguments)
    assert result.returncode == 125 and part in result.stderr


# ---- the screen ------------------------------------------------------------------------------------------


def test_the_report_fits_a_screen_of_80_columns(recorded):
    lines = view("report", recorded).splitlines()
    assert len(lines) <= 45
    assert all(len(line) <= 80 or "qelix " in line or str(recorded) in line for line in lines), lines
    for heading in ("WHERE THE TIME WENT", "LOCKS YOU WAIT FOR", "READ THIS", "NEXT"):
        assert any(line.startswith(heading) for line in lines), lines
    wide = qelix("report", recorded, env={**os.environ, "COLUMNS": "132"}).stdout
    assert max(map(len, wide.splitlines())) > 100


def on_terminal(session, **environment):
    parent, child = pty.openpty()
    clean = {name: value for name, value in os.environ.items() if name not in ("NO_COLOR", "COLUMNS")}
    process = subprocess.Popen([QELIX, "report", session], stdout=child, env={**clean, "TERM": "xterm", **environment})
    os.close(child)
    text = b""
    try:
        while piece := os.read(parent, 65536):
            text += piece
    except OSError:
        pass  # the other end is closed
    os.close(parent)
    assert process.wait() == 0
    return text.decode()


def test_colours_are_for_terminals_that_want_them(recorded):
    assert "\x1b[" in on_terminal(recorded)
    assert "\x1b[" not in on_terminal(recorded, NO_COLOR="1")
    assert "\x1b[" not in on_terminal(recorded, TERM="dumb")
    assert "\x1b[" not in view("report", recorded)


def on_screen(arguments, rows, **variables):
    """What a terminal with so many rows is given."""
    pid, terminal = pty.fork()
    if pid == 0:
        fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", rows, 80, 0, 0))
        os.execve(QELIX, [QELIX, *map(str, arguments)], {**os.environ, "TERM": "xterm", "NO_COLOR": "1", **variables})
    text = b""
    try:
        while chunk := os.read(terminal, 65536):
            text += chunk
    except OSError:
        pass  # the other side is gone
    assert os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) == 0
    os.close(terminal)
    return text.decode().replace("\r", "")


def test_only_what_does_not_fit_on_a_terminal_is_paged(session):
    qelix("run", "-q", "-o", session, SUBJECT, "contend", "50")
    pager = {"QELIX_PAGER": "sed s/^/paged:/"}
    long = on_screen(["report", "--full", session], 5, **pager).splitlines()
    assert long and all(line.startswith("paged:") for line in long)
    assert "paged:" not in on_screen(["report", "--full", session], 500, **pager)
    assert "paged:" not in on_screen(["report", "--full", session], 5, QELIX_PAGER="", PAGER="sed s/^/paged:/")
    missing = on_screen(["report", "--full", session], 5, QELIX_PAGER="no-such-pager")
    assert missing.splitlines() == [line[len("paged:"):] for line in long]
    assert "paged:" not in qelix("report", "--full", session, env={**os.environ, **pager}).stdout


def test_threads_of_several_processes_fit_80_columns(tmp_path):
    start, second = 1_000_000_000, 10**9
    processes = []
    for pid, name in [(4190000, "a-long-process"), (4190100, "another-process")]:
        process = Process(pid).thread(pid, name, start).thread(pid + 1, "a-long-worker-7", start)
        process.call(pid, start, start + second // 8).lock(pid + 1, start, start + second)
        processes.append(process.thread_end(pid, start + second).thread_end(pid + 1, start + second))
    session = write_session(tmp_path / "session", *processes)
    environment = {**os.environ, "COLUMNS": "80"}
    text = qelix("threads", session, env=environment).stdout
    assert max(map(len, text.splitlines())) <= 80, text
    assert text.splitlines()[0].split() == "process thread tid wall CPU lock cond I/O sleep wait rest".split()
    assert text.count(" 100 ") == 2 and "shares in %" in text
    wide = qelix("threads", session, env={**environment, "COLUMNS": "140"}).stdout
    assert " 4190100 " in wide and "100.0 %" in wide and "shares in %" not in wide


def next_commands(session):
    text = view("report", session)
    return [line.split()[1] + (" --full" if "--full" in line else "") for line in text[text.index("NEXT"):].splitlines()[1:]]


def test_the_next_commands_are_those_for_what_took_the_time_in_a_fixed_order(tmp_path):
    start, second, never = 1_000_000_000, 10**9, 2**64 - 1

    def session(name, *calls, ticks=0, lock=None, blocked=False):
        process = Process(100).thread(100, "main", start)
        for sub, seconds in calls:
            process.call(100, start, start + int(seconds * second), sub)
        if lock:
            process.lock(100, start, start + int(lock * second))
        if blocked:
            process.call(100, start + second // 2, never, SLEEP)
        process.ticks(100, start + TICK, ticks).thread_end(100, start + second)
        return write_session(tmp_path / name, process)

    assert next_commands(session("nothing")) == ["report --full"]
    assert next_commands(session("io", (IO, 0.5))) == ["io", "report --full"]
    assert next_commands(session("little", (IO, 0.05), (SLEEP, 0.05))) == ["report --full"]
    assert next_commands(session("lock", lock=0.1)) == ["locks", "report --full"]
    assert next_commands(session("sleep", (SLEEP, 0.2))) == ["waits", "report --full"]
    assert next_commands(session("cpu", ticks=10)) == ["cpu", "report --full"]
    everything = session("all", (IO, 0.2), (SLEEP, 0.2), ticks=10, lock=0.1, blocked=True)
    assert next_commands(everything) == ["io", "locks", "waits", "blocked", "cpu", "report --full"]
    for command in next_commands(everything):
        assert qelix(*command.split(), everything).returncode == 0


def test_locks_of_many_processes_keep_their_owners(tmp_path):
    start, ms, many = 1_000_000_000, 1_000_000, 300
    processes = []
    for number in range(many):
        pid = 1000 + 10 * number
        process = Process(pid).thread(pid, f"p{number}", start)
        for turn in range(2):  # the same addresses in all of them
            process.lock(pid, start, start + (1 + number) * ms, 0x1000 + 0x40 * turn)
        processes.append(process)
    session = write_session(tmp_path / "session", *processes)
    found = rows("locks", session, "-n", "0")
    assert len(found) == 2 * many
    assert {(row["pid"], row["lock"], row["totalNs"], row["lastAcquirers"]) for row in found} == {
        (1000 + 10 * number, name, (1 + number) * ms, f"p{number} ({1000 + 10 * number})")
        for number in range(many) for name in ("heap#1", "heap#2")}
    totals = [row["totalNs"] for row in found]
    assert totals == sorted(totals, reverse=True)
    (one,) = rows("locks", session, "heap#2", "--process", "p7")
    assert (one["pid"], one["calls"], one["totalNs"]) == (1070, 1, 8 * ms)


def test_dumps_are_paged_as_they_come(session):
    qelix("run", "-q", "-o", session, "--min", "all=0", SUBJECT, "contend", "50")
    (trace,) = session.glob("trace/*.umt")
    plain = qelix("dump", trace).stdout.splitlines()
    assert len(plain) > 10
    pager = {"QELIX_PAGER": "sed s/^/paged:/"}
    assert on_screen(["dump", trace], 5, **pager).splitlines() == [f"paged:{line}" for line in plain]
    assert on_screen(["dump", trace], 5000, **pager).splitlines() == plain
    assert on_screen(["dump", trace], 5, QELIX_PAGER="no-such-pager").splitlines() == plain
    assert on_screen(["dump", trace, trace, trace], 5, QELIX_PAGER="head -n 3").splitlines() == plain[:3]


def test_columns_are_sorted_by_either_of_their_names(session):
    qelix("run", "-q", "-o", session, "--min", "all=0", SUBJECT, "contend", "50")
    by_key = qelix("waits", session, "--sort", "longestNs", "--csv").stdout
    assert len(by_key.splitlines()) > 2
    assert qelix("waits", session, "--sort", "longest", "--csv").stdout == by_key


def test_the_report_has_the_options_of_a_view(recorded):
    as_csv = list(csv.DictReader(io.StringIO(view("report", recorded, "--csv", "--sort", "tid"))))
    ids = [int(row["tid"]) for row in as_csv]
    assert ids == sorted((row["tid"] for row in rows("threads", recorded)), reverse=True)
    assert len(view("report", recorded, "--csv", "-n", "2").splitlines()) == 3
    one = view("report", recorded, "-n", "1").split("WHERE THE TIME WENT")[1].split("\n\n")[0].splitlines()
    assert len(one) == 3 and one[2].startswith("  and ")
    by_name = view("report", recorded, "--sort", "thread").split("WHERE THE TIME WENT")[1].splitlines()[1:3]
    assert by_name == sorted(by_name)
    assert "more" not in view("report", recorded, "-n", "0")
    assert "there is no column" in qelix("report", recorded, "--sort", "beauty").stderr


@pytest.mark.parametrize("command", [["threads"], ["report"], ["diff", "other"]])
def test_a_number_of_rows_that_is_none(recorded, command):
    result = qelix(*command, recorded, "-n", "-1")
    assert result.returncode == 125 and "-1 is no whole number" in result.stderr


@pytest.mark.parametrize("form", [[], ["--tree"], ["--lines"], ["--json"], ["--csv"]])
def test_functions_of_a_thread_that_burnt_nothing(recorded, form):
    assert "queue" not in view("cpu", recorded, *form, "--thread", "nobody")


@pytest.mark.parametrize("command", [*VIEWS, "cpu --thread=*", "symbols"])
def test_a_view_of_a_damaged_file_names_it(recorded, tmp_path, command):
    session = tmp_path / "session"
    shutil.copytree(recorded, session)
    (path,) = (session / "metadata").iterdir()
    path.write_bytes(path.read_bytes()[:-3])
    result = qelix(*command.split(), session)
    assert result.returncode == 1
    assert f"{path}: byte offset " in result.stderr


def test_a_lock_that_holds_a_thread_for_good_comes_first(tmp_path):
    start, ms, never = 1_000_000_000, 1_000_000, 2**64 - 1
    process = Process(100).thread(100, "main", start).thread(101, "stuck", start)
    process.lock(100, start, start + 5 * ms, 0x1000).lock(101, start + ms, never, 0x2000)
    session = write_session(tmp_path / "session", process.thread_end(100, start + 101 * ms))
    text = view("report", session)
    lines = text[text.index("LOCKS YOU WAIT FOR"):].splitlines()
    assert lines[1].split()[:2] == ["heap#2", "mutex"] and "1 100 ms" in " ".join(lines[1].split())
    assert "1 thread never came back, after 100 ms at least" in lines[2]
    assert [(row["lock"], row["totalNs"]) for row in rows("locks", session)] == [("heap#2", 100 * ms), ("heap#1", 5 * ms)]
    assert f"qelix locks {session} 'heap#2'" in text
