"""The unwinder's pipe, in a program that opens files under any number."""

import pytest

from sampling import TICK_NS, samples_of

# Samples, then puts files of its own wherever a number is free, or everywhere, and samples again.
PROGRAM = """
import os, sys, threading, time
def work():
    end = time.process_time() + 0.15
    while time.process_time() < end: sum(i * i for i in range(2000))
def fill(is_forced):
    null = os.open("/dev/null", os.O_RDWR)
    mine = [null]
    for number in range(3, 700):
        if is_forced: mine.append(os.dup2(null, number))
    while not is_forced and mine[-1] < 700: mine.append(os.dup(null))
    return mine
work()
if sys.argv[1] == "child":
    pid = os.fork()
    if pid: sys.exit(os.waitpid(pid, 0)[1] >> 8)
mine = fill(sys.argv[1] == "forced")
before = os.stat("/dev/null")
thread = threading.Thread(target=work) # on memory that the unwinder has not tested
thread.start()
thread.join()
for fd in mine:
    now = os.fstat(fd)
    assert (now.st_dev, now.st_ino) == (before.st_dev, before.st_ino), fd
os.write(1, b"all are mine")
os._exit(7)
"""


@pytest.mark.parametrize("how", ["free", "child", "forced"])
def test_the_unwinder_touches_no_file_of_the_program(session, how):
    session.configure(QELIX_TIMER_INTERVAL=TICK_NS)
    native = session.native("/usr/bin/python3", "-S", "-c", PROGRAM, how)
    run = session.run("/usr/bin/python3", "-S", "-c", PROGRAM, how)
    assert (run.status, run.out, run.err) == (native.status, native.out, native.err) == (7, b"all are mine", b"")
    assert samples_of(run)
