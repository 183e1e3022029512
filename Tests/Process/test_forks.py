"""Children of every kind behave as natively, and the data of parent and child reaches the files of each."""

import os

import pytest

import records
from processes import assert_files_whole, said_work, told, without_numbers, work_of
from session import program, wait_for

STATUS = 20
# the child runs on with records of its own
PROFILED = {"fork": 21, "thread": 22, "threads_in_child": 23, "exec": 26, "vfork_exec": 26, "vfork_redirect": 26}
EVERY_MODE = ["fork", "thread", "threads_in_child", "nested", "loop", "result", "exec", "vfork_exec", "vfork_exit",
              "vfork_raw_exit", "vfork_redirect", "spawn", "system", "popen", "raw_clone", "clone", "inner_fork",
              "forkpty"]
NOT_SAMPLED = "Process id ({}) is not sampled or traced."


@pytest.mark.parametrize("children", ["profiled", "not profiled", "off", "stopped"])
@pytest.mark.parametrize("mode", EVERY_MODE)
def test_output_and_status_are_the_native_ones(session, mode, children):
    native = session.native("forks", mode)
    if children == "not profiled":
        session.without_children()
    if children == "off":
        session.configure(without=("QELIX_TRACE_PTHREAD", "QELIX_TRACE_SYSCALL"))
    if children == "stopped":
        session.block.stop()
    run = session.run("forks", mode)
    assert sorted(without_numbers(run)) == sorted(without_numbers(native))
    assert (run.status, run.err) == (native.status, native.err)


@pytest.mark.parametrize("mode", EVERY_MODE)
def test_the_work_of_every_process_is_in_its_own_file(session, mode):
    run = session.run("forks", mode)
    assert run.err == b""
    for pid, (calls, address) in said_work(run).items():
        relative = session.relative(pid)
        assert_files_whole(relative)
        assert work_of(relative, address) == calls, pid
    for pid in session.traced_pids():
        session.relative(pid).assert_all_files_parse()


@pytest.mark.parametrize("mode", PROFILED)
def test_a_profiled_child_has_its_own_proc_record_and_thread_end(session, mode):
    run = session.run("forks", mode)
    ((child, status),) = told(run, "child")
    assert int(status) == PROFILED[mode]
    relative = session.relative(child)
    kinds = [record.type for record in relative.trace() if record.tid == relative.pid]
    assert kinds[0] == records.PROC and kinds[-1] == records.THREAD_END
    assert run.pid not in {record.pid for record in relative.trace()}


def fork_address(run):
    """The function of the records that are written in the parent alone."""
    return [record for record in run.trace() if record.type == records.SYSCALL and record.kind == 6]


def test_fork_is_recorded_in_the_parent_under_class_other(session):
    run = session.run("forks", "fork")
    ((child, _),) = told(run, "child")
    forks = fork_address(run)
    # the fork, and nothing else of that class
    assert [(record.flags, record.value) for record in forks] == [(0, 0)]
    assert fork_address(session.relative(child)) == []
    session.configure(QELIX_TRACE_SYSCALL=f"1:{3600 * 10**9}")
    assert fork_address(session.run("forks", "fork")) == []
    session.configure(QELIX_TRACE_SYSCALL="0")
    assert fork_address(session.run("forks", "fork")) == []
    session.configure()
    session.block.pause(4)
    assert fork_address(session.run("forks", "fork")) == []


def test_each_of_200_children_has_files_of_its_own(session):
    run = session.run("forks", "loop")
    assert_files_whole(run)
    pids = session.traced_pids()
    assert len(pids) == 201
    address = said_work(run)[run.pid][1]
    for pid in pids - {run.pid}:
        assert_files_whole(session.relative(pid))
        assert work_of(session.relative(pid), address) == 3


def test_children_forked_among_8_tracing_threads_have_whole_files(session):
    run = session.run("forks", "among_threads")
    assert (run.status, run.err) == (STATUS, b"")
    assert_files_whole(run)
    pids = session.traced_pids() - {run.pid}
    assert len(pids) == 25
    for pid in pids:
        relative = session.relative(pid)
        assert_files_whole(relative)
        assert len([record for record in relative.trace() if record.type == records.SYSCALL]) == 2000


# ---- children that are not profiled --------------------------------------------------------------------------

@pytest.mark.parametrize("mode", ["fork", "thread", "threads_in_child", "forkpty"])
def test_a_child_that_is_not_profiled_writes_nothing_and_logs_one_line_through_its_parents_log(session, mode):
    session.without_children()
    run = session.run("forks", mode)
    ((child, _),) = told(run, "child")
    assert session.traced_pids() == {run.pid}
    lines = [(line.level, line.pid) for line in run.log() if line.text == NOT_SAMPLED.format(child)]
    assert lines == [("INFO", int(child))]
    assert list((session.root / ".log").glob(f"*_{child}.txt")) == []
    assert_files_whole(run)
    calls, address = said_work(run).get(run.pid, (0, 0))
    assert work_of(run, address) == calls


def test_a_program_that_an_unprofiled_child_starts_decides_for_itself(session):
    session.without_children()
    run = session.run("forks", "exec")
    ((child, _),) = told(run, "child")
    assert int(child) in session.traced_pids()


# ---- no memory -----------------------------------------------------------------------------------------------

@pytest.mark.parametrize("fault", ["ZorvUmaAllocateProfileInfo:2+", "ZorvUmaAllocateThreadInfo:2+"])
def test_a_child_without_memory_for_its_records_sees_a_failed_fork(session, fault):
    run = session.run("forks", "result", ahead=[program("faults.so")], env={"ZORV_TEST_FAULT": fault})
    (line,) = [line for line in run.lines() if line.startswith("in the child")]
    assert line.startswith("in the child -1,")
    assert "in the parent 1" in run.lines()
    assert [status for _, status in told(run, "child")] == ["25"]
    assert (run.status, run.err) == (STATUS, b"")
    run.assert_all_files_parse()


def test_a_child_whose_agent_cannot_start_runs_untraced(session):
    native = session.native("forks", "fork")
    run = session.run("forks", "fork", ahead=[program("faults.so")], env={"ZORV_TEST_FAULT": "ZorvUmaCreateQueue:2+"})
    assert without_numbers(run) == without_numbers(native)
    assert run.status == STATUS
    ((child, _),) = told(run, "child")
    assert "Failed to create the queue." in session.relative(child).log_texts("ERROR")


# ---- vfork, and children that fork knows nothing of ----------------------------------------------------------

@pytest.mark.parametrize("mode", ["vfork_exec", "vfork_exit", "vfork_raw_exit", "vfork_redirect"])
def test_a_vfork_child_leaves_its_parents_files_alone(session, mode):
    run = session.run("forks", mode)
    assert_files_whole(run)
    calls, address = said_work(run)[run.pid]
    assert work_of(run, address) == calls
    ends = [record for record in run.trace() if record.type == records.THREAD_END]
    assert [record.tid for record in ends] == [run.pid]
    # a child that ends where it stands is named, with no start time, and does nothing else
    procs = [record for record in run.trace() if record.type == records.PROC]
    assert [record.tid for record in procs if record.start != records.ALL_ONES] == [run.pid]


@pytest.mark.parametrize("mode", ["raw_clone", "clone", "inner_fork"])
def test_a_child_that_fork_knows_nothing_of_leaves_its_parents_files_alone(session, mode):
    run = session.run("forks", mode)
    assert (run.status, run.err) == (STATUS, b"")
    assert_files_whole(run)
    calls, address = said_work(run)[run.pid]
    assert work_of(run, address) == calls
    assert {record.tid for record in run.trace()} == {run.pid}


# ---- daemon --------------------------------------------------------------------------------------------------

def daemons_output(session, mode, agent):
    """The standard output of parent and child; both ends of the tree are waited for through it."""
    run = session.start("forks", mode, agent=agent)
    run.process.stdin.close()
    run.out = run.process.stdout.read()  # ends when the daemon ends
    run.err = run.process.stderr.read()
    run.status = run.process.wait(30)
    return run


@pytest.mark.parametrize("children", ["profiled", "not profiled"])
def test_daemon_gives_the_same_results_and_descriptors_and_keeps_both_processes_data(session, children):
    native = daemons_output(session, "daemon", agent=False)
    if children == "not profiled":
        session.without_children()
    run = daemons_output(session, "daemon", agent=True)
    assert without_numbers(run) == without_numbers(native)
    assert "daemon 0 errno 4242 session 1" in run.lines()
    assert (run.status, run.err) == (0, b"")
    parent, child = said_work(run)
    assert parent == run.pid
    for pid in (parent, child):
        calls, address = said_work(run)[pid]
        if pid == parent or children == "profiled":
            wait_for(lambda: "Lost trace records count = 0" in session.relative(pid).log_texts(), "the daemon's end")
            assert_files_whole(session.relative(pid))
            assert work_of(session.relative(pid), address) == calls
    assert session.traced_pids() == ({parent, child} if children == "profiled" else {parent})


def test_daemon_detaches_as_natively(session):
    told_file = session.root / "told"
    texts = []
    for agent in (False, True):
        daemons_output(session, "daemon_detached", agent=agent)
        wait_for(lambda: told_file.exists() and told_file.read_text().endswith("\n"), "the daemon's line")
        texts.append(told_file.read_text())
        told_file.unlink()
    assert texts[0] == texts[1] == "0 / /dev/null /dev/null /dev/null next 4\n"


def test_the_loader_settings_of_a_session_reach_grandchildren(session):
    run = session.run("/bin/sh", "-c", f"({program('forks')} work; true); {program('forks')} fork")
    assert run.status == STATUS
    for pid, (calls, address) in said_work(run).items():
        assert work_of(session.relative(pid), address) == calls
    assert len(said_work(run)) == 3
    assert os.path.basename(session.relative(run.pid).trace_path)
