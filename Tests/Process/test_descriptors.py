"""Descriptors are the program's: it gets the numbers that it would get, and nothing of it is written to or closed."""

import os
import re
import resource

import pytest

import records
from session import program

STATUS = 100
CALLS = 3000
ROUNDS = 6
# mode -> calls that it makes for work
MODES = {"numbers": CALLS, "numbers_while_writing": CALLS * (ROUNDS + 1), "close_each": CALLS * (ROUNDS + 1),
         "close_range": CALLS * (ROUNDS + 1), "close_from": CALLS * (ROUNDS + 1), "mark_all": CALLS * (ROUNDS + 1),
         "take_high": CALLS * (ROUNDS + 1), "take_fixed": CALLS * (ROUNDS + 1), "hold_at_exit": CALLS,
         "ask_odd": CALLS * (ROUNDS + 1), "few": CALLS * ROUNDS}


def files_of(directory):
    return {path.name: path.read_bytes() for path in directory.iterdir()}


def run_in(session, name, *args, before=lambda: None, **options):
    """Runs a mode in a directory of its own; gives the run and the program's files."""
    directory = session.root / f"mine-{len(session.runs)}"
    directory.mkdir()

    def enter():
        os.chdir(directory)
        before()

    run = session.run(name, *args, before=enter, **options)
    return run, files_of(directory)


def assert_all_work_recorded(run, calls):
    """One function was called that often, and the files are whole."""
    counts = {}
    for record in run.trace():
        if record.type == records.SYSCALL:
            counts[record.function] = counts.get(record.function, 0) + 1
    assert max(counts.values()) == calls
    run.assert_all_files_parse()


@pytest.mark.parametrize("state", ["traced", "off", "children not profiled"])
@pytest.mark.parametrize("mode", MODES)
def test_numbers_results_and_files_are_the_native_ones(session, mode, state):
    if state == "off":
        session.configure(without=("QELIX_TRACE_PTHREAD", "QELIX_TRACE_SYSCALL"))
    if state == "children not profiled":
        session.without_children()
    native, native_files = run_in(session, "descriptors", mode, agent=False)
    assert native.status == STATUS
    run, files = run_in(session, "descriptors", mode)
    assert run.lines() == native.lines()
    assert (run.status, run.err) == (STATUS, b"")
    assert files == native_files


@pytest.mark.parametrize("mode", MODES)
def test_the_trace_is_complete(session, mode):
    run, _ = run_in(session, "descriptors", mode)
    assert_all_work_recorded(run, MODES[mode])
    assert run.log_texts("ERROR", "WARN") == []
    assert "Lost trace records count = 0" in run.log_texts("INFO")


def test_a_number_that_is_closed_in_the_moment_before_a_write_costs_nothing(session):
    run, _ = run_in(session, "descriptors", "close_each", ahead=[program("closing_hands.so")])
    assert (run.status, run.err) == (STATUS, b"")
    assert_all_work_recorded(run, MODES["close_each"])
    assert run.log_texts("ERROR", "WARN") == []


@pytest.mark.parametrize("moment", ["write", "close"])
def test_a_number_that_is_taken_in_the_moment_of_a_write_or_close_is_the_programs(session, moment):
    run = session.start("descriptors", "take_in_the_moment", ahead=[program("taking_hands.so")])
    run.expect("ready")
    if moment == "close":
        run.tell("0")
        session.block.stop()
    else:
        run.tell(str(CALLS))
    number = run.line().removeprefix("number ")
    run.finish()
    assert (run.status, run.err) == (STATUS, b"")
    assert (session.root / f"mine-{number}").read_text() == f"begin {number}\nend {number}\n"
    if moment == "write":
        assert_all_work_recorded(run, CALLS)


def test_open_returns_3(session):
    run, _ = run_in(session, "descriptors", "numbers")
    assert run.lines()[:2] == ["open 3", "openat 4"]


def test_files_that_took_the_agents_numbers_hold_only_what_the_program_wrote(session):
    run, files = run_in(session, "descriptors", "take_ours")
    assert run.status == STATUS
    assert len(files) >= 4
    for name, content in files.items():
        assert content == f"begin {name.removeprefix('mine-')}\n".encode()
    assert_all_work_recorded(run, CALLS * (ROUNDS + 1))


def test_descriptors_of_the_program_stay_open_when_the_collection_is_stopped(session):
    run = session.start("descriptors", "hold")
    run.expect("held")
    session.block.stop()
    run.wait_for_writers_end()
    run.tell("go on")
    run.finish()
    assert (run.status, run.err) == (STATUS, b"")
    for number in range(510, 531):
        assert (session.root / f"mine-{number}").read_text() == f"begin {number}\nend {number}\n"
    run.assert_all_files_parse()


def test_a_number_that_the_program_takes_while_the_agent_opens_its_file_again_stays_the_programs(session):
    _, native_files = run_in(session, "descriptors", "hold_at_exit", agent=False)
    run, files = run_in(session, "descriptors", "hold_at_exit", ahead=[program("slow_hands.so")])
    assert (run.status, run.err) == (STATUS, b"")
    assert files == native_files
    assert any("Writer thread id" in text for text in run.log_texts("INFO")), "the line of that moment"
    run.assert_all_files_parse()


@pytest.mark.parametrize("closed", [(0,), (1,), (2,), (0, 1), (1, 2), (0, 1, 2)], ids=str)
def test_a_program_started_without_standard_streams_gets_their_numbers(session, closed):
    def close():
        for fd in closed:
            os.close(fd)

    _, native_files = run_in(session, "descriptors", "without_streams", before=close, agent=False)
    run, files = run_in(session, "descriptors", "without_streams", before=close)
    assert run.status == STATUS
    assert files == native_files
    assert files["first"] == files["second"] == files["third"] == b""
    assert_all_work_recorded(run, CALLS * (ROUNDS + 1))


@pytest.mark.parametrize("mode", ["numbers", "numbers_while_writing", "close_each", "close_range", "close_from",
                                  "take_high", "take_fixed"])
def test_no_thread_of_the_agent_ever_takes_a_low_number(session, mode):
    """Not even for a moment: the program may be between a close and the open that is to get that number."""
    directory = session.root / "watched"
    directory.mkdir()
    watched = session.root / "system calls"
    preload = session.environment()["LD_PRELOAD"]
    run = session.run("/usr/bin/strace", "-f", "-qq", "-e", "trace=open,openat,dup,socket,pipe2,memfd_create,fcntl",
                      "-e", "signal=none", "-o", watched, "-E", f"LD_PRELOAD={preload}", program("descriptors"), mode,
                      env={"LD_PRELOAD": None}, before=lambda: os.chdir(directory))
    assert run.status == STATUS
    calls = [re.fullmatch(r"(\d+) +(\w+)\((.*)\) += (\d+)", line) for line in watched.read_text().splitlines()]
    opened = [(int(call[1]), call[2], call[3], int(call[4])) for call in calls if call]
    processes = session.traced_pids()
    taken = [call for call in opened if call[0] not in processes and call[1] != "fcntl" and call[3] < 500]
    assert taken == []


@pytest.mark.parametrize("limits", [(16, 16), (16, 4096), (24, 24), (64, 64), (520, 520), (530, 4096)], ids=str)
def test_few_descriptors_are_enough(session, limits):
    def limit():
        resource.setrlimit(resource.RLIMIT_NOFILE, limits)

    native, _ = run_in(session, "descriptors", "few", before=limit, agent=False)
    run, _ = run_in(session, "descriptors", "few", before=limit)
    assert run.lines() == native.lines()
    assert (run.status, run.err) == (STATUS, b"")
    assert_all_work_recorded(run, CALLS * ROUNDS)


@pytest.mark.parametrize("shell", ["/bin/dash", "/bin/bash"])
def test_shells_redirect_as_natively(session, shell):
    session.configure(without=("QELIX_USERMODE_AGENT_PATH",))  # so that a program can be started without the agent
    script = ("exec 3>three 9>nine; echo to three >&3; exec 3>&- 4<&0; "
              "(echo nested >&9; exec 9>&-; env -u LD_PRELOAD ls /proc/self/fd); "
              "echo from here >&9; cat <<END >>nine\nhere document\nEND\n"
              "for i in 1 2 3 4 5; do echo $i | cat >&9; done; exec 9>&-; exec 1>one; echo one; echo two >&2")
    native, native_files = run_in(session, shell, "-c", script, agent=False)
    run, files = run_in(session, shell, "-c", script)
    assert run.lines() == native.lines()
    assert (run.status, run.err) == (native.status, native.err)
    assert files == native_files
    assert run.log_texts("ERROR") == []


def test_a_shell_takes_the_numbers_of_the_agent_as_free_ones(session):
    script = ("for n in 511 512 513 514 515 516 517 518; do eval \"exec $n>f$n\"; eval \"echo $n >&$n\"; done; "
              "(exec 513>sub; echo sub >&513); for i in 1 2 3; do echo $i 516>loop >&516; done; "
              "for n in 512 513 519; do eval \"echo again >&$n\"; eval \"exec $n>&-\"; done; echo $?")
    native, native_files = run_in(session, "/bin/bash", "-c", script, agent=False)
    run, files = run_in(session, "/bin/bash", "-c", script)
    assert (run.lines(), run.status, run.err) == (native.lines(), native.status, native.err)
    assert files == native_files
    run.assert_all_files_parse()


def test_a_new_image_inherits_none_of_the_agents_descriptors(session):
    session.configure(without=("QELIX_USERMODE_AGENT_PATH",))  # so that a program can be started without the agent
    for ending in ("", "; true"):
        run = session.run("/bin/sh", "-c", f"unset LD_PRELOAD; ls -l /proc/self/fd{ending}")
        assert run.status == 0
        assert [line for line in run.lines() if str(session.root) in line or "/dev/shm" in line] == []


def test_the_programs_are_built():
    assert os.access(program("descriptors"), os.X_OK)
