"""Every way to end a process: its status is the native one and its data is in the files."""

import re
import signal
from pathlib import Path

import pytest

import records
from processes import assert_files_whole, told, work_of

_SOURCE = (Path(__file__).parent / "programs" / "ends.c").read_text()
_TABLE = _SOURCE[_SOURCE.index("g_ways[]"):_SOURCE.index("g_pWay;")]
WAYS = re.findall(r"\{\"(\w+)\", \w+\}", _TABLE)
STATUS = {"return": 40, "exit": 41, "_exit": 42, "_Exit": 43, "quick_exit": 44, "quick_exit_old": 45,
          "abort": -signal.SIGABRT, "abort_handled": -signal.SIGABRT, "abort_exits": 51,
          "abort_ignored": -signal.SIGABRT, "abort_jumps": 46, "raw_exit": 47, "raw_exit_group": 48,
          "exit_negative": 255, "pthread_exit": 0, "exit_in_exit_handler": 42, "killed": -signal.SIGTERM}
# nothing of ours runs where the kernel ends the process
UNANNOUNCED = {"killed"}


def lines_without_address(run):
    return [line for line in run.lines() if not line.startswith("address")]


@pytest.mark.parametrize("config", ["1:0:0", None], ids=["traced", "off"])
@pytest.mark.parametrize("where", ["main", "thread"])
@pytest.mark.parametrize("way", WAYS)
def test_status_output_and_exit_handlers_are_the_native_ones(session, way, where, config):
    arguments = [way] if where == "main" else [way, where]
    if config is None:
        session.configure(without=("QELIX_TRACE_PTHREAD", "QELIX_TRACE_SYSCALL"))
    native = session.native("ends", *arguments)
    if where == "main":
        assert native.status == STATUS[way]
    run = session.run("ends", *arguments)
    assert lines_without_address(run) == lines_without_address(native)
    assert (run.status, run.err) == (native.status, native.err)


@pytest.mark.parametrize("where", ["main", "thread"])
@pytest.mark.parametrize("way", [way for way in WAYS if way not in UNANNOUNCED])
def test_all_data_is_in_the_files(session, way, where):
    run = session.run("ends", *([way] if where == "main" else [way, where]))
    assert_files_whole(run)
    ((address,),) = told(run, "address")
    # what a process does after it survived its abort may go unrecorded
    assert work_of(run, int(address)) == (1000 if where == "main" else 1100)
    ends = [record.tid for record in run.trace() if record.type == records.THREAD_END]
    assert len(ends) == len(set(ends))
    if where == "main":
        assert ends == [run.pid]


@pytest.mark.parametrize("way", ["_exit_in_malloc", "_exit_in_work", "abort_in_work", "exit_in_work"])
def test_the_end_may_come_in_a_signal_handler_at_any_instruction(session, way):
    native = session.native("ends", way, "repeated")
    # a child that ended otherwise is told
    assert native.status == 50 and b"status" not in native.out
    run = session.run("ends", way, "repeated")
    assert (run.status, run.out, run.err) == (50, native.out, b"")
    for pid in session.traced_pids():
        session.relative(pid).assert_all_files_parse()


def test_the_records_before_an_end_in_a_handler_are_there(session):
    session.run("ends", "_exit_in_work", "repeated")
    counts = [len(session.relative(pid).trace()) for pid in session.traced_pids()]
    assert len(counts) == 151
    # each has at least its proc record and its thread's end, most have worked
    assert min(counts) >= 1
    assert sum(count > 100 for count in counts) > 30
