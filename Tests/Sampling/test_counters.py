"""Counter values in samples: the kernel's software events stand in for those of a processor."""

import pytest

import records
from sampling import all_records, assert_sound, complaints, said, samples_of, tell
from session import program, wait_for

TASK_CLOCK, PAGE_FAULTS, CONTEXT_SWITCHES = 1, 2, 3
EVENTS = [TASK_CLOCK, PAGE_FAULTS, CONTEXT_SWITCHES]


def counting(session, **env):
    """How a program is started whose core counters are software events of the kernel."""
    return {"ahead": [program("timer_faults.so"), program("counters.so")],
            "env": {"ZORV_TEST_CPU_TYPE": "1\n", "ZORV_TEST_OPENED": session.root / "opened", **env}}


def opened(session):
    """The fields of each opening of a counter."""
    path = session.root / "opened"
    lines = path.read_text().splitlines() if path.exists() else []
    return [dict(field.split("=") for field in line.split()) for line in lines]


@pytest.fixture
def counted_session(session):
    session.count = lambda events, **changed: session.configure(
        ("QELIX_PMC_EVENTS", ",".join(map(str, events))),
        ("QELIX_ENCODED_EVENTS", ",".join(str(event + 0x1000) for event in events)), **changed)
    session.count(EVENTS)
    return session


def can_count(session):
    """Whether the kernel lets anybody count here; said in the log where it does not."""
    run = session.run_sampler("sample 1", **counting(session))
    return run.status == 3 and not complaints(session)


@pytest.fixture(autouse=True)
def _needs_counters(tmp_path):
    from sampling import SamplingSession
    probe = SamplingSession(tmp_path / "probe")
    probe.configure(("QELIX_PMC_EVENTS", TASK_CLOCK))
    is_possible = can_count(probe)
    probe.close()
    if not is_possible:
        pytest.skip("the kernel refuses counters here")


def test_a_sample_with_three_counters_has_144_bytes_and_8_for_each_frame(counted_session):
    run = counted_session.run_sampler("sample 10", "thread 10", **counting(counted_session))
    assert_sound(run, 3)
    assert len(samples_of(run)) == 20
    for sample in samples_of(run):
        assert sample.size == 144 + 8 * len(sample.stack)
        assert sample.flags == records.FLAG_CALL_STACKS | records.FLAG_COUNTERS
        assert len(sample.events) == 3


def test_one_frame_and_two_counters_make_120_bytes(counted_session):
    counted_session.count([TASK_CLOCK, PAGE_FAULTS])
    options = counting(counted_session, LD_LIBRARY_PATH=program("made_up"), ZORV_TEST_FRAMES=1)
    run = counted_session.run_sampler("sample 3", **options)
    assert_sound(run, 3)
    assert [sample.size for sample in samples_of(run)] == 3 * [120]


def test_the_metadata_record_names_the_events(counted_session):
    run = counted_session.run_sampler("sample 1", **counting(counted_session))
    metadata = all_records(run)[0]
    assert (metadata.type, metadata.tid) == (records.SAMPLE_METADATA, run.pid)
    assert metadata.events == tuple(event + 0x1000 for event in EVENTS)


def test_counters_count_what_the_thread_did_since_its_last_sample(counted_session):
    run = counted_session.run_sampler("sample 1", "burn 200", "sample 1", "sample 1", "thread 1",
                                      **counting(counted_session))
    assert_sound(run, 3)
    first, burned, idle = samples_of(run, run.pid)
    milliseconds = burned.events[0].count / 1e6
    assert 190 < milliseconds
    assert idle.events[0].count < burned.events[0].count / 4
    assert first.events[0].id == burned.events[0].id
    assert len({event.id for event in first.events}) == 3
    (thread,), = said(run, "thread")
    (alone,) = samples_of(run, int(thread))
    assert not {event.id for event in alone.events} & {event.id for event in first.events}
    for sample in samples_of(run):
        for event in sample.events:
            assert 0 < event.running <= event.enabled
    assert burned.events[0].enabled > first.events[0].enabled


def test_real_timer_and_counters_together(counted_session):
    counted_session.count(EVENTS, QELIX_TIMER_INTERVAL=4000000)
    run = counted_session.run_sampler("burn 300", "burn-thread 300", **counting(counted_session))
    assert_sound(run, 3)
    clocked = [sample.events[0].count / 1e6 for sample in samples_of(run)]
    assert len(clocked) > 20
    assert 500 < sum(clocked) < 5000


@pytest.mark.parametrize("watchdog, groups", [("0\n", [6, 2]), ("1\n", [5, 3])])
def test_eight_counters_form_two_groups(counted_session, watchdog, groups):
    counted_session.count([TASK_CLOCK] * 8)
    run = counted_session.run_sampler("sample 2", **counting(counted_session, ZORV_TEST_WATCHDOG=watchdog))
    assert_sound(run, 3)
    leaders = [i for i, counter in enumerate(opened(counted_session)) if counter["leader"] == "1"]
    assert leaders == [0, groups[0]]
    for sample in samples_of(run):
        assert len(sample.events) == 8
        # members of a group are read at once: they share their totals
        assert len({event.enabled for event in sample.events[:groups[0]]}) == 1


def test_64_counters_are_read(counted_session):
    counted_session.count([TASK_CLOCK] * 64)
    run = counted_session.run_sampler("sample 2", **counting(counted_session, ZORV_TEST_WATCHDOG="0\n"))
    assert_sound(run, 3)
    for sample in samples_of(run):
        assert len({event.id for event in sample.events}) == 64
        assert sample.size == 48 + 32 * 64 + 8 * len(sample.stack)


def test_a_pause_at_the_start_leaves_the_counters_off(counted_session):
    counted_session.block.pause(1)
    run = counted_session.start("sampler", **counting(counted_session))
    tell(run, "burn 100", "sample 2")
    counted_session.block.resume()
    # the writer starts them with its next pass, within milliseconds
    tell(run, "sleep 100", "sample 1", "burn 50", "sample 1")
    run.finish()
    assert_sound(run, 3)
    started, burned = samples_of(run)
    assert started.events[0].count < 90e6, "the counters ran during the pause"
    assert burned.events[0].count > 45e6


def test_pause_and_resume_through_the_writer(counted_session):
    run = counted_session.start("sampler", **counting(counted_session))
    tell(run, "sample 1")
    for pause_id in 1, 2, 3:
        counted_session.block.pause(pause_id)
        tell(run, "sleep 50", "burn 100")
        counted_session.block.resume()
        tell(run, "sleep 50", "sample 1")
    tell(run, "burn 50", "sample 1")
    run.finish()
    assert_sound(run, 3)
    first, *paused, burned = samples_of(run)
    assert len(paused) == 3
    for sample in paused:
        assert sample.events[0].count < 60e6, "the counters ran during the pause"
    assert burned.events[0].count > 45e6


def test_pause_and_resume_after_threads_have_ended(counted_session):
    run = counted_session.start("sampler", **counting(counted_session))
    tell(run, *["thread 2"] * 20)
    counted_session.block.pause(1)
    tell(run, "sleep 50", "burn 100")
    counted_session.block.resume()
    tell(run, "sleep 50", "sample 1", "thread 2", "burn 50", "sample 1")
    run.finish()
    assert_sound(run, 3)
    paused, burned = samples_of(run, run.pid)
    assert paused.events[0].count < 90e6
    assert burned.events[0].count > 45e6


def test_a_forked_child_counts_for_itself(counted_session):
    counted_session.count(EVENTS, QELIX_PROFILE_CHILDREN=1)
    run = counted_session.run_sampler("sample 1", "fork 3", "fork-thread 2", "sample 1",
                                      **counting(counted_session))
    assert_sound(run, 3)
    ids = {event.id for sample in samples_of(run, run.pid) for event in sample.events}
    children = [int(pid) for pid, in said(run, "child")]
    for child in children:
        own = {event.id for sample in samples_of(run, pid=child) for event in sample.events}
        assert own and not own & ids


# ---- failures --------------------------------------------------------------------------------------------

START = [
    ("ZorvAllocateProcessInfo", "Failed to allocate the memory for process info in PMC agent - NO ERROR."),
    ("ZorvInitializePcmAgent", "Failed to Initialize core pmc collection agent - NO ERROR."),
    ("ZorvConfigurePerfEvent", "Failed to configure core pmc collection agent - ."),
    ("ZorvStartPerfEvent", "Failed to start core pmc collection agent - ."),
]


def errors(run):
    return [(line.function, line.text) for line in run.log() if line.level == "ERROR"]


@pytest.mark.parametrize("function, message", START)
def test_counters_that_fail_at_the_start_are_said(counted_session, function, message):
    counted_session.count(EVENTS, QELIX_TIMER_INTERVAL=4000000)
    run = counted_session.run_sampler("burn 100", **counting(counted_session, ZORV_TEST_FAULT=f"{function}:1"))
    assert run.status == 3
    assert run.err.decode() == f"Qelix : Failed to initialize the constructor for pid ({run.pid}).\n"
    assert errors(run)[0] == ("ZorvUmsStartPcmCollection", message)
    assert samples_of(run) == []


@pytest.mark.parametrize("function, message", START[1:])
def test_counters_that_fail_in_a_thread_leave_it_without_a_timer(counted_session, function, message):
    counted_session.count(EVENTS, QELIX_TIMER_INTERVAL=4000000)
    options = counting(counted_session, ZORV_TEST_FAULT=f"{function}:2")
    run = counted_session.run_sampler("burn-thread 100", "burn 100", **options)
    assert (run.status, run.err) == (3, b"")
    (thread,), = said(run, "thread")
    assert errors(run)[:2] == [("ZorvUmsStartPcmCollection", message),
                               ("ZorvUmtPthreadCreateWrapper", f"Failed to initialize the thread ({thread}).")]
    assert samples_of(run, int(thread)) == []
    assert len(samples_of(run, run.pid)) > 5


@pytest.mark.parametrize("function, caller, message", [
    ("ZorvStopPerfEvent", "ZorvUmaFiniThread", "Failed to stop the PMC collection - "),
    ("ZorvFiniPcmAgent", "ZorvUmaFiniThread", "Failed to destroy the PMC collection - "),
    ("ZorvStopPerfEventAllThreads", "ZorvUmaFiniProcess", "Failed to stop the PMC collection - "),
])
def test_counters_that_fail_at_an_end_are_said(counted_session, function, caller, message):
    run = counted_session.run_sampler("thread 1", **counting(counted_session, ZORV_TEST_FAULT=f"{function}:1"))
    assert (run.status, run.err) == (3, b"")
    assert errors(run) == [(caller, message)]


@pytest.mark.parametrize("function, word", [("ZorvStopPerfEventAllThreads", "pause"),
                                            ("ZorvStartPerfEventAllThreads", "resume")])
def test_a_failed_pause_or_resume_is_said_once_for_each_change(counted_session, function, word):
    run = counted_session.start("sampler", **counting(counted_session, ZORV_TEST_FAULT=f"{function}:1+"))
    message = f"Failed to {word} the PMC event collection - "
    tell(run, "sleep 50")
    for pause_id in 1, 2:
        counted_session.block.pause(pause_id)
        tell(run, "sleep 60")
        counted_session.block.resume()
        tell(run, "sleep 60")
        wait_for(lambda: any(message in text for text in run.log_texts("ERROR")), message)
    run.finish()
    told = [line for line in run.log() if line.level == "ERROR" and line.text.startswith(message)]
    assert {line.function for line in told} == {"ZorvUmaWriterThread"}
    # a failed resume leaves the counters paused: the second pause changes nothing for them
    assert len(told) == 2 if word == "pause" else 1 <= len(told) <= 2


def test_without_room_for_a_counter_the_limit_is_raised_and_it_is_tried_once_more(counted_session):
    import resource
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    lower = min(1024, soft, hard // 2)
    run = counted_session.start("sampler", before=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (lower, hard)),
                                **counting(counted_session, ZORV_TEST_NO_ROOM="2"))
    tell(run, "sample 3")
    run.finish()
    assert_sound(run, 3)
    assert [counter["done"] for counter in opened(counted_session)] == ["1", "0", "1", "1"]
    assert [int(counter["soft"]) for counter in opened(counted_session)] == [lower, lower, hard, hard]
    assert len(samples_of(run)) == 3


# Every thread counts, and the program opens files meanwhile.
OPENS = """
import os, threading
def open_two(): print(os.open("/dev/null", 0), os.dup(0), flush=True)
open_two()
for _ in range(3):
    thread = threading.Thread(target=open_two)
    thread.start()
    thread.join()
"""


def test_counters_leave_the_program_its_numbers(counted_session):
    """Those that it gets beside the same object ahead of the agent without counters."""
    def run():
        return counted_session.run("/usr/bin/python3", "-S", "-c", OPENS, ahead=[program("counter_files.so")],
                                   env={"ZORV_TEST_CPU_TYPE": "1\n"})
    counting_run = run()
    if any("Permission denied" in line for line in complaints(counted_session)):
        pytest.skip("the kernel refuses these counters here")
    counted_session.configure()
    without = run()
    assert (counting_run.status, counting_run.err, counting_run.lines()) == (0, b"", without.lines())


def test_no_room_for_counters_ends_the_launcher_and_the_program(counted_session):
    import subprocess
    launcher = subprocess.Popen(["sleep", "60"])
    counted_session.count(EVENTS, QELIX_LAUNCH_PROCESS_ID=launcher.pid)
    run = counted_session.start("sampler", **counting(counted_session, ZORV_TEST_NO_ROOM="1+")).finish()
    assert run.status == 0
    assert b"ready" not in run.out
    assert run.error_path.read_text() == "2"
    assert launcher.wait(timeout=20) == -9
    assert "Failed to configure core pmc collection agent - configureCpuPmcEvent failed : Too many open files.." in \
        run.log_texts("ERROR")
    # the retry is one
    assert 1 <= len(opened(counted_session)) <= 2


def test_a_refused_counter_says_why_and_the_program_runs_on(counted_session):
    # no processor has a counter of this kind
    run = counted_session.run_sampler("burn 50", "lock 10", **counting(counted_session, ZORV_TEST_CPU_TYPE="97\n"))
    assert run.status == 3
    assert run.err.decode() == f"Qelix : Failed to initialize the constructor for pid ({run.pid}).\n"
    assert errors(run)[0][1].startswith(
        "Failed to configure core pmc collection agent - configureCpuPmcEvent failed : ")
    assert run.error_path.read_bytes() == b""
