"""Sessions that were made to harm: what the files name must not be waited for."""

import os
import struct

import pytest

from conftest import qelix
from made_session import Process, write_session

START = 1_000_000_000


def mapped(path):
    """A process that ran in a module of this path."""
    process = Process(100).thread(100, "main", START).ticks(100, START, 3, [0x2000])
    name = os.fsencode(path)
    process.modules.append(struct.pack("<HHIQQQHBBI", 0, 41 + len(name), 100, 0x1000, 0x9000, 1, len(name), 1, 0, 0)
                           + name + b"\0")
    return process


@pytest.mark.parametrize("command", [["report"], ["flame"], ["export", "folded"]])
def test_a_module_that_is_a_pipe(session, tmp_path, command):
    pipe = tmp_path / "pipe"
    os.mkfifo(pipe)
    result = qelix(*command, write_session(session, mapped(pipe)))
    assert result.returncode == 0, result.stderr


@pytest.mark.parametrize("path", ["/dev/zero", "/proc/self/mem", "/", "/dev/stdin", "/nowhere/" + "x" * 3000])
def test_a_module_that_is_no_object(session, path):
    result = qelix("report", write_session(session, mapped(path)))
    assert result.returncode == 0, result.stderr
