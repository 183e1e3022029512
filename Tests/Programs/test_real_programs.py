"""Programs that nobody wrote for a test, natively and under the agent."""

import os
import random

import pytest

import records
import session as harness

LARGE = os.environ.get("QELIX_TEST_SCALE") == "large"
if LARGE:
    harness.PATIENCE = 900.0
# bytes of input for the compressor, lines for the sorter
SIZE = 40 << 20 if LARGE else 3 << 20
LINES = 2_000_000 if LARGE else 150_000

PYTHON_THREADS = """
import queue, threading, sys
work, done = queue.Queue(8), queue.Queue()
total = 0
lock = threading.Lock()
def run():
    global total
    while (item := work.get()) is not None:
        with lock:
            total += item
        done.put(item)
threads = [threading.Thread(target=run, name=f"worker {i}") for i in range(4)]
for thread in threads: thread.start()
for item in range(3000): work.put(item)
for thread in threads: work.put(None)
for thread in threads: thread.join(30)
event = threading.Event()
print(total, done.qsize(), event.wait(0.01), threading.active_count())
sys.exit(17)
"""
PYTHON_CHILDREN = """
import subprocess, concurrent.futures
with concurrent.futures.ThreadPoolExecutor(4) as pool:
    print(list(pool.map(lambda i: subprocess.run(["sh", "-c", f"exit {i}"]).returncode, range(20))))
print(subprocess.run(["seq", "3"], capture_output=True, text=True).stdout.split())
"""
PERL_SIGNALS = """
$| = 1; my $count = 0;
$SIG{USR1} = sub { $count++; };
$SIG{ALRM} = sub { print "alarm\\n"; };
kill USR1 => $$ for 1..50;
my $pid = fork; if (!$pid) { exit 4 } waitpid $pid, 0; print $? >> 8, "\\n";
alarm 1; sleep 5; print $count > 0 ? "signalled\\n" : "not signalled\\n"; exit 9;
"""


@pytest.fixture(scope="module")
def text_file(tmp_path_factory):
    """Text with much and little repetition, the same in every run."""
    path = tmp_path_factory.mktemp("input") / "text"
    words = [f"word{number}" for number in range(5000)]
    source = random.Random(4)
    with open(path, "w") as file:
        while file.tell() < SIZE:
            file.write(" ".join(source.choices(words, k=12)) + f" {source.random()}\n")
    return path


@pytest.fixture(scope="module")
def numbers_file(tmp_path_factory):
    path = tmp_path_factory.mktemp("input") / "numbers"
    source = random.Random(5)
    path.write_text("".join(f"{source.randrange(10**9)}\n" for _ in range(LINES)))
    return path


def assert_same(session, *command, healthy=True):
    native = session.native(*command)
    run = session.run(*command)
    assert (run.status, run.out, run.err) == (native.status, native.out, native.err)
    run.assert_all_files_parse()
    if healthy:
        assert run.log_texts("ERROR", "WARN") == []
        assert "Lost trace records count = 0" in run.log_texts("INFO")
    return run


def test_xz_with_two_threads(session, text_file):
    run = assert_same(session, "/usr/bin/xz", "-T2", "-3", "--block-size=1MiB", "-kc", text_file)
    assert run.calls(records.CREATE)
    assert {record.kind for record in run.calls()} >= {records.LOCK_MUTEX, records.WAIT_CV}


def test_xz_there_and_back(session, text_file):
    compressed = session.root / "text.xz"
    compressed.write_bytes(session.native("/usr/bin/xz", "-T2", "-0", "-kc", text_file).out)
    run = assert_same(session, "/usr/bin/xz", "-T2", "-dc", compressed)
    assert run.out == text_file.read_bytes()


def test_xz_with_a_damaged_file_fails_as_natively(session, text_file):
    damaged = session.root / "text.xz"
    damaged.write_bytes(session.native("/usr/bin/xz", "-T2", "-0", "-kc", text_file).out[:-1000])
    assert assert_same(session, "/usr/bin/xz", "-T2", "-dc", damaged).status == 1


def test_sort_with_two_threads(session, numbers_file):
    run = assert_same(session, "/usr/bin/sort", "--parallel=2", "-n", "-S", "64M", numbers_file)
    assert run.calls(records.CREATE)
    assert run.status == 0


def test_python_with_threads(session):
    run = assert_same(session, "/usr/bin/python3", "-S", "-c", PYTHON_THREADS)
    assert run.out == b"4498500 3000 False 1\n"
    assert run.status == 17
    assert len(run.calls(records.CREATE)) == 4


def test_python_with_threads_and_children(session):
    assert_same(session, "/usr/bin/python3", "-S", "-c", PYTHON_CHILDREN)


def test_perl_takes_its_own_signals(session):
    run = assert_same(session, "/usr/bin/perl", "-e", PERL_SIGNALS)
    assert (run.status, run.out) == (9, b"4\nalarm\nsignalled\n")


@pytest.mark.parametrize("command", [
    ("/bin/true",), ("/bin/false",), ("/bin/echo", "a", "b"), ("/bin/ls", "/etc"),
    ("/usr/bin/env", "-i", "/bin/true"),
    ("/bin/sh", "-c", "echo one; (echo two; exit 3); echo $?; kill -TERM $$"),
    ("/bin/sh", "-c", "seq 1000 | sort -rn | head -n 2"), ("/usr/bin/tar", "--version"),
    ("/bin/cat", "/nonexistent"), ("/usr/bin/timeout", "--signal=KILL", "0.1", "/bin/sleep", "60"),
], ids=" ".join)
def test_everyday_programs(session, command):
    assert_same(session, *command, healthy=False)
