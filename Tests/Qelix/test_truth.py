"""Programs whose bottleneck is known, by construction or by their own clocks: the report finds it."""

import csv
import io
import os
import textwrap

from conftest import qelix, report

TRUTH = os.environ["QELIX_TRUTH"]


def record(session, *command, options=("--sample",)):
    result = qelix("run", *options, "-o", session, "--", *command)
    assert result.returncode == 0, result.stderr
    return result


def rows_of(*arguments):
    result = qelix(*arguments, "--csv")
    assert result.returncode == 0, result.stderr
    return list(csv.DictReader(io.StringIO(result.stdout)))


def test_sleeps_waits_and_cpu_are_those_that_the_programs_own_clocks_measured(session):
    result = record(session, TRUTH, "mix")
    measured = {name: int(time) for name, time in (line.split() for line in result.stdout.splitlines())}
    times = {row["name"]: row for row in report(session)["times"]}
    for thread, kind in [("sleeper", "sleepNs"), ("waiter", "lockNs"), ("burner", "cpuNs")]:
        assert abs(times[thread][kind] - measured[thread]) <= 0.03 * measured[thread], (thread, measured, times)
        others = [times[thread][other] for other in ("sleepNs", "lockNs", "ioNs", "cpuNs") if other != kind]
        assert sum(others) <= 0.05 * measured[thread], (thread, times)
    for row in times.values():
        assert row["restNs"] <= row["wallNs"]
    (lock,) = [row for row in rows_of("locks", session, "--thread", "waiter") if row["lock"] == "g_queueLock"]
    assert abs(int(lock["totalNs"]) - measured["waiter"]) <= 0.03 * measured["waiter"]


def test_the_lock_of_a_queue_is_the_first_of_the_locks(session):
    result = record(session, TRUTH, "queue")
    lines = result.stderr.splitlines()
    table = next(number for number, line in enumerate(lines) if line.startswith("LOCKS YOU WAIT FOR"))
    assert lines[table + 1].split()[:2] == ["g_queueLock", "mutex"], result.stderr
    assert "last acquired by worker-" in lines[table + 2]
    first, *others = rows_of("locks", session)
    assert first["lock"] == "g_queueLock" and int(first["totalNs"]) > sum(int(row["totalNs"] or 0) for row in others)
    assert 1 < float(first["meanWaiters"]) < 4
    assert [row["lock"] for row in others if row["lock"].startswith("heap#")] == ["heap#1"]
    assert any(line.startswith("  worker-* × 4 ") for line in lines), result.stderr


def test_the_commits_of_a_database_are_first_in_io(session, tmp_path):
    script = textwrap.dedent(f"""
        import sqlite3
        base = sqlite3.connect({str(tmp_path / "base")!r})
        base.execute("create table t (x)")
        for i in range(100):
            base.execute("insert into t values (?)", (i,))
            base.commit()
    """)
    record(session, "/usr/bin/python3", "-c", script)
    first = rows_of("io", session)[0]
    assert first["call"] in ("fsync", "fdatasync"), first
    assert first["class"] == "io-sync" and int(first["calls"]) >= 100
