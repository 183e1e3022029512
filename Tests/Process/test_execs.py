"""Programs that replace themselves take the agent with them, and Python interpreters the Python agent."""

import os
import re
import shutil

import pytest

import records
from session import AGENT, PROGRAMS, program

FORMS = ["execv", "execvp", "execve", "execvpe", "fexecve", "execl", "execlp", "execle"]
WITH_ENVIRONMENT = ["execve", "execvpe", "fexecve", "execle"]
LIST_FORMS = ["execl", "execlp", "execle"]
SHOWN = program("shown")
NOT_APPENDED = f"LD_PRELOAD is not appended with agent path ({AGENT}). Failed to trace {{}}."
NO_PYTHON = "Failed to append python agent."


def function_of(form):
    return "ZorvInterpose" + form.capitalize()


@pytest.fixture
def python(session):
    """An interpreter by its name, and the Python agent's library for it."""
    path = session.root / "python3-fake"
    shutil.copy(SHOWN, path)
    (session.root / "pyagent311.so").write_text("library")
    return str(path)


def python_keys(session):
    return (("QELIX_PYTHON_AGENT_SCRIPT_PATH", session.root / "agent.py"),
            ("QELIX_PYTHON_AGENT_LIB_PATH", session.root / "pyagent"), ("QELIX_PYTHON_TRACE_TYPE", "sampling"))


def run_exec(session, form, file, environment, *argv, **options):
    return session.run("execs", form, file, environment, *argv, **options)


def shown(run):
    """The arguments and the variables that the new program saw."""
    lines = run.lines()
    return ([line.partition(" ")[2] for line in lines if line.startswith("argument ")],
            [line.partition(" ")[2] for line in lines if line.startswith("variable ")])


def session_variables(session):
    return f"QELIX_SESSION_DIR={session.root};QELIX_UMA_CONFIG_FILE={session.config_path}"


def log_of(run, *levels):
    """Both images log into the same file, under the same process id and another name."""
    lines = []
    for path in run.session.root.glob(f".log/*_execs_{run.pid}.txt"):
        lines += path.read_text().splitlines()
    return [line for line in lines if not levels or line.startswith(levels)]


# ---- arguments, results and errno ----------------------------------------------------------------------------

@pytest.mark.parametrize("argv", [["shown"], ["other name", "one"], ["shown", "one", "two words"]])
@pytest.mark.parametrize("form", FORMS)
def test_arguments_arrive_as_natively(session, form, argv):
    native = run_exec(session, form, SHOWN, "-", *argv, agent=False)
    run = run_exec(session, form, SHOWN, "-", *argv)
    assert shown(run)[0] == shown(native)[0] == argv
    assert (run.status, run.err) == (native.status, native.err) == (81, b"")


@pytest.mark.parametrize("argv", [[], ["null"]], ids=["empty", "null"])
@pytest.mark.parametrize("form", [form for form in FORMS if form not in LIST_FORMS])
def test_no_arguments_pass_as_natively(session, form, argv):
    native = run_exec(session, form, SHOWN, "-", *argv, agent=False)
    run = run_exec(session, form, SHOWN, "-", *argv)
    assert shown(run)[0] == shown(native)[0]
    assert (run.status, run.err) == (native.status, native.err)


@pytest.mark.parametrize("environment", ["-", "null", "A=1"])
@pytest.mark.parametrize("file", ["/missing/program", "missing-program", "/etc/passwd", "/etc", ""])
@pytest.mark.parametrize("form", [form for form in FORMS if form != "fexecve"])
def test_a_failing_exec_gives_the_native_result_and_errno_and_the_data_is_kept(session, form, file, environment):
    native = run_exec(session, form, file, environment, "x", agent=False)
    run = run_exec(session, form, file, environment, "x")
    assert (run.out, run.status, run.err) == (native.out, native.status, native.err)
    assert run.status == 80
    run.assert_all_files_parse()
    assert "Lost trace records count = 0" in run.log_texts("INFO")


@pytest.mark.parametrize("form, file", [("fexecve", "closed"), ("fexecve_unopened", "x"), ("fexecve", "/missing"),
                                        ("fexecve", "/etc/passwd")])
def test_a_failing_fexecve_gives_the_native_result_and_errno(session, form, file):
    native = run_exec(session, form, file, "-", "x", agent=False)
    run = run_exec(session, form, file, "-", "x")
    assert (run.out, run.status, run.err) == (native.out, native.status, native.err)


def test_fexecve_of_a_descriptor_that_is_not_open_logs_its_link(session):
    run = run_exec(session, "fexecve_unopened", "x", "-", "x")
    text = f"Failed to read symbolic link /proc/{run.pid}/task/{run.pid}/fd/77 : No such file or directory."
    assert [(line.function, line.text) for line in run.log() if line.level == "ERROR"] == \
           [("ZorvInterposeFexecve", text)]


# ---- LD_PRELOAD ----------------------------------------------------------------------------------------------

@pytest.mark.parametrize("entries, expected", [
    ("ZORV_TEST=1", ["ZORV_TEST=1", f"LD_PRELOAD={AGENT}"]),
    ("LD_PRELOAD=libfoo.so;ZORV_TEST=1", [f"LD_PRELOAD={AGENT}:libfoo.so", "ZORV_TEST=1"]),
    ("LD_PRELOAD=;ZORV_TEST=1", [f"LD_PRELOAD={AGENT}:", "ZORV_TEST=1"]),
    ("LD_PRELOAD=a.so;ZORV_TEST=1;LD_PRELOAD=b.so",
     ["LD_PRELOAD=a.so", "ZORV_TEST=1", f"LD_PRELOAD={AGENT}:b.so"]),
    ("LD_PRELOADER=x;LD_PRELOAD", ["LD_PRELOADER=x", "LD_PRELOAD", f"LD_PRELOAD={AGENT}"]),
    ("", [f"LD_PRELOAD={AGENT}"]),
])
@pytest.mark.parametrize("form", WITH_ENVIRONMENT)
def test_the_agent_is_put_into_an_environment_that_lacks_it(session, form, entries, expected):
    run = run_exec(session, form, SHOWN, entries, "shown", "x")
    assert shown(run) == (["shown", "x"], expected)
    assert run.status == 81
    name = os.path.realpath(SHOWN) if form == "fexecve" else SHOWN
    errors = [line for line in log_of(run, "ERROR")]
    assert len(errors) == 1
    assert re.fullmatch(rf"ERROR : {function_of(form)} : \d+ : {re.escape(NOT_APPENDED.format(name))}", errors[0])


@pytest.mark.parametrize("entries", [f"LD_PRELOAD={AGENT}", f"ZORV_TEST=1;LD_PRELOAD=libm.so.6:{AGENT}",
                                     f"LD_PRELOAD={AGENT};LD_PRELOAD={AGENT};ZORV_TEST=2"])
@pytest.mark.parametrize("form", WITH_ENVIRONMENT)
def test_an_environment_that_has_the_agent_is_passed_unchanged_and_no_error_is_logged(session, form, entries):
    run = run_exec(session, form, SHOWN, entries, "shown")
    assert shown(run) == (["shown"], entries.split(";"))
    assert log_of(run, "ERROR") == []


@pytest.mark.parametrize("form", WITH_ENVIRONMENT)
def test_a_null_environment_is_passed_unchanged(session, form):
    run = run_exec(session, form, SHOWN, "null", "shown")
    native = run_exec(session, form, SHOWN, "null", "shown", agent=False)
    assert (run.out, run.status, run.err) == (native.out, native.status, native.err)
    # fexecve refuses it
    assert shown(run) == (["shown"] if form != "fexecve" else [], [])


@pytest.mark.parametrize("form", WITH_ENVIRONMENT)
def test_without_a_configured_agent_path_the_environment_is_passed_unchanged(session, form):
    session.configure(without=("QELIX_USERMODE_AGENT_PATH",))
    for entries in ("ZORV_TEST=1", "LD_PRELOAD=libm.so.6;ZORV_TEST=1"):
        run = run_exec(session, form, SHOWN, entries, "shown")
        assert shown(run) == (["shown"], entries.split(";"))
        assert run.status == 81


@pytest.mark.parametrize("form", WITH_ENVIRONMENT)
def test_without_memory_the_environment_is_passed_unchanged(session, form):
    run = run_exec(session, form, SHOWN, "ZORV_TEST=1", "shown", ahead=[program("faults.so")],
                   env={"ZORV_TEST_FAULT": "ZorvUmaMalloc:1+"})
    assert run.status == 81 or form == "execle"
    if run.status == 81:
        assert shown(run)[0] == ["shown"]
        assert "ZORV_TEST=1" in shown(run)[1]


@pytest.mark.parametrize("form", FORMS)
def test_the_new_program_is_traced(session, form):
    entries = session_variables(session) if form in WITH_ENVIRONMENT else "-"
    run = run_exec(session, form, SHOWN, entries, "shown")
    assert run.status == 81
    # the new image's files replace those of the old one
    assert [record.name for record in run.trace() if record.type == records.PROC] == [b"shown"] \
        or form == "fexecve"
    run.assert_all_files_parse()
    (log,) = [path for path in session.root.glob(f".log/*_{run.pid}.txt") if "_execs_" not in path.name]
    assert "Lost trace records count = 0" in log.read_text()


@pytest.mark.parametrize("form", ["execve", "execvpe", "fexecve"])
def test_each_exec_with_an_environment_is_logged(session, form):
    run = run_exec(session, form, SHOWN, "-", "shown")
    name = os.path.realpath(SHOWN) if form == "fexecve" else SHOWN
    infos = [line for line in log_of(run, "INFO") if line.endswith(f": {form} : {name}.")]
    assert len(infos) == 1


# ---- Python --------------------------------------------------------------------------------------------------

def inserted(session, form):
    """What stands between the interpreter's name and the program's own arguments."""
    agent = session.root / ("pyagent" if form in LIST_FORMS else "agent.py")
    return [str(agent), "sampling", str(session.root / "sample"), str(session.root / "metadata")]


@pytest.mark.parametrize("version", ["310.so", "311.so", "312.so"])
@pytest.mark.parametrize("form", FORMS)
def test_a_python_interpreter_gets_the_python_agent_when_only_sampling_is_configured(session, python, form, version):
    os.rename(session.root / "pyagent311.so", session.root / f"pyagent{version}")
    session.configure_sampling_alone(*python_keys(session))
    run = run_exec(session, form, python, "-", "python3", "app.py")
    assert shown(run)[0] == ["python3", *inserted(session, form), "app.py"]
    assert run.status == 81
    assert not any(NO_PYTHON in line for line in log_of(run))


@pytest.mark.parametrize("form", FORMS)
def test_an_interpreter_without_arguments_gets_the_python_agent_too(session, python, form):
    session.configure_sampling_alone(*python_keys(session))
    run = run_exec(session, form, python, "-", "python3")
    assert shown(run)[0] == ["python3", *inserted(session, form)]


@pytest.mark.parametrize("why", ["tracing", "no library", "no library path", "other version", "another name"])
@pytest.mark.parametrize("form", FORMS)
def test_the_python_agent_is_not_inserted_otherwise(session, python, form, why):
    keys = python_keys(session)
    if why == "no library":
        (session.root / "pyagent311.so").unlink()
    if why == "other version":
        os.rename(session.root / "pyagent311.so", session.root / "pyagent39.so")
    if why == "no library path":
        keys = keys[:1] + keys[2:]
    if why == "tracing":
        session.configure_sampling(*keys)
    else:
        session.configure_sampling_alone(*keys)
    run = run_exec(session, form, SHOWN if why == "another name" else python, "-", "python3", "app.py")
    assert shown(run)[0] == ["python3", "app.py"]
    assert not any(NO_PYTHON in line for line in log_of(run))


@pytest.mark.parametrize("form", ["execv", "execvp", "execve", "execvpe", "fexecve"])
def test_a_null_argument_vector_of_an_interpreter_is_passed_and_logged(session, python, form):
    session.configure_sampling_alone(*python_keys(session))
    native = run_exec(session, form, python, "-", "null", agent=False)
    run = run_exec(session, form, python, "-", "null")
    assert shown(run)[0] == shown(native)[0]
    (error,) = [line for line in log_of(run, "ERROR") if "ZorvInterpose" in line]
    assert re.fullmatch(rf"ERROR : {function_of(form)} : \d+ : {NO_PYTHON}", error)


@pytest.mark.parametrize("form", WITH_ENVIRONMENT)
def test_python_agent_and_preload_list_are_put_in_together(session, python, form):
    session.configure_sampling_alone(*python_keys(session))
    run = run_exec(session, form, python, "LD_PRELOAD=libfoo.so", "python3", "app.py")
    assert shown(run) == (["python3", *inserted(session, form), "app.py"], [f"LD_PRELOAD={AGENT}:libfoo.so"])


def test_the_programs_of_this_test_are_where_they_should_be():
    assert (PROGRAMS / "shown").exists() and AGENT.exists()
