"""A program of many processes whose session has no room: the program ends as natively, what is there can be read."""

import resource
import subprocess

import pytest

import records
from program_session import HERE, ProgramSession, difference, missing_packages

SCRIPT = HERE / "quick" / "git.sh"
FILE_LIMIT = 40_000


@pytest.fixture
def session(tmp_path):
    missing = missing_packages(SCRIPT)
    if missing:
        pytest.skip("not installed: " + " ".join(missing))
    session = ProgramSession(tmp_path / "session")
    session.configure_mode("traced")
    yield session
    session.close()


@pytest.fixture
def small_disk(session):
    place = session.root / "trace"
    command = ["mount", "-t", "tmpfs", "-o", "size=512k", "none", str(place)]
    if subprocess.run(command, capture_output=True).returncode != 0:
        pytest.skip("mounting is not allowed here")
    yield place
    subprocess.run(["umount", "-l", str(place)], check=True)


def assert_readable(session):
    sizes = []
    for path in (session.root / "trace").iterdir():
        sizes.append(path.stat().st_size)
        if sizes[-1]:
            records.read_trace(path)
    return sizes


def test_a_disk_that_fills_up(session, small_disk):
    native = session.run_script(SCRIPT, agent=False)
    changed = difference(native, session.run_script(SCRIPT, agent=True))
    assert changed == ""
    assert sum(assert_readable(session)) <= 512 << 10
    logs = "".join(path.read_text() for path in (session.root / ".log").iterdir())
    assert "Failed to write the header into tracing file" in logs


def test_files_that_may_not_grow(session):
    def limit():
        resource.setrlimit(resource.RLIMIT_FSIZE, (FILE_LIMIT, FILE_LIMIT))

    native = session.run_script(SCRIPT, agent=False, before=limit)
    changed = difference(native, session.run_script(SCRIPT, agent=True, before=limit))
    assert changed == ""
    assert max(assert_readable(session)) <= FILE_LIMIT
