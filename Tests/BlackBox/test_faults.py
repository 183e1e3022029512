"""Faults inside of the agent, made by an object preloaded ahead of it: the program always ends as natively."""

import itertools
import re

import pytest

import records
from profile_info import read_profile_info
from session import PROGRAMS, program, wait_for

FAULT_NAMES = re.findall(r"X\(\d+, (\w+),", (PROGRAMS / "faults.list").read_text())
EVERY_MESSAGE = [re.compile(text) for text in (
    r"Failed to get the symbol address for function \(\w+\)\.",
    r"Failed to find the handles\.",
    r"Failed to allocate memory for profile info in process \(\d+\)\.",
    r"Failed to open log and error file in process \(\d+\)\.",
    r"Qelix : Failed to initialize the constructor for pid \(\d+\)\.")]


def run_with(session, fault, *command, **env):
    """The program `hammer 2 1500` unless another is named: two threads that change buffers several times."""
    mark = session.root / "fault happened"
    mark.unlink(missing_ok=True)
    run = session.run(*(command or ("hammer", 2, 1500)), ahead=[program("faults.so")],
                      env={"ZORV_TEST_FAULT": fault, "ZORV_TEST_FAULT_MARK": mark, **env})
    run.fault_happened = mark.exists()
    return run


def assert_program_unharmed(run, what):
    assert (run.status, run.out) == (5, b"hammered\n"), f"{what}: {run.err!r}"
    for line in run.err.decode().splitlines():
        assert any(message.fullmatch(line) for message in EVERY_MESSAGE), f"{what}: {line}"


def is_whole(path):
    return path.exists() and path.stat().st_size >= records.FILE_HEADER_SIZE


# ---- every function, every call ------------------------------------------------------------------------------

@pytest.mark.parametrize("lasting", ["", "+"], ids=["once", "from then on"])
@pytest.mark.parametrize("name", ["ZorvUmaMalloc", "ZorvUmaCalloc", "ZorvUmaStrdup"])
def test_no_memory_at_each_allocation(session, name, lasting):
    session.configure_sampling(("QELIX_CALLSTACK_COLLECTION", 1), ("QELIX_CALLSTACK_DEPTH", 16))
    for number in itertools.count(1):
        run = run_with(session, f"{name}:{number}{lasting}")
        assert_program_unharmed(run, f"{name} {number}")
        if is_whole(run.trace_path):
            run.assert_all_files_parse()
        if not run.fault_happened:
            return
        assert number < 500


# a thread that adds a buffer claims it as any other, until it has one: claims that fail for ever do not happen
@pytest.mark.parametrize("fault", [f"{name}:{number}" for name in FAULT_NAMES
                                   for number in ("1", "2", "3", "1+")
                                   if name + number != "ZorvUmaGetFreeBuffer1+"])
def test_a_failing_function_never_harms_the_program(session, fault):
    session.configure_sampling(("QELIX_CALLSTACK_COLLECTION", 1))
    assert_program_unharmed(run_with(session, fault), fault)


@pytest.mark.parametrize("mode", ["fail", "short"])
@pytest.mark.parametrize("target", [".umt", ".ums", ".meta", ".txt", ""])
def test_writes_that_fail_or_are_short_never_harm_the_program(session, target, mode):
    session.configure_sampling()
    for number in ("1", "2", "3", "1+", "2+", "3+"):
        run = run_with(session, f"ZorvUmaWrite:{number}", ZORV_TEST_WRITE_TO=target, ZORV_TEST_WRITE_MODE=mode)
        assert run.fault_happened or target in (".meta", ".ums")
        assert_program_unharmed(run, f"write {number}")


# ---- the messages of a start that fails ----------------------------------------------------------------------

CONFIG = "Failed to read config file in process ({pid})"


@pytest.mark.parametrize("fault, texts", [
    ("ZorvUmaFileOpen:1+", ["Failed to open config file.", CONFIG]),
    ("ZorvUmaAllocateCsBuf:1", [CONFIG]),
    ("ZorvUmaSemInit:1+", ["Failed to initialize the semaphore."]),
    ("ZorvUmaShmOpen:1+", ["Failed to Initialize the shared memory."]),
    ("ZorvUmaFtruncate:1+", ["Failed to Initialize the shared memory."]),
    ("ZorvUmaInitSharedMemory:1+", ["Failed to Initialize the shared memory."]),
    ("ZorvUmaCreateQueue:1+", ["Failed to create the queue."]),
    ("ZorvUmaPthreadCreate:1+", ["Failed to create a writer thread in process ({pid})"]),
    ("ZorvUmaGetHostName:2", ["Failed to get hostname : File name too long.", CONFIG]),
    ("fnOpenFile:3", ["Failed to open the file ({trace}) : Permission denied.", CONFIG]),
    ("fnOpenFile:4", ["Failed to open the file ({meta}) : Permission denied.", CONFIG]),
    ("ZorvUmaInsertIntoList:1", ["Failed to insert the buffer into list", CONFIG]),
])
def test_a_failed_start_says_why_and_the_program_runs_untraced(session, fault, texts):
    run = run_with(session, fault)
    names = {"pid": run.pid, "trace": run.trace_path, "meta": run.metadata_path}
    assert run.log_texts("ERROR") == [text.format(**names) for text in texts]
    assert run.err.decode() == f"Qelix : Failed to initialize the constructor for pid ({run.pid}).\n"
    assert (run.status, run.out) == (5, b"hammered\n")
    assert not is_whole(run.trace_path)


@pytest.mark.parametrize("fault", ["ZorvUmaGetHostName:1", "ZorvUmaGetCurrentThreadName:1",
                                   "fnOpenFile:1", "fnOpenFile:2"])
def test_without_its_log_the_agent_does_not_start(session, fault):
    run = run_with(session, fault)
    assert run.err.decode() == (f"Failed to open log and error file in process ({run.pid}).\n"
                                f"Qelix : Failed to initialize the constructor for pid ({run.pid}).\n")
    assert (run.status, run.out) == (5, b"hammered\n")


def test_without_libcs_handle_the_agent_does_not_start(session):
    run = run_with(session, "ZorvUmaGetLibHandles:1+")
    assert (run.status, run.out, run.err) == (5, b"hammered\n", b"Failed to find the handles.\n")


@pytest.mark.parametrize("fault", ["ZorvUmaAllocateProfileInfo:1+", "ZorvUmaAllocateThreadInfo:1+"])
def test_without_its_records_the_agent_does_not_start_and_says_nothing(session, fault):
    run = run_with(session, fault)
    assert (run.status, run.out, run.err) == (5, b"hammered\n", b"")


def test_each_message_about_memory_is_written_by_some_allocation(session):
    session.configure_sampling(("QELIX_CALLSTACK_COLLECTION", 1), ("QELIX_CALLSTACK_DEPTH", 16))
    texts = set()
    for name in ("ZorvUmaMalloc", "ZorvUmaCalloc"):
        for number in itertools.count(1):
            run = run_with(session, f"{name}:{number}")
            if not run.fault_happened:
                break
            has_log = any(session.root.glob(f".log/*_{run.pid}.txt"))
            said = run.err.decode().splitlines() + (run.log_texts("ERROR") if has_log else [])
            texts |= {re.sub(r"\d+", "N", text) for text in said}
    assert {
        "Failed to allocate memory for profile info in process (N).",
        "Failed to allocate memory to hold ket and values from config file.",
        "Failed to allocate the trace cs buffer in pid (N) and tid (N).",
        "Failed to allocate the sample cs buffer in pid (N) and tid (N).",
        "Failed to allocate the memory for buffer",
        "Failed to allocate memoey in the thread (N).",
        "Failed to allocate memory for Thread info in process (N).",
        "Failed to initialize the thread (N).",
    } - texts == set()


# ---- shared memory -------------------------------------------------------------------------------------------

def test_an_object_that_cannot_be_sized_is_removed(session):
    run_with(session, "ZorvUmaFtruncate:1+")
    assert not session.block.path.exists()


def test_a_failed_mapping_counts_as_success_and_its_flags_read_as_unset(session):
    session.block.pause(7)
    session.block.stop()
    run = run_with(session, "ZorvUmaMmap:1+", "hammer", 1, 100)
    run.assert_healthy(5)
    assert run.fault_happened
    assert len(run.calls(records.LOCK_MUTEX)) == 100
    assert not session.block.path.exists()


# ---- buffers, queue, semaphore, writer -----------------------------------------------------------------------

def test_a_record_for_which_there_is_no_buffer_is_counted_once_and_logged(session):
    run = session.start("stepper", ahead=[program("faults.so")],
                        env={"ZORV_TEST_FAULT": "ZorvUmaGetFreeBuffer:1+,ZorvUmtAllocateNewBuffer:1+"})
    run.tell("lock 10")
    run.expect("done")
    run.finish()
    assert (run.status, run.err) == (3, b"")
    assert run.trace() == []
    # the proc record, ten calls, the thread's end
    assert "Lost trace records count = 12" in run.log_texts("INFO")
    ids = f"({run.pid} : {run.pid})"
    assert set(run.log_texts("ERROR")) == {f"Failed to write the header for record ({kind})."
                                           for kind in (records.PROC, records.PTHREAD, records.THREAD_END)}
    warnings = run.log_texts("WARN")
    assert set(warnings) == {
        f"Failed to write record header, buffer is not allocated in process ({run.pid}) thread ({run.pid}).",
        f"Failed to cache pthread record for process {ids}",
        f"Failed to write pthread record for process {ids}"}
    assert warnings.count(f"Failed to cache pthread record for process {ids}") == 10
    assert warnings.count(f"Failed to write pthread record for process {ids}") == 10


def test_with_all_sample_buffers_in_use_sample_records_are_lost_silently_and_block_nobody(session):
    # the stream's own eight buffers and no more: 21 threads are alive at once
    session.configure_sampling()
    run = session.start("hammer", 20, 0, ahead=[program("faults.so")],
                        env={"ZORV_TEST_FAULT": "ZorvUmaCreateBuffers:3+"})
    run.expect("running")
    run.tell("enough")
    run.finish()
    assert (run.status, run.err) == (5, b"")
    text = run.log_texts("INFO")[-1]
    lost = int(re.fullmatch(r"Lost sample records count = (\d+)", text).group(1))
    assert lost >= 13
    assert len(run.samples()) + lost == 21 * 2
    assert not any("record" in text for text in run.log_texts("ERROR", "WARN"))
    # the trace stream grew instead
    assert "Lost trace records count = 0" in run.log_texts("INFO")


@pytest.mark.parametrize("fault, text", [
    ("ZorvUmaEnqueue:1+", "Failed to enqueue the buffer."),
    ("ZorvUmaEnqueue:1", "Failed to enqueue the buffer."),
    ("ZorvUmaSemPost:1+", "Failed to perform post on semaphore."),
    ("ZorvUmaSemPost:2", "Failed to perform post on semaphore."),
    ("ZorvUmaAllocateThreadInfo:2", "Failed to allocate memory in writer thread."),
])
def test_records_that_miss_the_writer_are_written_at_the_end(session, fault, text):
    run = session.start("stepper", ahead=[program("faults.so")], env={"ZORV_TEST_FAULT": fault})
    run.tell("lock 3000")
    run.expect("done")
    run.finish()
    assert (run.status, run.err) == (3, b"")
    assert set(run.log_texts("ERROR")) == {text}
    assert len(run.calls(records.LOCK_MUTEX)) == 3000
    assert "Lost trace records count = 0" in run.log_texts("INFO")
    run.assert_all_files_parse()


@pytest.mark.parametrize("failing", [2, 3])
def test_a_buffer_whose_write_failed_is_written_again_at_the_end_and_never_reused(session, failing):
    run = session.start("stepper", ahead=[program("faults.so")],
                        env={"ZORV_TEST_FAULT": f"ZorvUmaWrite:{failing}", "ZORV_TEST_WRITE_TO": ".umt"})
    run.tell("lock 8000")
    run.expect("done")
    run.finish()
    assert (run.status, run.err) == (3, b"")
    assert run.log_texts("ERROR") == ["Failed to write buffer from global list to file."]
    times = [record.start for record in run.trace()]
    assert len(times) == len(set(times)) == 8002
    # its records come after later ones
    assert times != sorted(times)


def test_writes_that_always_fail_lose_the_data_and_say_so(session):
    run = run_with(session, "ZorvUmaWrite:2+", ZORV_TEST_WRITE_TO=".umt")
    assert_program_unharmed(run, "write")
    assert set(run.log_texts("ERROR")) == {"Failed to write buffer from global list to file.",
                                           "Failed to write buffer from global array to file."}
    assert run.trace() == []


@pytest.mark.parametrize("target, fault, text", [
    (".umt", "ZorvUmaWrite:1", "Failed to write the header into tracing file in process ({pid})."),
    (".ums", "ZorvUmaWrite:1", "Failed to write the header into sampling file in process ({pid})."),
    (".meta", "ZorvUmaWrite:1", "Failed to write the header into metadata file in process ({pid})."),
    (".ums", "ZorvUmaWrite:2", "Failed to write pmc meta data header."),
    (".ums", "ZorvUmaWrite:3", "Failed to write pmc meta data."),
])
@pytest.mark.parametrize("mode", ["fail", "short"])
def test_a_header_that_cannot_be_written_is_logged_and_the_start_goes_on(session, target, fault, text, mode):
    session.configure_sampling(("QELIX_PMC_EVENTS", "1"))
    run = run_with(session, fault, ZORV_TEST_WRITE_TO=target, ZORV_TEST_WRITE_MODE=mode)
    assert (run.status, run.out) == (5, b"hammered\n")
    assert text.format(pid=run.pid) in run.log_texts("ERROR")
    assert any(line.startswith("Writer thread id") for line in run.log_texts("INFO"))


def test_log_lines_that_cannot_be_written_are_dropped(session):
    run = run_with(session, "ZorvUmaWrite:1+", ZORV_TEST_WRITE_TO=".txt")
    assert_program_unharmed(run, "log")
    assert run.log() == []
    assert len(run.calls(records.LOCK_MUTEX)) == 3000


# ---- threads, names, clock -----------------------------------------------------------------------------------

def test_a_thread_without_memory_for_its_record_does_not_run_its_routine(session):
    # first the main thread's record, then the writer's
    run = session.start("stepper", ahead=[program("faults.so")],
                        env={"ZORV_TEST_FAULT": "ZorvUmaAllocateThreadInfo:3"})
    wait_for(run.writer, "a thread of the writer's name")
    run.tell("thread 100")
    run.expect("thread 0")
    run.finish()
    assert (run.status, run.err) == (3, b"")
    (text,) = run.log_texts("ERROR")
    assert re.fullmatch(r"Failed to allocate memoey in the thread \(\d+\)\.", text)
    assert run.calls(records.LOCK_MUTEX) == []


def test_a_thread_that_cannot_be_initialised_runs_and_is_logged(session):
    run = run_with(session, "ZorvUmaInitThread:1+", "hammer", 1, 100)
    assert (run.status, run.out, run.err) == (5, b"hammered\n", b"")
    (text,) = run.log_texts("ERROR")
    assert re.fullmatch(r"Failed to initialize the thread \(\d+\)\.", text)
    assert len(run.calls(records.LOCK_MUTEX)) == 100


def test_a_thread_without_call_stack_buffers_has_its_proc_record_all_the_same(session):
    run = run_with(session, "ZorvUmaAllocateCsBuf:2", "hammer", 1, 100)
    assert (run.status, run.err) == (5, b"")
    (text,) = run.log_texts("ERROR")
    tid = int(re.fullmatch(r"Failed to initialize the thread \((\d+)\)\.", text).group(1))
    assert {record.tid for record in run.trace() if record.type == records.PROC} == {run.pid, tid}


def test_a_process_whose_main_thread_has_no_readable_name_gets_no_start_up_proc_record(session):
    run = run_with(session, "ZorvUmaGetCurrentThreadName:2", "hammer", 1, 100)
    run.assert_healthy(5)
    assert [record.tid == run.pid for record in run.trace() if record.type == records.PROC] == [False]


def test_a_name_that_the_kernel_does_not_tell_is_read_from_proc(session):
    run = run_with(session, "ZorvUmaGetThreadName:1+", "hammer", 1, 100)
    run.assert_healthy(5)
    assert [record.name for record in run.trace() if record.type == records.PROC] == [b"hammer"] * 2


def test_a_clock_that_fails_gives_times_of_0(session):
    run = run_with(session, "ZorvUmaClockGetTime:1+", "hammer", 1, 100)
    run.assert_healthy(5)
    assert run.fault_happened
    assert len(run.calls(records.LOCK_MUTEX)) == 100
    assert {(record.start, record.end) for record in run.trace()} == {(0, 0)}


def test_exit_handler_that_cannot_be_registered(session):
    run = run_with(session, "ZorvUmaAtexit:1+")
    run.assert_healthy(5)
    assert len(run.calls(records.LOCK_MUTEX)) == 3000


# ---- names that cannot be looked up --------------------------------------------------------------------------

LOOKUPS = """
malloc calloc free open close fsync read write readlink stat truncate ftruncate mmap munmap fopen fgets
fflush fclose ioctl sched_getcpu getenv prctl gethostname getpid pthread_create pthread_mutex_init
pthread_mutex_lock pthread_mutex_unlock pthread_self pthread_setaffinity_np pthread_getname_np pthread_join
pthread_cancel pthread_exit sysconf sigaction kill atexit on_exit exit sem_init sem_post sem_timedwait
clock_gettime timer_create timer_settime timer_delete strtok strncmp strcmp strtol strtoul strtoull strcpy
strdup strlen strerror strstr strchr strcat atoi strcspn memset memcpy vprintf vfprintf vsprintf vsnprintf
vsscanf shm_open shm_unlink basename strncpy getrlimit setrlimit sched_yield pthread_sigmask __cxa_atexit
pthread_setcancelstate
""".split()


def test_an_object_that_answers_look_ups_in_its_own_name_does_not_lead_the_agent_to_itself(session):
    run = session.run("hammer", 2, 1500, ahead=[program("forward_lookups.so")])
    run.assert_healthy(5)
    assert len(run.calls(records.LOCK_MUTEX)) == 3000


def test_without_malloc_the_missing_name_and_the_missing_memory_are_told(session):
    run = session.run("plain", "argument", ahead=[program("fail_dlsym.so")],
                      env={"ZORV_TEST_LOOKUP": "malloc", "ZORV_TEST_LOOKUP_WHILE": session.root})
    assert run.err.decode().splitlines()[:2] == [
        "Failed to get the symbol address for function (malloc).",
        f"Failed to allocate memory for profile info in process ({run.pid})."]


def test_an_object_that_stands_in_for_the_opening_sees_its_numbers_used(session):
    def log_number(**options):
        return read_profile_info(session, session.config_path.read_text(), **options).log_fd

    assert log_number() > 100, "out of the program's way"
    assert log_number(ahead=[program("faults.so")]) < 16


@pytest.mark.parametrize("name", LOOKUPS)
def test_a_name_that_cannot_be_looked_up_leaves_the_program_as_it_is(session, name):
    native = session.native("plain", "argument")
    run = session.run("plain", "argument", ahead=[program("fail_dlsym.so")],
                      env={"ZORV_TEST_LOOKUP": name, "ZORV_TEST_LOOKUP_WHILE": session.root})
    assert (run.status, run.out) == (native.status, native.out)
    extra = [line for line in run.err.decode().splitlines() if line != "to standard error"]
    assert [line for line in extra if not any(message.fullmatch(line) for message in EVERY_MESSAGE)] == []
