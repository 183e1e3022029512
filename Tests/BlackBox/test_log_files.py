"""The log and the error file: names, prefixes, texts; and what goes to standard error while there is no log."""

import os
import re
import resource
import shutil
import stat

import pytest

from session import AGENT, HOST, program

MESSAGE = b"to standard error\n"  # the program's own


def failed_to_open(run):
    return (f"Failed to open log and error file in process ({run.pid}).\n"
            f"Qelix : Failed to initialize the constructor for pid ({run.pid}).\n").encode() + MESSAGE


def assert_ran_untraced(run):
    assert (run.status, run.out) == (7, b"plain\n")
    assert not run.trace_path.exists()


def test_one_pair_of_files_named_by_host_thread_and_process(session):
    run = session.run("plain")
    assert (run.status, run.out, run.err) == (7, b"plain\n", MESSAGE)
    assert os.listdir(session.root / ".log") == [f"ZorvUmtAgent_{HOST}_plain_{run.pid}.txt"]
    assert os.listdir(session.root / ".error") == [f"ZorvUmtError_{HOST}_plain_{run.pid}.err"]


def test_the_thread_name_is_the_kernels_15_characters_of_the_program(session):
    copy = session.root / "a name with more than fifteen letters"
    shutil.copy(program("plain"), copy)
    run = session.run(str(copy))
    assert os.listdir(session.root / ".log") == [f"ZorvUmtAgent_{HOST}_a name with mor_{run.pid}.txt"]


def test_the_log_of_a_healthy_run_line_by_line(session):
    run = session.run("plain")
    lines = run.log()
    writer = next(line.tid for line in lines if line.text.startswith("Writer thread id"))
    assert writer != run.pid
    expected = [("INFO", run.pid, writer, f"Writer thread id is ({writer})."),
                ("INFO", run.pid, writer, "Timer overrun count (0)."),
                ("INFO", run.pid, writer, f"Exit from the writer thread ({writer})."),
                ("INFO", run.pid, run.pid, "Lost trace records count = 0")]
    assert [(line.level, line.pid, line.tid, line.text) for line in lines] == expected


def test_lines_are_prefixed_by_level_and_carry_no_time_stamp(session):
    session.configure(without=("QELIX_SHM_NAME",))
    run = session.run("plain")
    text = run.log_path.read_text()
    assert re.search(r"^ERROR : ZorvUma\w+ : [1-9]\d* : Failed to Initialize the shared memory\.$", text, re.M)
    assert re.search(rf"^INFO : {run.pid} : {run.pid}: Lost trace records count = 0$", text, re.M)


def test_the_error_file_of_a_healthy_run_is_empty(session):
    assert session.run("plain").error_path.read_bytes() == b""


def test_files_have_mode_0644_less_the_mask(session):
    for mask, mode in ((0o022, 0o644), (0o077, 0o600), (0, 0o644)):
        run = session.run("plain", before=lambda mask=mask: os.umask(mask))
        for path in (run.log_path, run.error_path, run.trace_path, run.metadata_path):
            assert stat.S_IMODE(path.stat().st_mode) == mode


def test_a_log_that_is_there_is_appended_to(session):
    def write_earlier_line():
        path = session.root / ".log" / f"ZorvUmtAgent_{HOST}_plain_{os.getpid()}.txt"
        path.write_text("an earlier line\n")
    run = session.start("plain", before=write_earlier_line).finish()
    assert run.log_path.read_text().startswith("an earlier line\nINFO : ")


def test_with_session_dir_unset_nothing_is_logged_at_all_and_initialisation_fails(session):
    run = session.run("plain", env={"QELIX_SESSION_DIR": None})
    assert_ran_untraced(run)
    assert run.err == failed_to_open(run)
    assert os.listdir(session.root / ".log") == os.listdir(session.root / ".error") == []


@pytest.mark.parametrize("missing", [".log", ".error"])
def test_a_missing_folder_fails_the_start_and_the_program_runs_on(session, missing):
    (session.root / missing).rmdir()
    run = session.run("plain")
    assert_ran_untraced(run)
    assert run.err == failed_to_open(run)
    assert not (session.root / missing).exists()


def test_a_session_directory_that_is_no_directory(session):
    run = session.run("plain", env={"QELIX_SESSION_DIR": "/dev/null"})
    assert_ran_untraced(run)
    assert run.err == failed_to_open(run)


def test_a_start_without_descriptors_to_spare(session):
    def allow(soft, hard):
        return lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))
    # the loader needs one itself; the log takes it, the error file finds none
    run = session.run("plain", before=allow(4, 4))
    assert_ran_untraced(run)
    assert run.err == failed_to_open(run)


def test_a_full_table_is_widened_to_the_hard_limit(session):
    native = session.native("limits", "show_descriptor_limit", before=lambda: resource.setrlimit(
        resource.RLIMIT_NOFILE, (4, 64)))
    run = session.run("limits", "show_descriptor_limit", before=lambda: resource.setrlimit(
        resource.RLIMIT_NOFILE, (4, 64)))
    assert native.out == b"limit 4 64\n"
    assert run.out == b"limit 64 64\n"
    run.assert_healthy(11)


def test_long_texts_fit_their_lines(session):
    folder = session.root
    while len(str(folder)) < 480:
        folder = folder / ("d" * 40)
    session.configure(QELIX_UMT_DIR=folder)
    run = session.run("plain")
    assert run.log_texts("ERROR")[0] == f"Failed to open the file ({folder}/{run.trace_path.name}) : " \
                                        "No such file or directory."


def test_descriptors_do_not_reach_a_new_program(session):
    native = session.native("children", "exec")
    run = session.run("children", "exec")
    assert (run.status, run.out, run.err) == (native.status, native.out, native.err)


def test_standard_error_of_a_healthy_run_is_empty(session):
    run = session.run("hammer", 2, 100)
    run.assert_healthy(5)


# ---- the failures of a start, and their texts ----------------------------------------------------------------

def assert_failed_start(run, *texts):
    assert (run.status, run.out) == (7, b"plain\n")
    assert run.log_texts("ERROR") == list(texts)
    assert run.err == f"Qelix : Failed to initialize the constructor for pid ({run.pid}).\n".encode() + MESSAGE


def test_no_configuration_variable(session):
    run = session.run("plain", env={"QELIX_UMA_CONFIG_FILE": None})
    assert_failed_start(run, "Failed to read QELIX_UMA_CONFIG_FILE env variable.",
                        f"Failed to read config file in process ({run.pid})")


def test_no_configuration_file(session):
    run = session.run("plain", env={"QELIX_UMA_CONFIG_FILE": session.root / "missing"})
    assert_failed_start(run, "Failed to open config file.",
                        f"Failed to read config file in process ({run.pid})")


def test_a_configuration_without_the_shared_memory_name_fails_at_step_7(session):
    session.configure(without=("QELIX_SHM_NAME",))
    run = session.run("plain")
    assert_failed_start(run, "Failed to Initialize the shared memory.")
    assert run.trace_path.stat().st_size == 0
    assert run.metadata_path.stat().st_size == 0


def test_a_shared_memory_name_that_cannot_be_made(session):
    session.configure(QELIX_SHM_NAME="/a/b/c")
    assert_failed_start(session.run("plain"), "Failed to Initialize the shared memory.")


def test_errors_name_their_function_and_line(session):
    run = session.run("plain", env={"QELIX_UMA_CONFIG_FILE": None})
    lines = [line for line in run.log() if line.level == "ERROR"]
    assert [line.function for line in lines] == ["ZorvUmaReadConfig", "ZorvUmaInitProcess"]
    assert all(int(line.line) > 0 for line in lines)


def test_an_agent_that_is_copied_elsewhere_works_alike(session):
    copy = session.root / AGENT.name
    shutil.copy(AGENT, copy)
    run = session.run("plain", agent=True, env={"LD_PRELOAD": copy})
    assert run.err == MESSAGE
    assert "Lost trace records count = 0" in run.log_texts("INFO")
