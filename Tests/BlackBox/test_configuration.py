"""The configuration file: every key, and how lines, keys and values are taken apart."""

import pytest

import records
from profile_info import EVENTS, STRINGS, SYSCALL_CLASSES, read_profile_info

OFF = (False, 0, False)


@pytest.fixture
def configured(session):
    """Reads a configuration and gives back the agent's record of it. The shared-memory name comes last, so that
    a test's own lines stay in front of it."""

    def read(text, with_shm=True):
        tail = f"\nQELIX_SHM_NAME={session.block.name}\n" if with_shm else ""
        if isinstance(text, bytes):
            return read_profile_info(session, text + tail.encode())
        return read_profile_info(session, text + tail)

    return read


def events_of(info):
    return {name: info.event(name) for name in EVENTS}


def only(value, *names):
    return {name: value if name in names else OFF for name in EVENTS}


def test_defaults(configured):
    info = configured("")
    assert info.uma.profile_children is True
    assert (info.uma.launch_pid, info.uma.mpi_rank, info.uma.call_stack_depth) == (0, 0, 0)
    assert {name: info.strings[name] for name in STRINGS if name != "shm_name"} == \
           {name: "-" for name in STRINGS if name != "shm_name"}
    assert bytes(info.ums) == bytes(len(bytes(info.ums)))
    assert bytes(info.umt) == bytes(len(bytes(info.umt)))


# ---- event values --------------------------------------------------------------------------------------------

@pytest.mark.parametrize("value, event", [
    ("1:500:1", (True, 500, True)),
    ("1:1000:1", (True, 1000, True)),
    ("1", (True, 0, False)),
    ("1:7", (True, 7, False)),
    ("1:7:0", (True, 7, False)),
    ("1:7:1x", (True, 7, True)),
    ("1:7: 1", (True, 7, False)),
    ("1x:7:1", (True, 7, True)),
    ("10:7", (True, 7, False)),
    ("1:12abc:1", (True, 12, True)),
    ("1:abc:1", (True, 0, True)),
    ("1: 12:1", (True, 12, True)),
    ("1:18446744073709551615:1", (True, 2**64 - 1, True)),
    ("1:99999999999999999999999:1", (True, 2**64 - 1, True)),
    ("1:7:1:9:9", (True, 7, True)),
    ("0", OFF),
    ("0:5:1", OFF),
    ("2:5:1", OFF),
    (" 1:5:1", OFF),
    ("x", OFF),
    ("01", OFF),
])
def test_event_value(configured, value, event):
    info = configured(f"QELIX_TRACE_PTHREAD={value}")
    assert events_of(info) == only(event, "PTHREAD")
    assert info.umt.enable is True


def test_line_trace_pthread_1_500_1_enables_with_threshold_500_and_call_stacks_and_turns_tracing_on(configured):
    info = configured("QELIX_TRACE_PTHREAD=1:500:1")
    assert info.event("PTHREAD") == (True, 500, True)
    assert info.umt.enable is True


def test_line_trace_pthread_0_disables_the_event_but_turns_the_stream_on(session, configured):
    text = f"QELIX_UMT_DIR={session.root}/trace\nQELIX_TRACE_PTHREAD=0"
    info = configured(text)
    assert info.event("PTHREAD") == OFF
    assert info.umt.enable is True
    assert [record.type for record in info.run.trace()] == [records.PROC, records.THREAD_END]


def test_an_event_value_overwrites_all_three_members(configured):
    assert configured("QELIX_TRACE_LOCK=1:7:1\nQELIX_TRACE_LOCK=1").event("LOCK") == (True, 0, False)
    assert configured("QELIX_TRACE_LOCK=1:7:1\nQELIX_TRACE_LOCK=0:9:1").event("LOCK") == OFF


@pytest.mark.parametrize("key, reached", [
    ("QELIX_TRACE_PTHREAD", ("PTHREAD",)),
    ("QELIX_TRACE_SYSCALL", SYSCALL_CLASSES),
    ("QELIX_TRACE_WAIT_SLEEP_STATE_SYSCALL", ("SLEEP", "WAIT", "LOCK", "IO_SYNC")),
    ("QELIX_TRACE_SLEEP", ("SLEEP",)),
    ("QELIX_TRACE_LOCK", ("LOCK",)),
    ("QELIX_TRACE_IO_SYNC", ("IO_SYNC",)),
    # keys that begin a name select the first such name
    ("QELIX_TRACE_WAIT", ("SLEEP", "WAIT", "LOCK", "IO_SYNC")),
    ("QELIX_TRACE_WAIT_", ("SLEEP", "WAIT", "LOCK", "IO_SYNC")),
    ("QELIX_TRACE_IO", ("IO_SYNC",)),
    ("QELIX_TRACE_I", ("IO_SYNC",)),
    ("QELIX_TRACE", ("PTHREAD",)),
    ("QELIX_TRACE_P", ("PTHREAD",)),
    ("QELIX", ("PTHREAD",)),
    ("Q", ("PTHREAD",)),
    ("QELIX_TRACE_S", SYSCALL_CLASSES),
    ("QELIX_TRACE_SL", ("SLEEP",)),
    ("QELIX_TRACE_L", ("LOCK",)),
    ("QELIX_T", ("PTHREAD",)),
    # a key that is longer than every name, or differs, selects nothing
    ("QELIX_TRACE_PTHREADS", ()),
    ("QELIX_TRACE_PTHREAD ", ()),
    (" QELIX_TRACE_PTHREAD", ()),
    ("qelix_trace_pthread", ()),
    ("TRACE_PTHREAD", ()),
    ("#QELIX_TRACE_PTHREAD", ()),
])
def test_trace_key(configured, key, reached):
    info = configured(f"{key}=1:9:1")
    assert events_of(info) == only((True, 9, True), *reached)
    assert info.umt.enable is bool(reached)


def test_line_trace_io_configures_io_sync_only_and_the_io_event_stays_as_it_was(configured):
    assert events_of(configured("QELIX_TRACE_IO=1:0:0")) == only((True, 0, False), "IO_SYNC")
    info = configured("QELIX_TRACE_SYSCALL=1:5:1\nQELIX_TRACE_IO=1:0:0")
    assert info.event("IO") == (True, 5, True)
    assert info.event("IO_SYNC") == (True, 0, False)


def test_line_trace_wait_configures_sleep_wait_lock_and_io_sync_alike(configured):
    info = configured("QELIX_TRACE_WAIT=1")
    assert events_of(info) == only((True, 0, False), "SLEEP", "WAIT", "LOCK", "IO_SYNC")


def test_line_trace_configures_the_pthread_event(configured):
    assert events_of(configured("QELIX_TRACE=1")) == only((True, 0, False), "PTHREAD")


def test_later_trace_keys_win_over_copies(configured):
    info = configured("QELIX_TRACE_SYSCALL=1:5:1\nQELIX_TRACE_LOCK=0\nQELIX_TRACE_SLEEP=1:8")
    assert info.event("SLEEP") == (True, 8, False)
    assert info.event("LOCK") == OFF
    assert info.event("WAIT") == info.event("IO") == (True, 5, True)
    info = configured("QELIX_TRACE_SLEEP=1:8\nQELIX_TRACE_SYSCALL=1:5:1")
    assert info.event("SLEEP") == (True, 5, True)


# ---- flags, numbers, lists, paths ----------------------------------------------------------------------------

@pytest.mark.parametrize("value, result", [("1", True), ("1:0", True), ("1x", True), ("10", True), ("0", False),
                                           (" 1", False), ("true", False), ("01", False), ("2", False)])
@pytest.mark.parametrize("key, field", [("QELIX_ENABLE_SAMPLING", "ums.enable"),
                                        ("QELIX_CALLSTACK_COLLECTION", "ums.collect_call_stack"),
                                        ("QELIX_PROFILE_CHILDREN", "uma.profile_children")])
def test_flag(configured, key, field, value, result):
    # sampling needs a signal of its own
    info = configured(f"QELIX_PROFILING_SIGNAL_NUMBER=44\n{key}={value}")
    part, name = field.split(".")
    assert getattr(getattr(info, part), name) is result


def test_call_stack_collection_sets_its_bit_and_never_clears_it(configured):
    assert configured("QELIX_CALLSTACK_COLLECTION=0").ums.flags == 0
    assert configured("QELIX_CALLSTACK_COLLECTION=1").ums.flags == records.FLAG_CALL_STACKS
    info = configured("QELIX_CALLSTACK_COLLECTION=1\nQELIX_CALLSTACK_COLLECTION=0")
    assert (info.ums.collect_call_stack, info.ums.flags) == (False, records.FLAG_CALL_STACKS)


@pytest.mark.parametrize("key, value, field, result", [
    ("QELIX_PROFILING_SIGNAL_NUMBER", "44", "ums.signal", 44),
    ("QELIX_PROFILING_SIGNAL_NUMBER", "300", "ums.signal", 44),
    ("QELIX_PROFILING_SIGNAL_NUMBER", "256", "ums.signal", 0),
    ("QELIX_PROFILING_SIGNAL_NUMBER", "-1", "ums.signal", 255),
    ("QELIX_CALLSTACK_DEPTH", "16", "uma.call_stack_depth", 16),
    ("QELIX_CALLSTACK_DEPTH", "4294967297", "uma.call_stack_depth", 1),
    ("QELIX_CALLSTACK_DEPTH", "12 monkeys", "uma.call_stack_depth", 12),
    ("QELIX_CALLSTACK_DEPTH", "none", "uma.call_stack_depth", 0),
    ("QELIX_CALLSTACK_DEPTH", "0x10", "uma.call_stack_depth", 0),
    ("QELIX_TIMER_INTERVAL", "1000000", "ums.interval", 1000000),
    ("QELIX_TIMER_INTERVAL", "18446744073709551615", "ums.interval", 2**64 - 1),
    ("QELIX_TIMER_INTERVAL", "18446744073709551616", "ums.interval", 2**64 - 1),
    ("QELIX_LAUNCH_PROCESS_ID", "4242", "uma.launch_pid", 4242),
    ("QELIX_LAUNCH_PROCESS_ID", "-7", "uma.launch_pid", -7),
    ("QELIX_MPI_RANK_ID", "12", "uma.mpi_rank", 12),
    ("QELIX_MPI_RANK_ID", "-1", "uma.mpi_rank", -1),
    ("QELIX_MPI_RANK_ID", "65535", "uma.mpi_rank", -1),
    ("QELIX_MPI_RANK_ID", "40000", "uma.mpi_rank", 40000 - 65536),
    # first name with that beginning
    ("QELIX_PROFILING", "44", "ums.signal", 44),
    ("QELIX_CALLSTACK_D", "3", "uma.call_stack_depth", 3),
    ("QELIX_TI", "5", "ums.interval", 5),
    ("QELIX_L", "6", "uma.launch_pid", 6),
    ("QELIX_MPI", "7", "uma.mpi_rank", 7),
    ("QELIX_P", "44", "ums.signal", 44),
])
def test_number(configured, key, value, field, result):
    info = configured(f"{key}={value}")
    part, name = field.split(".")
    assert getattr(getattr(info, part), name) == result


@pytest.mark.parametrize("value, events", [
    ("1,2,3", [1, 2, 3]),
    ("7", [7]),
    ("1,,2", [1, 2]),
    ("1,x,18446744073709551615", [1, 0, 2**64 - 1]),
    (",".join(str(i + 1) for i in range(64)), [i + 1 for i in range(64)]),
])
def test_event_lists(configured, value, events):
    info = configured(f"QELIX_PMC_EVENTS={value}\nQELIX_ENCODED_EVENTS={value}")
    padded = events + [0] * (64 - len(events))
    assert info.ums.events == len(events)
    assert list(info.ums.pmc_events) == padded
    assert list(info.ums.encoded_events) == padded
    assert info.ums.flags == records.FLAG_COUNTERS


def test_encoded_events_keep_no_count(configured):
    info = configured("QELIX_ENCODED_EVENTS=5,6")
    assert (info.ums.events, info.ums.flags) == (0, 0)
    assert list(info.ums.encoded_events)[:3] == [5, 6, 0]


def test_a_second_event_list_replaces_the_first(configured):
    info = configured("QELIX_PMC_EVENTS=1,2,3\nQELIX_PMC_EVENTS=9\n"
                      "QELIX_ENCODED_EVENTS=4,5\nQELIX_ENCODED_EVENTS=6")
    assert info.ums.events == 1
    assert list(info.ums.pmc_events)[:3] == [9, 0, 0]
    assert list(info.ums.encoded_events)[:3] == [6, 0, 0]


def test_last_line_pmc_events_without_a_newline_is_skipped(session, configured):
    info = configured(f"QELIX_SHM_NAME={session.block.name}\nQELIX_PMC_EVENTS=", with_shm=False)
    assert (info.ums.events, info.ums.flags) == (0, 0)


def test_line_pmc_events_followed_by_a_newline_is_one_event_of_code_0(configured):
    info = configured("QELIX_PMC_EVENTS=\n")
    assert (info.ums.events, info.ums.flags) == (1, records.FLAG_COUNTERS)
    assert list(info.ums.pmc_events)[:2] == [0, 0]


@pytest.mark.parametrize("key, field", [
    ("QELIX_OPENMP_AGENT_PATH", "openmp_agent_path"),
    ("QELIX_PYTHON_AGENT_SCRIPT_PATH", "python_script_path"),
    ("QELIX_PYTHON_AGENT_LIB_PATH", "python_lib_path"),
    ("QELIX_PYTHON_TRACE_TYPE", "python_trace_type"),
    ("QELIX_USERMODE_AGENT_PATH", "user_mode_agent_path"),
    ("QELIX_PYTHON_AGENT", "python_script_path"),
    ("QELIX_O", "openmp_agent_path"),
    ("QELIX_US", "user_mode_agent_path"),
])
def test_path(configured, key, field):
    assert configured(f"{key}=/some where/x.so\n").strings[field] == "/some where/x.so"
    assert configured(f"{key}=/a=b\n").strings[field] == "/a"
    assert configured(f"{key}=/first\n{key}=/second\n").strings[field] == "/second"
    assert configured(f"{key}=/with a carriage return\r\n").strings[field] == "/with a carriage return\r"


def test_profiling_and_metadata_directories_are_stored(session, configured):
    info = configured(f"QELIX_CPU_PROFILE_DIR={session.root}/sample\n"
                      f"QELIX_METADATA_DIR={session.root}/metadata\n")
    assert info.strings["cpu_profiling_dir"] == f"{session.root}/sample"
    assert info.strings["metadata_dir"] == f"{session.root}/metadata"


# ---- lines ---------------------------------------------------------------------------------------------------

def test_line_shm_name_ends_at_its_newline_and_at_the_next_equals_sign(session, configured):
    info = configured(f"QELIX_SHM_NAME={session.block.name}=b\n", with_shm=False)
    assert info.strings["shm_name"] == session.block.name
    info = configured(f"QELIX_SHM_NAME={session.block.name}\n", with_shm=False)
    assert info.strings["shm_name"] == session.block.name


def test_a_last_line_without_a_newline_counts(session, configured):
    info = configured(f"QELIX_CALLSTACK_DEPTH=4\nQELIX_SHM_NAME={session.block.name}", with_shm=False)
    assert info.strings["shm_name"] == session.block.name
    assert info.uma.call_stack_depth == 4


@pytest.mark.parametrize("line", ["", "=", "==", "no value", "QELIX_CALLSTACK_DEPTH", "=QELIX_CALLSTACK_DEPTH",
                                  "UNKNOWN=1", " ", "\t=\t"])
def test_a_line_without_key_or_value_is_skipped(configured, line):
    info = configured(f"{line}\nQELIX_MPI_RANK_ID=3")
    assert (info.uma.call_stack_depth, info.uma.mpi_rank) == (0, 3)
    assert events_of(info) == only(OFF)


@pytest.mark.parametrize("line", ["=QELIX_CALLSTACK_DEPTH=5", "QELIX_CALLSTACK_DEPTH==5",
                                  "===QELIX_CALLSTACK_DEPTH==5=", "QELIX_CALLSTACK_DEPTH=5=6"])
def test_runs_of_equals_signs_separate_once(configured, line):
    assert configured(line).uma.call_stack_depth == 5


@pytest.mark.parametrize("length, depth", [(5118, 0), (5119, 5), (5120, 0), (2 * 5119, 5)])
def test_a_line_longer_than_5119_characters_is_read_as_several(configured, length, depth):
    assert configured("x" * length + "QELIX_CALLSTACK_DEPTH=5").uma.call_stack_depth == depth


def test_a_value_is_cut_where_the_buffer_ends(configured):
    key = "QELIX_OPENMP_AGENT_PATH="
    path = "/" + "y" * 6000
    info = configured(key + path)
    assert info.strings["openmp_agent_path"] == path[:5119 - len(key)]


def test_carriage_returns_and_blanks_belong_to_the_value(configured):
    info = configured("QELIX_CALLSTACK_DEPTH= 5\r\nQELIX_OPENMP_AGENT_PATH= /x \r\n")
    assert info.uma.call_stack_depth == 5
    assert info.strings["openmp_agent_path"] == " /x \r"


def test_an_empty_path_is_stored(configured):
    assert configured("QELIX_OPENMP_AGENT_PATH=\n").strings["openmp_agent_path"] == ""


# ---- directory keys ------------------------------------------------------------------------------------------

def trace_file(info, folder):
    (path,) = folder.glob(f"trace_*_{info.run.pid}.umt")
    return path


def test_a_directory_given_twice_is_opened_twice_and_the_later_one_is_written(session, configured):
    first, second = session.root / "trace", session.root / "second"
    second.mkdir()
    info = configured(f"QELIX_UMT_DIR={first}\nQELIX_TRACE=1\nQELIX_UMT_DIR={second}")
    assert trace_file(info, first).stat().st_size == 0
    assert [record.type for record in records.read_trace(trace_file(info, second))[1]] == \
           [records.PROC, records.THREAD_END]
    assert info.run.err == b""


@pytest.mark.parametrize("key", ["QELIX_UMT_DIR", "QELIX_CPU_PROFILE_DIR", "QELIX_METADATA_DIR"])
def test_a_directory_that_cannot_be_opened_ends_the_reading_at_once(session, configured, key):
    info = configured(f"QELIX_CALLSTACK_DEPTH=5\n{key}={session.root}/missing\nQELIX_MPI_RANK_ID=3")
    assert (info.uma.call_stack_depth, info.uma.mpi_rank) == (5, 0)
    assert info.strings["cpu_profiling_dir"] == info.strings["metadata_dir"] == "-"
    kind, suffix = {"QELIX_UMT_DIR": ("trace", "umt"), "QELIX_CPU_PROFILE_DIR": ("profile", "ums"),
                    "QELIX_METADATA_DIR": ("metadata", "meta")}[key]
    path = info.run.trace_path.parents[1] / "missing" / info.run.trace_path.name
    path = str(path).replace("trace_", kind + "_").replace(".umt", "." + suffix)
    assert info.run.log_texts("ERROR") == [f"Failed to open the file ({path}) : No such file or directory.",
                                           f"Failed to read config file in process ({info.run.pid})"]
    assert info.run.err.decode() == f"Qelix : Failed to initialize the constructor for pid ({info.run.pid}).\n"


def test_a_stream_that_is_not_enabled_gets_an_empty_file(session, configured):
    info = configured(f"QELIX_UMT_DIR={session.root}/trace\nQELIX_CPU_PROFILE_DIR={session.root}/sample")
    assert info.run.trace_path.stat().st_size == 0
    assert info.run.sample_path.stat().st_size == 0
    assert info.run.err == b""
