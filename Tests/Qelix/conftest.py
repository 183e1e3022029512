"""Runs the built command. QELIX and QELIX_SUBJECT name the executables; CTest sets them."""

import json
import os
import pathlib
import subprocess

import pytest

QELIX = os.environ["QELIX"]
SUBJECT = os.environ["QELIX_SUBJECT"]
FOLDERS = {".log", ".error", "trace", "sample", "metadata"}


def qelix(*arguments, **options):
    """Runs the command to its end, with the output as text."""
    options.setdefault("text", True)
    return subprocess.run([QELIX, *map(str, arguments)], capture_output=True, timeout=120, **options)


def dump(*files):
    """The records of files as dictionaries, the header lines among them."""
    result = qelix("dump", "--json", *files)
    assert result.returncode == 0, result.stderr
    return [json.loads(line) for line in result.stdout.splitlines()]


def report(directory):
    result = qelix("report", directory, "--json")
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout)


def full_text(directory):
    result = qelix("report", "--full", directory)
    assert result.returncode == 0, result.stderr
    return result.stdout


def blocks():
    """Names of the controllers' blocks that exist."""
    return {path.name for path in pathlib.Path("/dev/shm").glob("qelix-*")}


@pytest.fixture
def session(tmp_path):
    return tmp_path / "session"
