"""`qelix cpu` and `qelix symbols`: functions, call paths and lines of programs whose work is known."""

import collections
import csv
import io
import json
import os
import pathlib
import shutil
import subprocess

import pytest

from conftest import SUBJECT, qelix, report

SOURCE = pathlib.Path(__file__).with_name("Subject.c")
POINTS = 0.03


def record(session, *command, options=()):
    result = qelix("run", "--sample", "--min", "all=off", *options, "-o", session, "--", *command)
    assert result.returncode == 0, result.stderr
    return session


@pytest.fixture(scope="module")
def burnt(tmp_path_factory):
    """60 to 30 to 10 in three functions, on two threads."""
    return record(tmp_path_factory.mktemp("burnt") / "session", SUBJECT, "burn", "600", "2")


def rows_of(command, session, *options):
    result = qelix(command, session, "--json", *options)
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout)["rows"]


def test_functions_come_with_module_source_and_shares(burnt):
    rows = rows_of("cpu", burnt)
    first = rows[0]
    assert first["function"] == "WorkSixty" and first["module"] == "QelixSubject"
    assert first["source"].endswith(f"/Subject.c:{line_of('WORK(WorkSixty')}")
    assert sum(row["selfShare"] for row in rows) == pytest.approx(1)
    assert sum(row["selfNs"] for row in rows) == pytest.approx(first["selfNs"] / first["selfShare"], rel=0.01)
    (caller,) = [row for row in rows if row["function"] == "Work"]
    assert caller["totalShare"] > 0.9 > caller["selfShare"]


def line_of(text):
    lines = SOURCE.read_text().splitlines()
    return next(number for number, line in enumerate(lines, 1) if text in line)


def test_the_tree_puts_each_function_below_its_caller(burnt):
    rows = rows_of("cpu", burnt, "--tree")
    path = {}
    for row in rows:
        path[row["depth"]] = row
        if row["depth"] > 1:
            assert row["totalNs"] <= path[row["depth"] - 1]["totalNs"]
        if row["function"] == "WorkThirty":
            assert path[row["depth"] - 1]["function"] == "Work"
    assert {"WorkSixty", "WorkThirty", "WorkTen"} <= {row["function"] for row in rows}
    text = qelix("cpu", burnt, "--tree", env={**os.environ, "COLUMNS": "200"}).stdout
    indents = {name: line.index(name) for line in text.splitlines() for name in ("Work ", "WorkSixty") if name in line}
    assert indents["WorkSixty"] == indents["Work "] + 2
    refused = qelix("cpu", burnt, "--tree", "--sort", "selfNs")
    assert refused.returncode == 125 and "--tree" in refused.stderr


def test_lines_say_where_in_a_function_the_time_went(burnt):
    first = rows_of("cpu", burnt, "--lines")[0]
    assert first["function"] == "WorkSixty"
    assert first["line"].endswith(f"/Subject.c:{line_of('WORK(WorkSixty')}")


def test_threads_processes_and_times_can_be_picked(burnt):
    everything = rows_of("cpu", burnt)
    burners = rows_of("cpu", burnt, "--thread", "burner")
    assert sum(row["samples"] for row in burners) >= 0.95 * sum(row["samples"] for row in everything)
    half = f"{report(burnt)['wallNs'] // 2}ns"
    samples = [sum(row["samples"] for row in rows_of("cpu", burnt, "--time", span)) for span in (f"..{half}", f"{half}..")]
    assert all(samples) and sum(samples) == sum(row["samples"] for row in everything)
    assert rows_of("cpu", burnt, "--process", "nobody") == []


def test_rows_can_be_sorted_cut_and_written_as_csv(burnt):
    result = qelix("cpu", burnt, "--csv", "-n", "2", "--sort", "totalNs")
    rows = list(csv.DictReader(io.StringIO(result.stdout)))
    assert len(rows) == 2
    assert int(rows[0]["totalNs"]) >= int(rows[1]["totalNs"])


def test_symbols_say_what_could_be_named(burnt):
    (subject,) = [row for row in rows_of("symbols", burnt) if row["module"].endswith("/QelixSubject")]
    assert subject["addresses"] == subject["named"] > 0
    assert subject["withLine"] > 0.9 * subject["addresses"]


def test_a_file_that_is_gone_is_named_as_the_reason(tmp_path, session):
    program = shutil.copy(SUBJECT, tmp_path / "gone")
    record(session, program, "burn", "300", "1")
    pathlib.Path(program).unlink()
    (module,) = [row for row in rows_of("symbols", session) if row["module"] == str(program)]
    assert module["named"] == 0 and "gone" in module["remarks"]
    assert any(row["function"].startswith("gone+0x") for row in rows_of("cpu", session))


def test_a_file_that_was_built_anew_is_warned_of(tmp_path, session):
    program = shutil.copy(SUBJECT, tmp_path / "rebuilt")
    record(session, program, "burn", "300", "1")
    pathlib.Path(program).unlink()
    shutil.copy(shutil.which("true"), program)
    (module,) = [row for row in rows_of("symbols", session) if row["module"] == str(program)]
    assert "another build" in module["remarks"]
    assert f"changed: {program}: another build" in qelix("report", session, "--full").stdout


# ---- another profiler ------------------------------------------------------------------------------------


def test_the_top_ten_functions_are_those_of_another_profiler(tmp_path, session):
    data = tmp_path / "perf.data"
    command = ["perf", "record", "-q", "-e", "cpu-clock", "-F", "250", "-o", data, "--"]
    try:
        subprocess.run([*command, "true"], check=True, capture_output=True)
    except (OSError, subprocess.CalledProcessError):
        pytest.skip("perf cannot record the software clock here")
    subprocess.run([*command, SUBJECT, "shares", "6000"], check=True, capture_output=True)
    peer = peer_shares(data)
    record(session, SUBJECT, "shares", "6000")
    ours = {row["function"]: row["selfShare"] for row in rows_of("cpu", session)}
    top = sorted(peer, key=peer.get, reverse=True)[:10]
    assert all(name.startswith("Share") for name in top)
    for name in top:
        assert abs(ours.get(name, 0) - peer[name]) <= POINTS, (name, ours, peer)
    assert {name for name in sorted(ours, key=ours.get, reverse=True)[:10]} == set(top)


def peer_shares(data):
    script = subprocess.run(["perf", "script", "-i", data, "-F", "ip,sym"], check=True, capture_output=True, text=True)
    found = collections.Counter(line.split()[1] for line in script.stdout.splitlines() if len(line.split()) > 1)
    return {name: count / sum(found.values()) for name, count in found.items()}


def test_why_there_are_no_samples_is_said(tmp_path):
    for name, options, part in [("idle", [], "no thread used as much CPU"), ("off", ["--no-sample"], "was not sampled")]:
        assert qelix("record", *options, "-o", tmp_path / name, "true").returncode == 0
        result = qelix("cpu", tmp_path / name)
        assert result.returncode == 1 and part in result.stderr, result.stderr
