"""Modules: all of them at the start, again after each load, and executable mappings of files."""

import os
import re
import shutil

import pytest

import records
from session import AGENT, PROGRAMS, program

STATUS = 60
ELSEWHERE = str(PROGRAMS / "elsewhere" / "plugin.so")


def module_records(run):
    return records.read_metadata(run.metadata_path)[1]


def scans(run):
    """The records of each scan of the whole process, by its time."""
    by_time = {}
    for record in module_records(run):
        by_time.setdefault(record.time, []).append(record)
    return [by_time[time] for time in sorted(by_time)]


def names(scan):
    return {os.path.basename(record.path) for record in scan}


def run_both(session, *args, name="modules", **options):
    native = session.native(name, *args, **options)
    assert native.status == STATUS
    run = session.run(name, *args, **options)
    assert (run.status, run.err) == (STATUS, b"")
    return native, run


# ---- the list ------------------------------------------------------------------------------------------------

def test_the_start_lists_every_executable_file_mapping_once_with_one_time(session):
    run = session.start("modules", "message")
    run.finish()
    first = scans(run)[0]
    assert names(first) >= {b"modules", b"libc.so.6", b"ld-linux-x86-64.so.2", os.path.basename(AGENT).encode(),
                            b"[vdso]"}
    assert b"" not in names(first)
    assert len({record.start for record in first}) == len(first)
    assert all(record.start < record.end and record.pid == run.pid for record in first)
    trace = [record for record in run.trace() if record.type == records.PROC]
    assert trace[0].start <= first[0].time


@pytest.mark.parametrize("mode", ["load", "load_old", "load_apart", "load_apart_old"])
def test_modules_are_listed_again_after_a_load_with_a_new_time(session, mode):
    native, run = run_both(session, mode, ELSEWHERE)
    assert run.out == native.out
    before, after = scans(run)[:2]
    assert b"plugin.so" not in names(before)
    assert b"plugin.so" in names(after)
    assert before[0].time < after[0].time
    (plugin,) = [record for record in after if record.path.endswith(b"/plugin.so")]
    assert plugin.path.decode() == os.path.realpath(ELSEWHERE)
    # what was there before is there again
    assert {(record.start, record.path) for record in before} <= {(record.start, record.path) for record in after}


def test_each_successful_load_lists_once_and_a_failed_one_not_at_all(session):
    _, run = run_both(session, "load", ELSEWHERE)
    assert len(scans(run)) == 1 + 3
    _, run = run_both(session, "fail", ELSEWHERE)
    # the program itself, by an empty name, is the one that succeeds
    assert len(scans(run)) == 1 + 1


def test_nothing_is_listed_without_a_metadata_file(session):
    session.configure(without=("QELIX_METADATA_DIR",))
    native, run = run_both(session, "load", ELSEWHERE)
    assert run.out == native.out
    assert not run.metadata_path.exists()
    assert run.log_texts("ERROR", "WARN") == []


# the loader chooses between the two entries of the old version
@pytest.mark.parametrize("mode, functions", [
    ("load_old", {"ZorvInterposeDlopen_2_2_5", "ZorvInterposeDlopen"}), ("load", {"ZorvInterposeDlopen_2_34"}),
    ("load_apart_old", {"ZorvInterposeDlmopen_2_3_4", "ZorvInterposeDlmopen"}),
    ("load_apart", {"ZorvInterposeDlmopen_2_34"})])
def test_a_list_that_cannot_be_written_is_logged_under_the_entry_points_name(session, mode, functions):
    run = session.run("modules", mode, ELSEWHERE, ahead=[program("faults.so")],
                      env={"ZORV_TEST_FAULT": "ZorvUmaWrite:2+", "ZORV_TEST_WRITE_TO": ".meta"})
    assert run.status == STATUS
    lines = [line for line in run.log() if line.level == "ERROR"]
    assert {line.text for line in lines} == {"Failed to write mmap records in dlopen."}
    (function,) = {line.function for line in lines}
    assert function in functions


def test_a_path_is_recorded_up_to_its_first_blank(session):
    directory = session.root / "my app"
    directory.mkdir()
    shutil.copy(ELSEWHERE, directory / "spaced.so")
    _, run = run_both(session, "load", directory / "spaced.so")
    cut = str(session.root.resolve() / "my").encode()
    assert cut in {record.path for record in scans(run)[1]}
    assert b"spaced.so" not in names(scans(run)[1])


# ---- what is loaded is what is loaded natively ---------------------------------------------------------------

@pytest.mark.parametrize("file, place", [
    ("plugin.so", "runpath"), ("private.so", "private"), ("$ORIGIN/origin/plugin.so", "origin"),
    ("${ORIGIN}/origin/plugin.so", "origin"), (ELSEWHERE, "elsewhere")])
def test_a_module_is_found_where_the_callers_module_looks(session, file, place):
    native, run = run_both(session, "load", file)
    assert f"dlopen loaded, place {place}, errno 4242" in native.out.decode()
    assert run.out == native.out


def test_the_build_for_this_level_of_processor_is_taken(session):
    native, run = run_both(session, "load", "levelled.so")
    assert re.search(r"dlopen loaded, place v[1-4], errno 4242", native.out.decode())
    assert run.out == native.out


@pytest.mark.parametrize("file", ["plugin.so", "$ORIGIN/origin/plugin.so", "${ORIGIN}/origin/plugin.so",
                                  "$ORIGIN/missing.so", "$ORIGIN", "$ORIGINAL/plugin.so", "$LIB/plugin.so", ELSEWHERE])
@pytest.mark.parametrize("mode", ["load", "load_old", "load_apart"])
def test_a_program_without_a_search_path_finds_what_it_finds_natively(session, mode, file):
    native, run = run_both(session, mode, file, name="modules_plain")
    assert run.out == native.out


@pytest.mark.parametrize("file", ["plugin.so", "$ORIGIN/origin/plugin.so"])
def test_a_module_in_a_space_of_its_own_is_found_where_the_callers_module_looks(session, file):
    native, run = run_both(session, "load_apart", file)
    assert run.out == native.out


def test_the_search_goes_on_in_the_loaders_order(session):
    env = {"LD_LIBRARY_PATH": str(PROGRAMS / "elsewhere")}
    for file, place in (("plugin.so", "elsewhere"), ("private.so", "private")):
        native, run = run_both(session, "load", file, env=env)
        assert f"place {place}," in native.out.decode()
        assert run.out == native.out


@pytest.mark.parametrize("content", ["no module", "x" * 5000, "", "\x7fELF\x01" + "\0" * 2000,
                                     "\x7fELF\x02\x01\x01" + "\0" * 2000],
                         ids=["short", "text", "empty", "32 bits", "no header"])
def test_files_that_are_no_modules_are_passed_over_or_fail_as_natively(session, content):
    directory = session.root / "first"
    directory.mkdir()
    (directory / "plugin.so").write_text(content)
    native, run = run_both(session, "load", "plugin.so", env={"LD_LIBRARY_PATH": directory})
    assert run.out == native.out


def test_a_directory_of_that_name_is_treated_as_natively(session):
    (session.root / "first" / "plugin.so").mkdir(parents=True)
    native, run = run_both(session, "load", "plugin.so", env={"LD_LIBRARY_PATH": session.root / "first"})
    assert run.out == native.out


def test_failing_loads_leave_the_native_message_and_errno(session):
    native, run = run_both(session, "fail", ELSEWHERE)
    assert len([line for line in native.lines() if " failed, " in line]) >= 6
    assert run.lines() == native.lines()


def test_a_pending_message_survives_traced_calls(session):
    native, run = run_both(session, "message")
    assert native.lines()[0].startswith("message /missing/module.so: cannot open shared object file")
    assert run.out == native.out


def test_a_tokenisation_survives_the_listing_of_modules(session):
    native, run = run_both(session, "tokens", ELSEWHERE)
    assert native.lines()[2:] == ["two", "three", "four", "end"]
    assert run.out == native.out


# ---- mmap ----------------------------------------------------------------------------------------------------

def told_mappings(run):
    fields = (re.fullmatch(r"map (\S+) (\w+) errno (\d+) (\d+) (\d+)", line).groups() for line in run.lines())
    return {what: (result, int(error), int(address), int(size)) for what, result, error, address, size in fields}


def test_executable_mappings_of_files_are_recorded_and_others_are_not(session):
    native, run = run_both(session, "map", ELSEWHERE)
    mappings = told_mappings(run)
    natives = told_mappings(native)
    assert {what: fields[:2] for what, fields in mappings.items()} == \
           {what: fields[:2] for what, fields in natives.items()}
    listed = {(record.start, record.end): record.path for scan in scans(run)[1:] for record in scan}
    expected = {"code": os.path.realpath(ELSEWHERE).encode(), "code64": os.path.realpath(ELSEWHERE).encode(),
                # a descriptor is all that counts
                "anonymous-with-file": os.path.realpath(ELSEWHERE).encode(),
                "unlinked": str(session.root.resolve() / "unlinked").encode() + b" (deleted)"}
    assert listed == {(mappings[what][2], mappings[what][2] + mappings[what][3]): path
                      for what, path in expected.items()}


def test_mappings_are_recorded_as_calls_with_their_address_as_value(session):
    _, run = run_both(session, "map", ELSEWHERE)
    values = [record.value for record in run.trace() if record.type == records.SYSCALL and record.value != 0]
    assert values == [address for _, _, address, _ in told_mappings(run).values()]


@pytest.mark.parametrize("config", ["0", f"1:{3600 * 10**9}"])
def test_executable_mappings_are_listed_also_where_the_call_is_not_recorded(session, config):
    session.configure(QELIX_TRACE_SYSCALL=config)
    _, run = run_both(session, "map", ELSEWHERE)
    assert len(scans(run)) == 1 + 4
    assert [record for record in run.trace() if record.type == records.SYSCALL] == []


def failed_mapping_texts(session, fault, **env):
    run = session.run("modules", "map", ELSEWHERE, ahead=[program("faults.so")],
                      env={"ZORV_TEST_FAULT": fault, **env})
    native = session.native("modules", "map", ELSEWHERE)
    assert [fields[:2] for fields in told_mappings(run).values()] == \
           [fields[:2] for fields in told_mappings(native).values()]
    return run, {(line.function, re.sub(r"\d+", "N", line.text)) for line in run.log() if line.level == "ERROR"}


def test_a_mapping_record_that_cannot_be_written_is_logged(session):
    _, texts = failed_mapping_texts(session, "ZorvUmaWrite:8+", ZORV_TEST_WRITE_TO=".meta")
    assert ("ZorvInterposeMmap", "Failed to write mmap record in mmap.") in texts


def test_without_memory_for_the_files_path_the_mapping_is_made_and_it_is_logged(session):
    run, texts = failed_mapping_texts(session, "ZorvUmaCalloc:1+")
    link = "Failed to allocate memory to read symbolic link /proc/N/task/N/fd/N."
    assert texts <= {("ZorvInterposeMmap", link)}
    if texts:
        assert len(scans(run)) == 1
