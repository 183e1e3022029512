"""`qelix record` under the start commands of Open MPI and MPICH: a session for each rank."""

import json
import os
import pathlib
import shutil
import subprocess

import pytest

from conftest import QELIX, report

RANKS = 4
LAUNCHERS = {
    "openmpi": ["mpirun.openmpi", "--allow-run-as-root", "--oversubscribe"],
    "mpich": ["mpirun.mpich"],
}


@pytest.fixture(params=LAUNCHERS)
def parallel(request, tmp_path):
    """The start command of a parallel program, and the program."""
    kind = request.param
    compiler = shutil.which(f"mpicc.{kind}")
    if compiler is None or shutil.which(LAUNCHERS[kind][0]) is None:
        pytest.skip(f"{kind} is not installed; ./check --all installs it")
    source = pathlib.Path(__file__).with_name("MpiSubject.c")
    subprocess.run([compiler, "-o", tmp_path / "app", source], check=True)
    return [*LAUNCHERS[kind], "-n", str(RANKS)], tmp_path / "app"


def test_each_rank_of_a_job_has_a_session(parallel, tmp_path):
    start, app = parallel
    job = tmp_path / "job"
    result = subprocess.run(
        [*start, QELIX, "record", "-o", job, app], capture_output=True, text=True, timeout=300, cwd=tmp_path
    )
    assert result.returncode == 0, result.stderr
    assert f"{RANKS} ranks\n" in result.stdout
    for rank in range(RANKS):
        session = job / f"rank={rank}"
        facts = json.loads((session / "session.json").read_text())
        assert facts["rank"] == rank and facts["exitStatus"] == 0
        (process,) = [entry for entry in report(session)["processes"] if entry["pid"] == facts["pid"]]
        (trace,) = (session / "trace").glob(f"*_{facts['pid']}.umt")
        assert int.from_bytes(trace.read_bytes()[12:16], "little", signed=True) == rank
    assert os.readlink(tmp_path / "qelix-last") == "job"
