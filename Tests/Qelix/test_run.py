"""`qelix run`: what the program sees, what it leaves behind, and with which status it ends."""

import json
import os
import pathlib
import pty
import pwd
import re
import resource
import select
import shutil
import signal
import subprocess
import sys
import time

import pytest

from conftest import FOLDERS, QELIX, SUBJECT, qelix


def facts_of(session):
    """What qelix itself has noted of a session."""
    return json.loads((session / "session.json").read_text())


def python(code):
    return [sys.executable, "-c", code]


# ---- status ----------------------------------------------------------------------------------------------


@pytest.mark.parametrize("status", [0, 1, 7, 125, 255])
def test_the_programs_status_is_ours(session, status):
    assert qelix("run", "-o", session, "--", "sh", "-c", f"exit {status}").returncode == status


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGSEGV, signal.SIGTERM, signal.SIGINT])
def test_of_a_death_by_a_signal_we_die_too(session, number):
    result = qelix("run", "-o", session, "--", "sh", "-c", f"ulimit -c 0; kill -{number.value} $$")
    assert result.returncode == -number
    assert f"was ended by signal {number.value}" in result.stderr
    assert facts_of(session)["signal"] == number


def test_a_status_that_reads_like_a_signal_is_no_death(session):
    assert qelix("run", "-o", session, "--", "sh", "-c", "exit 139").returncode == 139


def test_our_own_death_leaves_no_core(tmp_path):
    if not pathlib.Path("/proc/sys/kernel/core_pattern").read_text().strip() == "core":
        pytest.skip("cores do not go into the current directory here")
    unlimited = lambda: resource.setrlimit(resource.RLIMIT_CORE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
    result = qelix("run", "sh", "-c", "ulimit -c 0; kill -SEGV $$", cwd=tmp_path, preexec_fn=unlimited)
    assert result.returncode == -signal.SIGSEGV
    assert not list(tmp_path.glob("core*"))


@pytest.mark.parametrize("start", [["run", "--"], ["record"], []])
@pytest.mark.parametrize("name", ["no-such-program-at-all", "./missing", "/nonexistent/tool"])
def test_a_program_that_is_not_there_is_127_and_leaves_nothing(tmp_path, start, name):
    result = qelix(*start, name, cwd=tmp_path)
    assert result.returncode == 127
    assert name in result.stderr
    assert not list(tmp_path.iterdir())


@pytest.mark.parametrize("word, part", [
    ("nonsense", 'no command and no program "nonsense"; qelix --help'),
    ("reprot", "did you mean qelix report?"),
    ("lock", "did you mean qelix locks?"),
])
def test_a_mistyped_command_is_a_program_that_is_not_there(tmp_path, word, part):
    result = qelix(word, cwd=tmp_path)
    assert result.returncode == 127 and part in result.stderr


def test_a_program_that_is_not_executable_is_126(tmp_path):
    (tmp_path / "tool").write_text("#!/bin/sh\n")
    result = qelix("run", "--", "./tool", cwd=tmp_path)
    assert result.returncode == 126
    assert "./tool" in result.stderr and "Permission denied" in result.stderr
    assert qelix("run", "--", tmp_path, cwd=tmp_path).returncode == 126


def test_a_script_whose_interpreter_is_missing_is_127_and_leaves_nothing(tmp_path):
    script = tmp_path / "tool"
    script.write_text("#!/nonexistent/interpreter\n")
    script.chmod(0o755)
    result = qelix("run", "--", script, cwd=tmp_path)
    assert result.returncode == 127 and "/nonexistent/interpreter: No such file" in result.stderr
    assert "interpreter" in result.stderr
    assert list(tmp_path.iterdir()) == [script]


def test_a_script_without_an_interpreter_line_runs_as_in_a_shell(tmp_path, session):
    script = tmp_path / "tool"
    script.write_text("exit 9\n")
    script.chmod(0o755)
    assert qelix("run", "-o", session, "--", script).returncode == 9


@pytest.mark.parametrize(
    "arguments, part",
    [
        (["run"], "no program to run"),
        (["run", "--"], "no program to run"),
        (["run", "--threshold", "-5", "--", "true"], "-5 is no whole number"),
        (["run", "--threshold", "1x", "--", "true"], "1x is no whole number"),
        (["run", "--children", "--no-children", "--", "true"], "excludes"),
        (["run", "-o"], "-o"),
        ([], "a command or a program is missing; qelix PROGRAM ARGS runs"),
        (["diff", "a"], "see qelix diff --help"),
        (["run", "--no-such-option", "true"], "--no-such-option"),
        (["run", "-d", "soon", "true"], "--duration soon: that is no time"),
        (["run", "--budget", "much", "true"], "--budget much: that is no size"),
        (["run", "--rank", "first", "true"], "--rank first: that is no rank"),
    ],
)
def test_what_cannot_be_understood_is_125(tmp_path, arguments, part):
    result = qelix(*arguments, cwd=tmp_path)
    assert result.returncode == 125
    assert result.stderr.startswith("qelix: ") and part in result.stderr
    assert not list(tmp_path.iterdir())


def test_without_its_agent_qelix_says_where_it_looked(tmp_path):
    alone = tmp_path / "bin" / "qelix"
    alone.parent.mkdir()
    shutil.copy(QELIX, alone)
    result = subprocess.run([alone, "run", "--", "true"], capture_output=True, text=True, cwd=tmp_path)
    assert result.returncode == 125
    assert str(tmp_path / "lib" / "libZorUserModeTracingAgent.so") in result.stderr


def test_the_status_stands_when_there_is_nothing_left_to_report(session):
    result = qelix("run", "-o", session, "--", "sh", "-c", f"rm -r {session}; exit 5")
    assert result.returncode == 5
    assert "is no session" in result.stderr


def test_the_status_stands_when_standard_error_is_closed(session):
    assert subprocess.run(["sh", "-c", f"{QELIX} run -o {session} -- sh -c 'exit 4' 2>&-"]).returncode == 4


# ---- the session -----------------------------------------------------------------------------------------


def test_the_session_directory_has_a_folder_for_each_kind_of_file(tmp_path):
    process = subprocess.Popen([QELIX, "run", "--", SUBJECT, "count", "1"], cwd=tmp_path, stderr=subprocess.PIPE)
    process.communicate()
    (session,) = [path for path in tmp_path.iterdir() if not path.is_symlink()]
    assert re.fullmatch(rf"qelix-{pathlib.Path(SUBJECT).name}-\d{{8}}-\d{{6}}-{process.pid}", session.name)
    assert {path.name for path in session.iterdir() if path.is_dir()} == FOLDERS
    assert {path.suffix for path in (session / "trace").iterdir()} == {".umt"}
    assert {path.suffix for path in (session / "metadata").iterdir()} == {".meta"}
    assert {path.suffix for path in (session / ".log").iterdir()} == {".txt"}
    assert {path.suffix for path in (session / ".error").iterdir()} == {".err"}


def test_the_link_names_the_newest_session(tmp_path):
    for name in ["first", "second"]:
        qelix("record", "-o", name, "true", cwd=tmp_path)
        assert os.readlink(tmp_path / "qelix-last") == name
    assert not list(tmp_path.glob(".qelix-last*"))


def test_what_is_no_link_of_that_name_is_left_alone(tmp_path):
    (tmp_path / "qelix-last").write_text("mine")
    assert qelix("record", "-o", "session", "true", cwd=tmp_path).returncode == 0
    assert (tmp_path / "qelix-last").read_text() == "mine"


def test_the_session_notes_what_no_agent_can_write(session):
    before = time.clock_gettime_ns(time.CLOCK_MONOTONIC)
    assert qelix("record", "-o", session, "-i", "20ms", "--min", "lock=off", "sh", "-c", "exit 7").returncode == 7
    facts = facts_of(session)
    assert facts["version"] == 2
    assert facts["command"] == ["sh", "-c", "exit 7"]
    assert facts["exitStatus"] == 7 and facts["signal"] is None and facts["waitStatus"] == 7 << 8
    assert facts["host"] == os.uname().nodename
    assert facts["bootId"] == pathlib.Path("/proc/sys/kernel/random/boot_id").read_text().strip()
    assert os.uname().release in facts["kernel"]
    assert facts["user"] == pwd.getpwuid(os.getuid()).pw_name
    assert facts["tickNs"] == round(time.clock_getres(6) * 1e9)
    assert facts["intervalNs"] == 20_000_000 and facts["stackDepth"] == 64
    assert facts["thresholdsNs"]["pthread"] == 1000 and facts["thresholdsNs"]["io"] == 10000
    assert facts["thresholdsNs"]["lock"] is None
    assert facts["rank"] is None
    assert before < facts["start"]["monotonicNs"] < facts["end"]["monotonicNs"]
    assert abs(facts["end"]["realtimeNs"] / 1e9 - time.time()) < 60


def test_the_build_ids_are_those_that_the_linker_gave(session):
    qelix("record", "-o", session, SUBJECT, "count", "1")
    notes = subprocess.run(["readelf", "-n", SUBJECT], capture_output=True, text=True, check=True).stdout
    expected = re.search(r"Build ID: ([0-9a-f]+)", notes).group(1)
    build_ids = facts_of(session)["buildIds"]
    assert build_ids[os.path.realpath(SUBJECT)] == expected
    assert any(path.endswith("/libc.so.6") for path in build_ids)


def test_a_record_alone_has_no_report(session):
    result = qelix("record", "-o", session, SUBJECT, "contend", "20")
    assert f"recorded {session}" in result.stderr
    assert "locks" not in result.stderr
    assert list((session / "trace").glob("*.umt"))


def test_the_configuration_says_what_was_asked_for(session):
    qelix("run", "-o", session, "--threshold", "12345", "--no-children", "--", "true")
    lines = (session / "agent.conf").read_text().splitlines()
    assert "QELIX_TRACE_PTHREAD=1:12345:0" in lines
    assert "QELIX_TRACE_SYSCALL=1:12345:0" in lines
    assert "QELIX_PROFILE_CHILDREN=0" in lines
    assert f"QELIX_UMT_DIR={session}/trace" in lines
    assert f"QELIX_METADATA_DIR={session}/metadata" in lines


def test_children_are_recorded_unless_told_otherwise(tmp_path):
    for index, options in enumerate([[], ["--children"]]):
        session = tmp_path / str(index)
        qelix("run", *options, "-o", session, "--", "true")
        assert "QELIX_PROFILE_CHILDREN=1\n" in (session / "agent.conf").read_text()


CHILDREN = """
import os, subprocess, sys
subprocess.run([sys.executable, "-c", "pass"])
os.system("true; true")
if os.fork() == 0:
    os._exit(0)
os.wait()
"""


def test_without_children_nothing_of_them_is_left(session):
    assert qelix("record", "--no-children", "-o", session, *python(CHILDREN)).returncode == 0
    for folder in ["trace", "sample", "metadata"]:
        (path,) = (session / folder).iterdir()
        assert path.stem.endswith(f"_{facts_of(session)['pid']}")
    text = " ".join(qelix("report", session).stdout.split())
    assert "1 process, " in text and "(children were not to be recorded)" in text
    assert "no agent was seen" not in text


def test_a_session_is_never_written_over(session):
    assert qelix("run", "-o", session, "--", "true").returncode == 0
    result = qelix("run", "-o", session, "--", "true")
    assert result.returncode == 125
    assert str(session) in result.stderr and "-o DIR" in result.stderr


def test_a_path_that_cannot_be_configured_is_refused_with_the_reason(tmp_path):
    for name in ["a=b", "a\nb"]:
        result = qelix("run", "-o", tmp_path / name, "--", "true")
        assert result.returncode == 125
        assert "where a configured value ends" in result.stderr
    assert not list(tmp_path.iterdir())


def test_a_rank_is_a_session_of_its_own_in_the_jobs_directory(tmp_path):
    for rank, variable in enumerate(["OMPI_COMM_WORLD_RANK", "PMIX_RANK", "PMI_RANK"]):
        environment = {**os.environ, variable: str(rank)}
        result = qelix("record", "-o", "job", SUBJECT, "count", "1", cwd=tmp_path, env=environment)
        assert result.returncode == 0, result.stderr
        session = tmp_path / "job" / f"rank={rank}"
        (trace,) = (session / "trace").iterdir()
        assert facts_of(session)["rank"] == rank
        assert int.from_bytes(trace.read_bytes()[12:16], "little") == rank
        assert list((session / "metadata").iterdir()) and list((session / ".log").iterdir())
    assert os.readlink(tmp_path / "qelix-last") == "job"


def test_slurms_own_script_is_no_rank_and_its_steps_are(tmp_path):
    script = {**os.environ, "SLURM_PROCID": "0"}
    qelix("record", "-o", "script", "true", cwd=tmp_path, env=script)
    assert facts_of(tmp_path / "script")["rank"] is None
    qelix("record", "-o", "job", "true", cwd=tmp_path, env={**script, "SLURM_PROCID": "3", "SLURM_STEP_ID": "0"})
    assert facts_of(tmp_path / "job" / "rank=3")["rank"] == 3


def test_a_rank_can_be_named_or_denied(tmp_path):
    environment = {**os.environ, "PMI_RANK": "5"}
    qelix("record", "-o", "job", "--rank", "70000", "true", cwd=tmp_path, env=environment)
    assert facts_of(tmp_path / "job" / "rank=70000")["rank"] == 70000
    qelix("record", "-o", "alone", "--rank", "none", "true", cwd=tmp_path, env=environment)
    assert facts_of(tmp_path / "alone")["rank"] is None


def test_a_directory_that_cannot_be_made_is_named(tmp_path):
    (tmp_path / "file").write_text("")
    result = qelix("run", "-o", tmp_path / "file" / "session", "--", "true")
    assert result.returncode == 125
    assert str(tmp_path / "file" / "session") in result.stderr


@pytest.mark.skipif(os.getuid() == 0, reason="root may write everywhere")
def test_a_read_only_directory_is_named(tmp_path):
    tmp_path.chmod(0o555)
    result = qelix("run", "true", cwd=tmp_path)
    assert result.returncode == 125
    assert "cannot make the session directory" in result.stderr and "choose another with -o DIR" in result.stderr


# In a mount namespace of its own, so that nothing stays mounted: $1 is the size, the rest is run in the folder.
ON_SMALL_DISK = "mount -t tmpfs -o size=$1 tmpfs . && cd . && cd \"$PWD\" && shift && exec \"$@\""


def on_small_disk(folder, options, *command):
    if os.getuid() != 0:
        pytest.skip("only root can mount a small disk")
    mounted = ["unshare", "-m", "sh", "-c", ON_SMALL_DISK, "sh", options]
    if subprocess.run([*mounted, "true"], cwd=folder, capture_output=True).returncode != 0:
        pytest.skip("mounting is not allowed here")
    return subprocess.run([*mounted, *command], cwd=folder, capture_output=True, text=True, timeout=120)


def test_a_read_only_disk_is_named(tmp_path):
    result = on_small_disk(tmp_path, "1M,ro", QELIX, "run", "true")
    assert result.returncode == 125
    assert "Read-only file system" in result.stderr and "choose another with -o DIR" in result.stderr


def test_on_a_disk_that_fills_up_the_program_ends_as_natively(tmp_path):
    program = ["sh", "-c", f"{SUBJECT} count 100000 && exit 6"]
    result = on_small_disk(tmp_path, "256k", QELIX, "run", "--threshold", "0", *program)
    assert result.returncode == 6, result.stderr
    assert "ended with status 6" in result.stderr


def test_on_a_full_disk_nothing_is_started(tmp_path):
    fill = ["sh", "-c", f"head -c 1M /dev/zero > full 2>/dev/null; {QELIX} run touch /tmp/started-on-a-full-disk"]
    result = on_small_disk(tmp_path, "64k", *fill)
    assert result.returncode == 125, result.stderr
    assert "make room or choose another directory with -o DIR" in result.stderr
    assert not os.path.exists("/tmp/started-on-a-full-disk")


def test_the_report_fits_a_narrow_terminal_and_needs_none(session):
    environment = {key: value for key, value in os.environ.items() if key != "TERM"}
    result = qelix("run", "-o", session, SUBJECT, "contend", "20", stdin=subprocess.DEVNULL,
                   start_new_session=True, env={**environment, "COLUMNS": "80"})
    assert result.returncode == 0 and "\x1b" not in result.stderr


def test_a_session_path_with_blanks_and_a_relative_one(tmp_path):
    result = qelix("run", "-o", "my session: 1", "--", SUBJECT, "count", "1", cwd=tmp_path)
    assert result.returncode == 0
    assert list((tmp_path / "my session: 1" / "trace").glob("*.umt"))


# ---- the shared memory -----------------------------------------------------------------------------------

SHOW_BLOCK = """
import os, re
conf = open(os.environ["QELIX_UMA_CONFIG_FILE"]).read()
path = "/dev/shm" + re.search("QELIX_SHM_NAME=(.*)", conf).group(1)
status = os.stat(path)
print(path, oct(status.st_mode & 0o777), open(path, "rb").read() == bytes(64))
"""


def test_the_block_is_there_zeroed_for_the_run_and_removed_after_it(session):
    result = qelix("run", "-o", session, "--", *python(SHOW_BLOCK))
    path, mode, is_zeroed = result.stdout.split()
    assert mode == "0o600"
    assert is_zeroed == "True"
    assert re.fullmatch(r"/dev/shm/qelix-\d+-[0-9a-f]+", path)
    assert not os.path.exists(path)


@pytest.mark.parametrize("code", ["kill -9 $$", "kill -TERM $PPID"])
def test_the_block_is_removed_however_the_program_ends(session, code):
    script = f"sed -n s/QELIX_SHM_NAME=//p $QELIX_UMA_CONFIG_FILE; {code}; exec sleep 60"
    result = qelix("run", "-o", session, "--", "sh", "-c", script)
    assert result.stdout.startswith("/qelix-")
    assert not os.path.exists("/dev/shm" + result.stdout.strip())


# ---- what the program sees -------------------------------------------------------------------------------


def test_the_programs_output_is_untouched(session):
    code = "import sys; sys.stdout.buffer.write(bytes(range(256))); sys.stderr.write('its error\\n')"
    result = qelix("run", "-o", session, "--", *python(code), text=False)
    assert result.stdout == bytes(range(256))
    assert b"its error\n" in result.stderr


def test_input_arguments_and_name_reach_the_program(session):
    code = "import sys; print(sys.stdin.read(), sys.argv[1:])"
    result = qelix("run", "-o", session, "--", *python(code), "--", "-o", "", "a b", input="typed")
    assert result.stdout == "typed ['--', '-o', '', 'a b']\n"
    result = qelix("run", "-o", str(session) + "2", "--", "sh", "-c", "cat /proc/$$/cmdline")
    assert result.stdout == "sh\0-c\0cat /proc/$$/cmdline\0"


def test_bare_a_program_is_run(tmp_path):
    for command in (["sh", "-c", "exit 3"], ["/bin/sh", "-c", "exit 3"], ["-F", "50", "sh", "-c", "exit 3"]):
        result = qelix(*command, cwd=tmp_path)
        assert result.returncode == 3, result.stderr
        assert "sh -c exit 3 ended with status 3" in " ".join(result.stderr.split())
    assert qelix("./no-such-program", cwd=tmp_path).returncode == 127


def test_a_command_goes_before_a_program_of_its_name(tmp_path):
    program = tmp_path / "report"
    program.write_text("#!/bin/sh\nexit 5\n")
    program.chmod(0o755)
    environment = {**os.environ, "PATH": f"{tmp_path}:{os.environ['PATH']}"}
    assert qelix("report", "--help", env=environment).returncode == 0
    assert qelix("run", "report", "--help", cwd=tmp_path, env=environment).returncode == 5


@pytest.mark.parametrize("options", [["-o", "x"], ["-ox"], ["--output", "x"], ["--output=x"]])
def test_the_program_begins_behind_the_options_and_their_values(tmp_path, options):
    result = qelix("run", *options, "-q", "echo", "-o", "--errors=json", "--", "run", cwd=tmp_path)
    assert result.stdout == "-o --errors=json -- run\n"
    assert (tmp_path / "x" / "session.json").exists()


def test_without_a_mark_the_first_word_is_the_program(session):
    result = qelix("run", "-o", session, "sh", "-c", 'echo "$@"', "name", "-o", "x", "--", "y")
    assert result.stdout == "-o x -- y\n"


def test_what_was_preloaded_stays_behind_the_agent(tmp_path, session):
    other = tmp_path / "libother.so"
    shutil.copy("/lib/x86_64-linux-gnu/libm.so.6", other)
    result = qelix("run", "-o", session, "--", "printenv", "LD_PRELOAD", env={**os.environ, "LD_PRELOAD": str(other)})
    agent, rest = result.stdout.strip().split(":")
    assert agent.endswith("/lib/libZorUserModeTracingAgent.so") and os.path.isabs(agent)
    assert rest == str(other)


SIGNAL_STATE = "import re; print(re.findall('Sig(?:Blk|Ign):.*', open('/proc/self/status').read()))"


def ignore_some():
    for number in (signal.SIGINT, signal.SIGCHLD, signal.SIGPIPE, signal.SIGHUP):
        signal.signal(number, signal.SIG_IGN)
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM, signal.SIGUSR1})


@pytest.mark.parametrize("prepare", [None, ignore_some])
def test_the_program_inherits_signals_as_natively(session, prepare):
    native = subprocess.run(python(SIGNAL_STATE), capture_output=True, text=True, preexec_fn=prepare)
    result = qelix("run", "-o", session, "--", *python(SIGNAL_STATE), preexec_fn=prepare)
    assert result.returncode == 0
    assert result.stdout == native.stdout


LIST_DESCRIPTORS = """
import os
for fd in sorted(map(int, os.listdir('/proc/self/fd'))):
    try:
        target = os.readlink(f'/proc/self/fd/{fd}')
    except OSError:
        continue
    if fd < 200:  # the agent's own, and those of its unwinder, lie high
        print(fd, target.split(':')[0])
"""


@pytest.mark.parametrize("redirection", ["", "<&-", "2>&-", "<&- 2>&-", "5</dev/null"])
def test_no_descriptor_of_ours_reaches_the_program(session, redirection):
    command = "'%s' -c \"%s\"" % (sys.executable, LIST_DESCRIPTORS)
    native = subprocess.run(["sh", "-c", f"{command} {redirection}"], stdout=subprocess.PIPE, text=True)
    ours = subprocess.run(
        ["sh", "-c", f"{QELIX} run -o {session} -- {command} {redirection}"], stdout=subprocess.PIPE, text=True
    )
    assert ours.stdout == native.stdout


# ---- signals ---------------------------------------------------------------------------------------------


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_signal_sent_to_us_reaches_the_program(session, number):
    process = subprocess.Popen(
        [QELIX, "run", "-o", session, "--", SUBJECT, "await"],
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, start_new_session=True,
    )
    assert process.stdout.readline() == "ready\n"
    process.send_signal(number)
    assert process.stdout.readline() == f"signal {number.value}\n"
    output, _ = process.communicate("\n", timeout=60)
    assert output == "1 in all\n"
    assert process.returncode == 20 + number


def read_until(descriptor, text):
    output = ""
    while text not in output:
        assert select.select([descriptor], [], [], 60)[0], output
        output += os.read(descriptor, 4096).decode()
    return output


def test_ctrl_c_on_a_terminal_reaches_the_program_once(session):
    pid, terminal = pty.fork()
    if pid == 0:
        os.execv(QELIX, [QELIX, "run", "-o", str(session), "--", SUBJECT, "await"])
    read_until(terminal, "ready")
    # Held until the program has taken its own: two signals that meet would count as one.
    os.kill(pid, signal.SIGSTOP)
    os.write(terminal, b"\x03")
    read_until(terminal, "signal 2")
    os.kill(pid, signal.SIGCONT)
    time.sleep(0.2)
    os.write(terminal, b"\n")
    assert "1 in all" in read_until(terminal, "in all")
    read_until(terminal, "ended with status 22")
    try:
        while os.read(terminal, 4096):
            pass
    except OSError:
        pass  # the terminal's other side is gone
    assert os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) == 22
    os.close(terminal)


# ---- what we say afterwards ------------------------------------------------------------------------------


def test_the_report_comes_on_standard_error(session):
    result = qelix("run", "-o", session, "--", SUBJECT, "contend", "50")
    assert re.fullmatch(r"0x[0-9a-f]+\n", result.stdout)
    assert " ".join(result.stderr.split()).count("ended with status 0") == 1, "once, by the report"
    assert re.search(r"1 process,\s+3 threads", result.stderr)
    assert re.search(r"\n  waiter +[0-9.]+ ms ", result.stderr)
    assert re.search(r"\n  g_mutex +mutex +\d+ ", result.stderr.split("LOCKS YOU WAIT FOR")[1])


TAKE_SIGNAL = "import signal; signal.signal(61, lambda *_: None); print('not reached')"


def test_the_code_of_an_error_file_is_explained_and_we_live_to_do_it(session):
    result = qelix("run", "-o", session, "--", *python(TAKE_SIGNAL))
    assert result.returncode == 126, "the status of a program that the agent ended is not the program's"
    assert result.stdout == ""
    assert "was ended by the agent" in result.stderr
    assert result.stderr.count("a handler of its own for the signal that the samples need") >= 1
    assert "a handler of its own for the signal that the samples need" in result.stderr
    assert "a signal that the program leaves alone" in result.stderr


@pytest.mark.parametrize(
    "arguments, code, hint, path",
    [
        (["run", "./missing"], "not-found", "check the path", "./missing"),
        (["run", "/etc/passwd"], "cannot-run", "check that it is a program and may be executed", "/etc/passwd"),
        (["run", "--min", "io=soon", "true"], "usage", "say it like 500ns, 10us, 1ms, 0 or off", None),
        (["nonsense"], "not-found", None, "nonsense"),
        (["run", "--min", "disk", "true"], "usage", None, None),
        (["export"], "usage", "say qelix export FORMAT DIR", None),
        (["run", "--nonsense", "true"], "usage", None, None),
        (["run", "no-such-program"], "not-found", "check its name or give its path", "no-such-program"),
        (["run", "-o", "/proc/nowhere", "true"], "cannot-write", "choose another with -o DIR", "/proc/nowhere/.log"),
        (["status", "missing"], "no-session", "name a directory that qelix run has made", "missing"),
        (["pause"], "no-session", "record with qelix run PROGRAM, or name a session's directory", "qelix-last"),
        (["threads", "missing"], "no-session", "name a directory that qelix run has made", "missing"),
        (["export", "csv", "missing"], "no-session", "name a directory that qelix run has made", "missing"),
        (["html", "missing"], "no-session", "name a directory that qelix run has made", "missing"),
        (["list", "missing"], "no-session", "name one that holds sessions", "missing"),
        (["merge", "out", "missing"], "no-session", "name a directory that qelix run or record has made", "missing"),
        (["dump", "missing.umt"], "damaged", "check that the file exists, is a regular file and may be read", "missing.umt"),
    ],
)
def test_failures_can_be_read_by_machines(tmp_path, arguments, code, hint, path):
    result = qelix("--errors=json", *arguments, cwd=tmp_path)
    (line,) = result.stderr.splitlines()
    failure = json.loads(line)
    assert list(failure) == ["code", "status", "message", "hint", "path"]
    assert failure["code"] == code and failure["path"] == path
    assert failure["status"] == result.returncode
    assert hint is None or failure["hint"] == hint
    assert qelix(*arguments, "--errors=json", cwd=tmp_path).stderr.startswith("{" if arguments[0] != "run" else "qelix")


def test_a_form_of_errors_that_is_not_known(tmp_path):
    result = qelix("--errors=xml", "report", cwd=tmp_path)
    assert result.returncode == 125 and 'no form "xml" of errors' in result.stderr


def test_a_limit_on_files_that_stops_us_is_told_before_the_program_starts(tmp_path):
    limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (100, 100))
    result = qelix("run", "-o", "session", "echo", "started", cwd=tmp_path, preexec_fn=limit)
    assert result.returncode == 125 and result.stdout == ""
    assert "File too large" in result.stderr


def test_records_that_a_limit_on_files_kept_away_are_told(session):
    limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (100_000, 100_000))
    result = qelix("run", "--no-sample", "--threshold", "0", "-o", session, SUBJECT, "count", "20000", preexec_fn=limit)
    assert result.returncode == 0
    assert "no record lost" not in result.stderr
    assert "not written: " in result.stderr and "records are missing" in " ".join(result.stderr.split())


@pytest.mark.parametrize("number", [signal.SIGUSR1, signal.SIGUSR2])
def test_a_signal_for_the_program_reaches_it(session, number):
    code = f"import signal, sys; signal.signal({number}, lambda *_: sys.exit(9)); print('ready', flush=True); signal.pause()"
    process = subprocess.Popen([QELIX, "record", "-o", session, *python(code)], stdout=subprocess.PIPE)
    assert process.stdout.readline() == b"ready\n"
    process.send_signal(number)
    assert process.wait(timeout=60) == 9


def test_a_lost_session_only_warns_unless_strict(session):
    command = ["--", "sh", "-c", f"rm -r {session}; exit 5"]
    assert qelix("run", "-o", session, *command).returncode == 5
    assert qelix("run", "--strict", "-o", session, *command).returncode == 125


# ---- --min -----------------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    "arguments, part",
    [
        (["--min", "disk=1us"], "one of the classes pthread, sleep, wait"),
        (["--min", "io=soon"], "soon is no time"),
        (["--min", "io=1us", "--min", "syscall=off"], "one setting for both"),
        (["--min", "all=off", "--no-sample"], "nothing is sampled"),
    ],
)
def test_what_cannot_be_configured_is_refused_before_the_program_starts(tmp_path, arguments, part):
    result = qelix("run", *arguments, "--", "touch", "started", cwd=tmp_path)
    assert result.returncode == 125
    assert part in result.stderr
    assert not list(tmp_path.iterdir())


def test_the_word_behind_a_minimum_is_the_program(session):
    result = qelix("run", "-o", session, "--min", "io=1ms", "echo", "sleep=1")
    assert result.stdout == "sleep=1\n"


def test_a_command_with_control_characters_does_not_reach_the_terminal(session):
    assert qelix("record", "-o", session, "sh", "-c", "exit 0", "\x1b[31mred\nline").returncode == 0
    for command in [["status", session], ["list", session.parent], ["report", session]]:
        text = qelix(*command).stdout
        assert "\x1b" not in text and "\nline" not in text
        assert "\\x1b[31m" in text or command[0] == "report"
