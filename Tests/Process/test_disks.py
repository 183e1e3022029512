"""Nothing can be written: the disk is full, the directory cannot be written to or is gone, files may not grow."""

import os
import resource
import shutil
import signal
import subprocess

import pytest

import records
from session import PATIENCE

STATUS = 20
INITIALISATION = b"Qelix : Failed to initialize the constructor for pid"
# a megabyte of records from one thread; some from each of many processes and threads
MANY_RECORDS = ("descriptors", "numbers_while_writing", 100)
MANY_PROCESSES = ("forks", "loop", STATUS)
MANY_THREADS = ("forks", "threads_in_child", STATUS)


@pytest.fixture
def mounted(session):
    """Mounts a small file system in the session; unmounted at the end."""
    places = []

    def mount(place, options):
        command = ["mount", "-t", "tmpfs", "-o", options, "none", str(place)]
        result = subprocess.run(command, capture_output=True, timeout=PATIENCE)
        if result.returncode != 0:
            pytest.skip("mounting is not allowed here")
        places.append(place)

    yield mount
    for run in session.runs:
        run.kill()
    for place in reversed(places):
        subprocess.run(["umount", "-l", str(place)], check=True, timeout=PATIENCE)


def assert_as_natively(session, name="forks", mode="fork", status=STATUS):
    native = session.native(name, mode)
    run = session.run(name, mode)
    assert run.status == native.status == status
    assert [line.split()[0] for line in run.lines()] == [line.split()[0] for line in native.lines()]
    return run


@pytest.mark.parametrize("size, load", [("64k", MANY_RECORDS), ("1m", MANY_RECORDS), ("256k", MANY_PROCESSES),
                                        ("16k", MANY_THREADS)])
def test_on_a_full_disk_the_program_ends_as_natively_and_the_files_stay_readable(session, mounted, size, load):
    mounted(session.root / "trace", f"size={size}")
    run = assert_as_natively(session, *load)
    assert run.err == b""
    texts = {text.partition(" in process (")[0] for text in session.all_log_texts("ERROR")}
    assert texts and texts <= {"Failed to write buffer from global list to file.",
                               "Failed to write buffer from global array to file.",
                               "Failed to write the header into tracing file"}
    for pid in session.traced_pids():
        path = session.relative(pid).trace_path
        if path.stat().st_size:
            records.read_trace(path)


def test_on_a_disk_without_any_room_the_program_ends_as_natively(session, mounted):
    mounted(session.root / "trace", "size=4k")
    (session.root / "trace" / "filler").write_bytes(b"x" * 4096)
    run = assert_as_natively(session)
    assert f"Failed to write the header into tracing file in process ({run.pid})." in run.log_texts("ERROR")


def test_in_a_read_only_session_directory_the_program_runs_untraced(session, mounted):
    for folder in (".log", ".error"):
        mounted(session.root / folder, "ro,size=64k")
    run = assert_as_natively(session)
    assert INITIALISATION in run.err
    assert f"Failed to open log and error file in process ({run.pid}).\n".encode() in run.err
    assert session.traced_pids() == set()


def test_with_a_read_only_trace_directory_the_program_runs_untraced(session, mounted):
    mounted(session.root / "trace", "ro,size=64k")
    run = assert_as_natively(session)
    text = f"Failed to open the file ({run.trace_path}) : Read-only file system."
    assert text in run.log_texts("ERROR")


def test_in_a_missing_session_directory_the_program_runs_untraced(session):
    shutil.rmtree(session.root / ".log")
    run = assert_as_natively(session)
    assert INITIALISATION in run.err


def test_a_session_directory_removed_meanwhile_disturbs_nothing(session):
    run = session.start("descriptors", "hold")
    run.expect("held")
    for folder in (".log", ".error", "trace", "metadata"):
        shutil.rmtree(session.root / folder)
    run.tell("go on")
    run.finish()
    assert (run.status, run.err) == (100, b"")


@pytest.mark.parametrize("size", [16384, 100000, 1000000])
def test_a_limit_on_file_sizes_never_kills_the_program_for_our_writes(session, size):
    def limit():
        signal.signal(signal.SIGXFSZ, signal.SIG_DFL)
        resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))

    name, mode, status = MANY_RECORDS
    run = session.run(name, mode, before=limit)
    assert (run.status, run.err) == (status, b"")
    for pid in session.traced_pids():
        path = session.relative(pid).trace_path
        assert path.stat().st_size <= size
        if path.stat().st_size:
            records.read_trace(path)


def test_the_signal_of_that_limit_still_ends_a_program_that_exceeds_it_itself(session):
    def limit():
        resource.setrlimit(resource.RLIMIT_FSIZE, (100000, 100000))

    command = ("/bin/dd", "if=/dev/zero", "of=large", "bs=1000", "count=1000")
    native = session.native(*command, before=limit)
    run = session.run(*command, before=limit)
    assert run.status == native.status == -signal.SIGXFSZ
    assert os.path.getsize(session.root / "large") == 100000


def test_without_any_process_to_start_the_writer_the_program_runs_untraced(session):
    script = "import resource,os; resource.setrlimit(resource.RLIMIT_NPROC,(1,1)); os.setuid(65534); " \
             "os.execv('/bin/echo', ['echo', 'alone'])"
    os.chmod(session.root, 0o777)
    for folder in (".log", ".error", "trace", "metadata"):
        os.chmod(session.root / folder, 0o777)
    native = session.native("/usr/bin/python3", "-c", script)
    run = session.run("/usr/bin/python3", "-c", script)
    assert (run.status, run.out) == (native.status, native.out)
