"""`qelix diff`, `merge` and `ranks` on sessions whose numbers are known."""

import csv
import io
import json
import os

import pytest

from conftest import qelix, report
from made_session import CONDITION, IO, TICK, Process, write_session
from pages import data_of, make_page

START = 1_000_000_000
MS = 1_000_000


def run(path, ticks=100, waits=100, wait=2 * MS, pid=100):
    """A thread that burns so many ticks and waits so often for a lock."""
    process = Process(pid).thread(pid, "main", START)
    for number in range(waits):
        begin = START + number * 20 * MS
        process.lock(pid, begin, begin + wait + number % 3)
    process.ticks(pid, START + TICK, ticks)
    return write_session(path, process)


def diff(*arguments, status=0):
    result = qelix("diff", *arguments, "--json", "-n", "0")
    assert result.returncode == status, result.stderr
    facts = json.loads(result.stdout)
    return facts, {(row["kind"], row["place"]): row for row in facts["rows"]}


def test_a_session_against_itself_is_the_same(session):
    facts, rows = diff(run(session), session)
    assert {row["verdict"] for row in facts["rows"]} == {"same"}
    assert {row["change"] for row in facts["rows"]} == {0}
    assert {("cpu", ""), ("wait", "lock"), ("call", "pthread"), ("lock", "mutex")} <= set(rows)


def test_what_got_slower_is_told_and_what_got_faster(tmp_path):
    a = run(tmp_path / "a", ticks=400, wait=2 * MS)
    b = run(tmp_path / "b", ticks=200, wait=3 * MS)
    facts, rows = diff(a, b)
    cpu, lock = rows["cpu", ""], rows["wait", "lock"]
    assert (cpu["verdict"], lock["verdict"]) == ("better", "worse")
    assert cpu["a"] == {"ns": 400 * TICK, "noise": pytest.approx(20 * TICK), "count": 400}
    assert cpu["change"] == -200 * TICK
    assert lock["change"] == 100 * MS
    assert facts["rows"][0]["verdict"] != "same"


def test_a_difference_within_the_noise_is_not_told(tmp_path):
    _, rows = diff(run(tmp_path / "a", ticks=100), run(tmp_path / "b", ticks=112))
    assert rows["cpu", ""]["verdict"] == "same"
    assert 0.05 < rows["cpu", ""]["likelihood"] < 1


def test_the_spread_of_runs_is_noise(tmp_path):
    runs = [run(tmp_path / str(number), ticks=ticks) for number, ticks in enumerate([300, 500, 700, 400, 600, 800])]
    _, rows = diff(runs[0], runs[3])
    assert rows["cpu", ""]["verdict"] == "worse"
    several, rows = diff(",".join(map(str, runs[:3])), ",".join(map(str, runs[3:])))
    assert (several["runsA"], several["runsB"]) == (3, 3)
    assert rows["cpu", ""]["change"] == 100 * TICK
    assert rows["cpu", ""]["noise"] == pytest.approx(TICK * (2 * 200**2 / 3) ** 0.5)
    assert rows["cpu", ""]["verdict"] == "same"


def test_shares_compare_runs_of_other_lengths(tmp_path):
    a = run(tmp_path / "a", ticks=100, waits=100)
    b = run(tmp_path / "b", ticks=200, waits=200)
    facts, rows = diff(a, b, "--shares")
    assert facts["unit"] == "share"
    assert rows["function", "[no module]"]["a"]["share"] == rows["function", "[no module]"]["b"]["share"] == 1
    assert rows["wait", "lock"]["verdict"] == "same"
    _, rows = diff(a, b)
    assert rows["wait", "lock"]["verdict"] == "worse"


def fitting(*arguments):
    """What a command prints, in one line: no line of it is wider than a usual screen."""
    lines = qelix(*arguments).stdout.splitlines()
    assert lines and max(map(len, lines)) <= 80
    return " ".join(" ".join(lines).split())


def test_the_forms_of_a_difference_agree(tmp_path):
    a, b = run(tmp_path / "a", ticks=400), run(tmp_path / "b", ticks=100)
    facts, _ = diff(a, b)
    rows = list(csv.DictReader(io.StringIO(qelix("diff", a, b, "--csv", "-n", "0").stdout)))
    assert [row["name"] for row in rows] == [row["name"] for row in facts["rows"]]
    assert [float(row["change"]) for row in rows] == pytest.approx([row["change"] for row in facts["rows"]])
    text = fitting("diff", a, b, "-n", "1")
    assert "better" in text and f"and {len(rows) - 1} more" in text
    fitting("diff", a, b)
    fitting("diff", "--shares", a, b)


def test_the_rows_of_a_difference_begin_with_the_largest_change(tmp_path):
    def session(path, locks):
        process = Process(100).thread(100, "main", START)
        for number, wait in enumerate(locks):
            for turn in range(50):
                begin = START + turn * 100 * MS
                process.lock(100, begin, begin + wait * MS, 0x1000 + 0x100 * number)
        return write_session(path, process)

    a, b = session(tmp_path / "a", [2, 5, 3, 1]), session(tmp_path / "b", [9, 1, 3, 2])
    facts = diff(a, b)[0]["rows"]
    told = [row["verdict"] != "same" for row in facts]
    assert told == sorted(told, reverse=True), "what is within the noise comes behind"
    for part in (True, False):
        changes = [abs(row["change"]) for row, is_told in zip(facts, told) if is_told == part]
        assert changes == sorted(changes, reverse=True)


def test_a_damaged_session_is_compared_as_far_as_it_goes(tmp_path):
    a = run(tmp_path / "a")
    (trace,) = a.glob("trace/*.umt")
    trace.write_bytes(trace.read_bytes()[:-3])
    result = qelix("diff", a, run(tmp_path / "b"))
    assert result.returncode == 1 and "damaged" in result.stderr


def job(path):
    """Four ranks; the third one writes for longer than the others, which wait for it at the end."""
    for rank, (write, wait) in enumerate([(100, 500), (100, 500), (600, 0), (100, 480)]):
        process = Process(200 + rank, rank).thread(200 + rank, f"rank{rank}", START)
        process.call(200 + rank, START, START + write * MS, IO)
        if wait:
            process.lock(200 + rank, START + write * MS, START + (write + wait) * MS, sub=CONDITION)
        process.thread_end(200 + rank, START + 600 * MS + (200 * MS if rank == 2 else 0))
        write_session(path / f"rank={rank}", process, record={"host": f"node{rank // 2}"})
    return path


def ranks(path, *arguments):
    result = qelix("ranks", path, "--json", *arguments)
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout)


def test_the_slowest_rank_and_what_explains_it(tmp_path):
    facts = ranks(job(tmp_path / "job"))
    assert [rank["rank"] for rank in facts["ranks"]] == [0, 1, 2, 3]
    assert [rank["host"] for rank in facts["ranks"]] == ["node0", "node0", "node1", "node1"]
    assert (facts["slowestRank"], facts["isBalanced"]) == (2, False)
    assert (facts["explainedBy"], facts["explainedRank"]) == ("io", 2)
    columns = {column["name"]: column for column in facts["columns"]}
    assert columns["io"]["meanNs"] == 225 * MS and columns["io"]["maxNs"] == 600 * MS
    assert columns["io"]["imbalance"] == pytest.approx(600 / 225)
    assert facts["overMeanNs"] == pytest.approx(375 * MS)
    third = facts["ranks"][2]
    assert (third["wallNs"], third["ioNs"], third["restNs"]) == (800 * MS, 600 * MS, 200 * MS)
    text = fitting("ranks", tmp_path / "job")
    assert "Rank 2 is the slowest: wall 800 ms" in text and "I/O explains it" in text


def test_ranks_that_wait_for_each_other_are_told_apart_by_what_they_do(tmp_path):
    for rank, burnt in enumerate([20, 100, 20, 20]):
        process = Process(300 + rank, rank).thread(300 + rank, "rank", START)
        process.ticks(300 + rank, START + TICK, burnt).thread_end(300 + rank, START + 500 * MS)
        write_session(tmp_path / "job" / f"rank={rank}", process)
    facts = ranks(tmp_path / "job")
    assert facts["isBalanced"] is True
    assert (facts["explainedBy"], facts["explainedRank"]) == ("cpu", 1)


def test_ranks_in_fewer_rows_are_the_longest(tmp_path):
    facts = ranks(job(tmp_path / "job"), "-n", "1")
    assert facts["count"] == 4 and [rank["rank"] for rank in facts["ranks"]] == [2]
    rows = list(csv.DictReader(io.StringIO(qelix("ranks", tmp_path / "job", "--csv").stdout)))
    assert [row["rank"] for row in rows] == ["0", "1", "2", "3"] and rows[2]["io_ns"] == str(600 * MS)


def test_a_summary_is_believed_while_it_is_newer_than_the_files(tmp_path):
    job(tmp_path / "job")
    session = tmp_path / "job/rank=1"
    summary = {"version": 1, "rank": 1, "host": "told", "wallNs": 7, "processes": 1, "threads": 1, "threadNs": 7,
               "times": {"cpu": 5}, "locks": [], "functions": [], "damaged": False}
    (session / "summary.json").write_text(json.dumps(summary))
    assert ranks(tmp_path / "job")["ranks"][1]["host"] == "told"
    for text in ["", "[]", '{"version": 99}', '{"version": 1', "\0" * 100]:
        (session / "summary.json").write_text(text)
        assert ranks(tmp_path / "job")["ranks"][1]["host"] == "node0"


def test_hostile_summaries_are_read_without_harm(tmp_path):
    job(tmp_path / "job")
    for value in ["null", "-1", "1e999", '"x"', "[]", "{}", "99999999999999999999999"]:
        (tmp_path / "job/rank=0/summary.json").write_text(
            '{"version": 1, "rank": %s, "host": %s, "wallNs": %s, "times": %s, "locks": [%s], "damaged": %s}'
            % ((value,) * 6))
        assert qelix("ranks", tmp_path / "job").returncode == 0


def test_what_is_no_job_is_refused(tmp_path):
    result = qelix("ranks", tmp_path)
    assert result.returncode == 1 and "rank=N" in result.stderr


def test_a_job_is_no_session_and_the_way_on_is_told(tmp_path):
    path = job(tmp_path / "job")
    result = qelix("report", path)
    assert result.returncode == 1 and f"{path}/rank=0" in result.stderr and f"qelix ranks {path}" in result.stderr
    assert qelix("report", f"{path}/rank=0").returncode == 0


def test_tables_of_a_merged_session_fit_80_columns(tmp_path):
    merged = merged_of_equal_ids(tmp_path)
    for name in ["threads", "locks", "waits", "blocked"]:
        text = qelix(name, merged, env={**os.environ, "COLUMNS": "80"}).stdout
        assert max(map(len, text.splitlines())) <= 80, text


def test_a_merged_job_is_one_session(tmp_path):
    result = qelix("merge", tmp_path / "merged", job(tmp_path / "job"))
    assert result.returncode == 0, result.stderr
    assert "4 sessions" in result.stderr
    facts = report(tmp_path / "merged")
    assert sorted(process["pid"] for process in facts["processes"]) == [200, 201, 202, 203]
    assert sorted(process["mpiRankId"] for process in facts["processes"]) == [0, 1, 2, 3]
    assert not list(tmp_path.glob("merged.new-*"))


def test_processes_of_one_id_on_two_hosts_stay_apart(tmp_path):
    a = run(tmp_path / "a", waits=3)
    b = run(tmp_path / "b", waits=4)
    assert qelix("merge", tmp_path / "merged", a, b).returncode == 0
    calls = [process["classes"][0]["calls"] for process in report(tmp_path / "merged")["processes"]]
    assert sorted(calls) == [3, 4]
    assert len(list((tmp_path / "merged/trace").iterdir())) == 2


def merged_of_equal_ids(path, host="host"):
    """Two sessions whose processes, threads and locks have the same numbers, and names of their own."""
    for name, child in [("alpha", 101), ("beta", 102)]:
        parent = Process(100, host=host).thread(100, name, START).lock(100, START, START + MS)
        started = Process(child, host=host).thread(child, f"{name}-child", START)
        write_session(path / name, parent, started, record={"processes": [{"pid": child, "parent": 100}]})
    assert qelix("merge", path / "merged", path / "alpha", path / "beta").returncode == 0
    return path / "merged"


def test_threads_and_trees_of_equal_ids_keep_their_names(tmp_path):
    merged = merged_of_equal_ids(tmp_path)
    facts = report(merged)
    assert {(entry["mark"], entry["pid"], entry["parent"]) for entry in facts["processes"]} == {
        ("s0@", 100, None), ("s1@", 100, None), ("s0@", 101, 100), ("s1@", 102, 100)}
    text = qelix("report", "--full", merged).stdout
    assert "  s0@100 alpha: 1 thread" in text and "    s0@101 alpha-child: 1 thread" in text
    assert "  s1@100 beta: 1 thread" in text and "    s1@102 beta-child: 1 thread" in text
    rows = list(csv.DictReader(io.StringIO(qelix("locks", merged, "--csv").stdout)))
    assert {(row["mark"], row["lastAcquirers"]) for row in rows} == {("s0@", "alpha (100)"), ("s1@", "beta (100)")}
    again = tmp_path / "again"
    assert qelix("merge", again, merged, tmp_path / "alpha").returncode == 0
    assert {entry["mark"] for entry in report(again)["processes"]} == {"s0@s0@", "s0@s1@", "s1@"}


def test_pages_keep_equal_ids_apart(tmp_path):
    page = data_of(make_page("timeline", merged_of_equal_ids(tmp_path), tmp_path / "page.html"))
    threads = [(thread["mark"], thread["pid"], thread["process"]) for thread in page["timeline"]["threads"]]
    assert sorted(threads)[:2] == [("s0@", 100, "alpha"), ("s0@", 101, "alpha-child")]
    assert len({mark + str(pid) for mark, pid, _ in threads}) == 4


def test_exports_keep_equal_ids_apart(tmp_path):
    merged = merged_of_equal_ids(tmp_path)
    events = json.loads(qelix("export", "chrome", merged).stdout)["traceEvents"]
    names = [(event["pid"], event["args"]["name"]) for event in events if event["name"] == "process_name"]
    assert sorted(name for _, name in names) == ["alpha", "alpha-child", "beta", "beta-child"]
    assert len({pid for pid, _ in names}) == 4 and (100, "alpha") in names
    calls = {event["pid"] for event in events if event["ph"] == "X"}
    assert calls == {pid for pid, name in names if name in ("alpha", "beta")}


def test_a_host_may_be_called_like_a_mark(tmp_path):
    facts = report(merged_of_equal_ids(tmp_path / "job", host="s1-node"))
    assert sorted(entry["parent"] or 0 for entry in facts["processes"]) == [0, 0, 100, 100]
    assert {entry["mark"] for entry in report(tmp_path / "job/beta")["processes"]} == {""}


def test_clocks_of_two_hosts_are_brought_together(tmp_path):
    def host(path, boot, started, pid):
        process = Process(pid).thread(pid, "main", started).call(pid, started, started + MS)
        return write_session(path, process, record={"bootId": boot, "start": {
            "monotonicNs": started, "realtimeNs": 1_700_000_000_000_000_000}})

    a = host(tmp_path / "a", "one", 50_000 * MS, 100)
    b = host(tmp_path / "b", "two", 9_000 * MS, 101)
    assert qelix("merge", tmp_path / "merged", a, b).returncode == 0
    merged = json.loads((tmp_path / "merged/session.json").read_text())["merged"]
    assert [part["clockShiftNs"] for part in merged] == [0, 41_000 * MS]
    page = make_page("timeline", tmp_path / "merged", tmp_path / "page.html")
    assert data_of(page)["timeline"]["spanNs"] == MS
    assert report(tmp_path / "merged")["wallNs"] == MS
    rows = list(csv.DictReader(io.StringIO(qelix("export", "csv", tmp_path / "merged").stdout)))
    assert {(row["start_ns"], row["end_ns"]) for row in rows} == {(str(50_000 * MS), str(50_001 * MS))}
    inside = qelix("export", "csv", tmp_path / "merged", "--time", "0ms..1ms").stdout
    assert len(inside.splitlines()) == 3
    threads = json.loads(qelix("threads", tmp_path / "merged", "--json", "--time", "500us..1ms").stdout)["rows"]
    assert [(row["wallNs"], row["sleep"]) for row in threads] == [(MS // 2, 1)] * 2


def test_a_merge_says_what_cannot_be_believed(tmp_path):
    a = write_session(tmp_path / "a", Process(1).thread(1, "a", START), record={"bootId": "one", "tickNs": 1})
    b = write_session(tmp_path / "b", Process(1).thread(1, "b", START), record={"bootId": "two"})
    result = qelix("merge", tmp_path / "merged", a, b)
    assert result.returncode == 0
    assert f"{b} does not note its clock" in result.stderr and "other tickNs" in result.stderr


def test_a_merge_never_overwrites(tmp_path):
    a = run(tmp_path / "a")
    for out in [a, tmp_path]:
        result = qelix("merge", out, a)
        assert result.returncode == 125 and "already" in result.stderr
    result = qelix("merge", tmp_path / "merged", a, tmp_path / "none")
    assert result.returncode == 1 and not (tmp_path / "merged").exists()
