"""check, env, list, completion, help, version."""

import json
import os
import pathlib
import re
import shutil
import subprocess
import time

import pytest

from conftest import QELIX, SUBJECT, qelix, report


def lines(*arguments, **options):
    result = qelix("check", "--json", *arguments, **options)
    return {line["subject"]: line for line in json.loads(result.stdout)}, result.returncode


def test_this_machine_can_be_recorded_on():
    subjects, status = lines()
    assert status == 0
    for subject in ["agent", "shared memory", "call stacks", "sampling timers", "preloads"]:
        assert subjects[subject]["mark"] == "ok", subjects[subject]
    tick = time.clock_getres(6) * 1e3
    assert f"{tick:.3g} ms" in subjects["sampling timers"]["text"]
    text = qelix("check").stdout
    assert re.search(r"^ok    agent\s+/", text, re.MULTILINE)
    assert all(len(line) <= 80 or " " not in line[25:] for line in text.splitlines())


def test_a_program_that_can_be_recorded():
    subjects, status = lines("xz")
    assert status == 0 and subjects["program"]["mark"] == "ok" and "second thread" not in subjects


def test_a_program_that_cannot_be_recorded_is_126(tmp_path):
    source = tmp_path / "static.c"
    source.write_text("int main(void) { return 0; }\n")
    subprocess.run(["gcc", "-static", "-o", tmp_path / "static", source], check=True)
    subjects, status = lines(tmp_path / "static")
    assert status == 126
    assert subjects["program"]["mark"] == "no" and "statically linked" in subjects["program"]["text"]
    assert qelix("check", "no-such-program-at-all").returncode == 127


def test_an_allocator_that_cannot_be_traced_is_126():
    subjects, status = lines(env={**os.environ, "LD_PRELOAD": "/nonexistent/libjemalloc.so.2"})
    assert status == 126 and "take it out" in subjects["preloads"]["text"]


def test_a_missing_unwinder_is_a_warning(tmp_path):
    (tmp_path / "libunwind.so.8").write_text("no library")
    subjects, status = lines(env={**os.environ, "LD_LIBRARY_PATH": str(tmp_path)})
    assert status == 0
    assert subjects["call stacks"]["mark"] == "warn" and "libunwind8" in subjects["call stacks"]["text"]


def test_a_program_that_must_be_alone_is_a_warning():
    subjects, status = lines("unshare")
    assert status == 0
    assert subjects["second thread"]["mark"] == "warn" and "unshare" in subjects["second thread"]["text"]


def test_a_run_names_the_second_thread_as_a_likely_cause(session, tmp_path):
    natively = subprocess.run(["unshare", "-U", "true"], capture_output=True)
    if natively.returncode != 0:
        pytest.skip("user namespaces are not allowed here")
    result = qelix("run", "-o", session, "unshare", "-U", "true")
    assert result.returncode != 0
    assert "a likely cause" in result.stderr and "unshare" in result.stderr
    result = qelix("run", "-o", tmp_path / "child", "sh", "-c", "unshare -U true; exit $?")
    assert "a likely cause" in result.stderr
    result = qelix("run", "-o", tmp_path / "other", "sh", "-c", "exit 1")
    assert "a likely cause" not in result.stderr


# ---- env -------------------------------------------------------------------------------------------------


def last(folder):
    return folder / os.readlink(folder / "qelix-last")


def test_a_shell_takes_the_variables_and_what_it_starts_is_recorded(tmp_path):
    script = f'eval "$({QELIX} env --min all=0)"; {SUBJECT} count 10; {QELIX} status'
    result = subprocess.run(["sh", "-c", script], cwd=tmp_path, capture_output=True, text=True, timeout=60)
    assert result.returncode == 0, result.stderr
    session = last(tmp_path)
    assert re.fullmatch(r"qelix-env-\d{8}-\d{6}-\d+", session.name)
    assert "qelix status, pause and stop steer it" in result.stderr
    assert "waiting for a program" in result.stdout or "running" in result.stdout
    names = {call["name"]: call["calls"] for process in report(session)["processes"]
             for thread in process["threads"] for call in thread["calls"]}
    assert names["pthread_mutex_lock"] >= 10
    assert "QELIX_LAUNCH_PROCESS_ID=0\n" in (session / "agent.conf").read_text()


def test_a_waiting_session_can_be_paused_before_its_program_starts(tmp_path):
    variables = dict(
        line.removeprefix("export ").split("=", 1) for line in qelix("env", "server", cwd=tmp_path).stdout.splitlines()
    )
    environment = {**os.environ, **{name: value.strip("'") for name, value in variables.items()}}
    session = last(tmp_path)
    assert session.name.startswith("qelix-server-")
    assert "waiting for a program" in qelix("status", session).stdout
    assert qelix("stop", session).returncode == 0
    subprocess.run([SUBJECT, "count", "10"], env=environment, check=True, timeout=60)
    assert all(path.stat().st_size < 1000 for path in (session / "trace").iterdir())
    assert "ended" in qelix("status", session).stdout
    block = "/dev/shm" + json.loads((session / "session.json").read_text())["block"]
    assert os.path.exists(block), "what is started later finds it, and records nothing"
    assert qelix("list", "--remove-older", "0", "--yes", cwd=tmp_path).returncode == 0
    assert not session.exists() and not os.path.exists(block)


def test_the_forms_of_the_variables(tmp_path):
    systemd = qelix("env", "--systemd", "-o", "a session", cwd=tmp_path).stdout
    assert "[Service]\n" in systemd
    assert f'Environment="QELIX_SESSION_DIR={tmp_path}/a session"\n' in systemd
    assert "ReadWritePaths=" in systemd and "/dev/shm/qelix-" in systemd
    container = qelix("env", "--container", "-o", "other", cwd=tmp_path).stdout
    words = subprocess.run(["sh", "-c", f'printf "%s\\n" {container}'], capture_output=True, text=True).stdout.split("\n")
    assert f"QELIX_SESSION_DIR={tmp_path}/other" in words
    assert f"{tmp_path}/other:{tmp_path}/other" in words
    assert any(re.fullmatch(r"(/dev/shm/qelix-\d+-[0-9a-f]+):\1", word) for word in words)
    assert any(word.endswith("libZorUserModeTracingAgent.so:ro") for word in words)


def test_a_user_that_does_not_exist_leaves_nothing(tmp_path):
    result = qelix("env", "--user", "no-such-user-at-all", cwd=tmp_path)
    assert result.returncode == 125 and "no such user" in result.stderr
    assert not list(tmp_path.iterdir())


@pytest.mark.skipif(os.getuid() != 0, reason="only root can give files away")
def test_another_user_gets_session_and_block(tmp_path):
    qelix("env", "--user", "nobody", "-o", "session", cwd=tmp_path)
    block = json.loads((tmp_path / "session" / "session.json").read_text())["block"]
    owners = {path.stat().st_uid for path in (tmp_path / "session").rglob("*")}
    assert owners == {(tmp_path / "session").stat().st_uid, pathlib.Path("/dev/shm" + block).stat().st_uid} != {0}
    pathlib.Path("/dev/shm" + block).unlink()


# ---- list ------------------------------------------------------------------------------------------------


@pytest.fixture
def sessions(tmp_path):
    qelix("record", "-o", "first", "sh", "-c", "exit 3", cwd=tmp_path)
    qelix("record", "-o", "job", "--rank", "1", "true", cwd=tmp_path)
    (tmp_path / "no-session").mkdir()
    return tmp_path


def test_sessions_are_listed_with_their_ends(sessions):
    text = qelix("list", sessions).stdout.splitlines()
    assert len(text) == 2
    assert re.search(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d +[\d.]+ .*B  first  sh -c exit 3: ended with status 3$", text[0])
    assert "job/rank=1  true: ended with status 0" in text[1]
    facts = json.loads(qelix("list", "--json", sessions).stdout)
    assert [entry["command"] for entry in facts] == [["sh", "-c", "exit 3"], ["true"]]
    assert qelix("list", sessions / "missing").returncode == 1


def test_nothing_is_removed_without_a_word_and_nothing_foreign_at_all(sessions):
    before = set(sessions.rglob("*"))
    assert "2 would be removed" in qelix("list", sessions, "--remove-older", "0").stderr
    assert "0 would be removed" in qelix("list", sessions, "--remove-older", "1").stderr
    assert set(sessions.rglob("*")) == before
    (sessions / "first" / "notes").write_text("mine")
    result = qelix("list", sessions, "--remove-older", "0", "--yes")
    assert "1 removed" in result.stderr and "has not made" in result.stderr
    assert not (sessions / "job").exists() and not (sessions / "qelix-last").is_symlink()
    assert [path.name for path in (sessions / "first").iterdir()] == ["notes"]
    assert (sessions / "no-session").exists()


def test_a_session_that_runs_is_not_removed(tmp_path):
    process = subprocess.Popen([QELIX, "record", "-q", "-o", tmp_path / "session", "sh", "-c", "echo ready; cat"],
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    assert process.stdout.readline() == "ready\n"
    assert "0 removed" in qelix("list", tmp_path, "--remove-older", "0", "--yes").stderr
    assert (tmp_path / "session" / "session.json").exists()
    process.communicate("\n", timeout=60)


def test_what_a_link_points_to_is_not_removed(tmp_path):
    outside = tmp_path / "outside"
    qelix("record", "-o", outside / "session", "true")
    (tmp_path / "inside").mkdir()
    (tmp_path / "inside" / "link").symlink_to(outside / "session")
    qelix("record", "-o", tmp_path / "inside" / "hollow", "true")
    shutil.rmtree(tmp_path / "inside" / "hollow" / "trace")
    (tmp_path / "inside" / "hollow" / "trace").symlink_to(outside / "session" / "trace")
    assert qelix("list", tmp_path / "inside", "--remove-older", "0", "--yes").returncode == 125
    assert (outside / "session" / "session.json").exists()
    assert list((outside / "session" / "trace").iterdir())


# ---- help ------------------------------------------------------------------------------------------------


def commands():
    return re.findall(r"^  (\w+) ", qelix("--help").stdout.split("Record", 1)[1], re.MULTILINE)


def test_every_command_has_a_help_that_fits_a_narrow_terminal():
    assert {"run", "record", "status", "pause", "resume", "stop", "check", "env", "list", "completion"} <= set(commands())
    for command in commands():
        result = qelix("help", command)
        assert result.returncode == 0
        assert result.stdout == qelix(command, "--help").stdout
        assert max(map(len, result.stdout.splitlines())) <= 80, result.stdout
    first_screen = qelix("help").stdout
    assert first_screen == qelix("--help").stdout
    assert max(map(len, first_screen.splitlines())) <= 80
    assert qelix("help", "nonsense").returncode == 125


def usages():
    commands = re.findall(r"^  ([a-z]+) ", qelix("--help").stdout.split("Begin with")[0], re.MULTILINE)
    assert len(commands) > 25
    return {command: qelix(command, "--help").stdout for command in commands}


def test_usage_lines_show_what_may_be_typed():
    texts = usages()
    assert "Usage: qelix run [OPTIONS] PROGRAM ARGS...\n" in texts["run"]
    assert "Usage: qelix locks [OPTIONS] [DIR] [NAME]\n" in texts["locks"]
    assert "Usage: qelix merge [OPTIONS] OUT DIR...\n" in texts["merge"]
    assert "Usage: qelix flame [OPTIONS] [DIR]\n" in texts["flame"]
    for text in texts.values():
        assert max(map(len, text.splitlines())) <= 80
        assert not re.search(r"\(0x|Excludes|FLOAT|\.\.\. \.\.\.", text), text


def test_the_version_names_the_agent():
    assert qelix("version").stdout.startswith(qelix("--version").stdout)
    assert "libZorUserModeTracingAgent.so (build-id " in qelix("version").stdout


def test_bash_completes_commands_options_and_files(tmp_path):
    script = qelix("completion", "bash").stdout + """
complete_line() {
    COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMPREPLY=(); _qelix; printf '%s\\n' "${COMPREPLY[@]}"
}
complete_line qelix rec; echo =; complete_line qelix run --dur; echo =; complete_line qelix report fil
"""
    (tmp_path / "file").touch()
    result = subprocess.run(["bash", "-c", script], cwd=tmp_path, capture_output=True, text=True)
    assert result.stderr == ""
    first, second, third = result.stdout.split("=\n")
    assert "record" in first.split() and second.split() == ["--duration"] and third.split() == ["file"]
    for command in commands():
        assert f"    {command}) options=" in script


@pytest.mark.parametrize("shell", ["zsh", "fish"])
def test_other_shells_read_their_completion(shell):
    text = qelix("completion", shell).stdout
    for command in commands():
        assert command in text
    assert "budget" in text
    if shutil.which(shell) is None:
        pytest.skip(f"{shell} is not installed")
    assert subprocess.run([shell, "-n"], input=text, text=True, capture_output=True).stderr == ""


def test_a_shell_without_a_completion_is_refused():
    assert qelix("completion", "csh").returncode == 125
