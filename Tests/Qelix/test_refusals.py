"""`qelix run` refuses what the agent cannot enter: status 126, the reason in words, nothing started, nothing left."""

import os
import pathlib
import re
import shutil
import struct
import subprocess

import pytest

from conftest import qelix


def refused(tmp_path, program, *options, **run_options):
    before = set(tmp_path.rglob("*"))
    result = qelix("run", *options, "--", program, cwd=tmp_path, **run_options)
    assert result.returncode == 126, result.stderr
    assert result.stdout == ""
    assert set(tmp_path.rglob("*")) == before
    return result.stderr


@pytest.fixture
def static(tmp_path):
    source = tmp_path / "static.c"
    source.write_text('#include <stdio.h>\nint main(void) { puts("ran"); return 6; }\n')
    subprocess.run(["gcc", "-static", "-o", tmp_path / "static", source], check=True)
    return tmp_path / "static"


def executable(path, content):
    path.write_bytes(content)
    path.chmod(0o755)
    return path


def test_a_statically_linked_program(tmp_path, static):
    message = refused(tmp_path, static)
    assert f"cannot trace {static}: it is statically linked" in message
    assert "link it dynamically" in message


def test_a_script_whose_interpreter_is_found_by_another_program_ran_with_the_agent(tmp_path):
    """env(1) runs what it finds without a word of the agent's: the last image is not the one that was told of."""
    script = tmp_path / "script"
    script.write_text("#!/usr/bin/env bash\ntrue\n")
    script.chmod(0o755)
    result = qelix("run", "--", "/bin/sh", "-c", f"{script}; true", cwd=tmp_path)
    assert result.returncode == 0
    assert "without the agent" not in " ".join(result.stderr.split())


def test_a_position_independent_static_program(tmp_path, static):
    subprocess.run(["gcc", "-static-pie", "-o", tmp_path / "pie", tmp_path / "static.c"], check=True)
    assert "statically linked" in refused(tmp_path, tmp_path / "pie")


def test_a_script_with_such_an_interpreter(tmp_path, static):
    script = executable(tmp_path / "script", f"#!{static} -x\n".encode())
    assert f"it is a script for {static}, which is statically linked" in refused(tmp_path, script)


def test_a_program_for_another_architecture(tmp_path):
    header = b"\x7fELF\x01\x01\x01" + bytes(9) + struct.pack("<HHI", 2, 3, 1) + bytes(200)
    assert "32-bit x86" in refused(tmp_path, executable(tmp_path / "old", header))


def set_id_program(tmp_path, bit):
    """A program that changes an id of whoever runs these tests."""
    if os.statvfs(tmp_path).f_flag & os.ST_NOSUID:
        pytest.skip("this file system ignores the bit")
    program = tmp_path / "set-id"
    shutil.copy("/bin/true", program)
    if os.getuid() == 0:
        os.chown(program, 65534, 65534)
        program.chmod(0o755 | bit)
        return program
    if bit == 0o2000:
        pytest.skip("only root can give the file away")
    return pathlib.Path(shutil.which("su"))


@pytest.mark.parametrize("bit, words", [(0o4000, "set-user-id"), (0o2000, "set-group-id")])
def test_a_program_that_changes_ids(tmp_path, bit, words):
    program = set_id_program(tmp_path, bit)
    assert f"cannot trace {program}: it is {words}" in refused(tmp_path, program)


def test_a_bit_that_changes_nothing_is_no_reason(tmp_path, session):
    program = tmp_path / "own"
    shutil.copy("/bin/true", program)
    program.chmod(0o4755)
    assert qelix("run", "-o", session, "--", program).returncode == 0


def test_an_allocator_that_cannot_be_traced(tmp_path):
    allocator = tmp_path / "libjemalloc.so.2"
    shutil.copy("/lib/x86_64-linux-gnu/libm.so.6", allocator)
    environment = {**os.environ, "LD_PRELOAD": str(allocator)}
    message = refused(tmp_path, "true", env=environment)
    assert "libjemalloc.so in LD_PRELOAD" in message and "take it out" in message
    session = tmp_path / "session"
    result = qelix("run", "-o", session, "--min", "all=off", "--", "true", env=environment)
    assert result.returncode == 0, "only sampled, it is no hindrance"


# ---- children --------------------------------------------------------------------------------------------


def test_a_child_that_ran_without_the_agent_is_told_with_the_reason(static, session):
    result = qelix("run", "-o", session, "--", "sh", "-c", f"{static}; true")
    assert result.returncode == 0
    assert result.stdout == "ran\n"
    words = " ".join(result.stderr.split())
    assert re.search(f"1 process ran without the agent: {re.escape(str(static))} \\d+ \\(it is statically linked", words)


def test_a_child_that_was_left_out_is_told(session):
    code = "import os; os.waitpid(os.fork() or os._exit(0), 0)"
    result = qelix("run", "-o", session, "--no-children", "--", "/usr/bin/python3", "-c", code)
    assert result.returncode == 0
    words = " ".join(result.stderr.split())
    assert re.search(r"1 process ran without the agent: a fork \d+ \(children were not to be recorded\)", words)
