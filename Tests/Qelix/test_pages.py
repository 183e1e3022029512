"""`qelix flame`, `timeline` and `html`: what the pages carry is what the files hold."""

import re

import pytest

from conftest import SUBJECT, dump, qelix, report
from made_session import CONDITION, NEVER, TICK, Process, unequal_session, write_session
from pages import built, data_of, evaluate, make_page

COMMANDS = ["flame", "timeline", "html"]
START = 1_000_000_000


def made(path):
    """Two threads: one sleeps, locks and never comes back, one burns CPU."""
    process = Process(100).thread(100, "main", START).thread(101, "worker", START + 5)
    process.call(100, START + 1000, START + 3000).lock(100, START + 5000, START + 9000)
    process.lock(101, START + 6000, START + 7000, sub=CONDITION).lock(101, START + 20_000_000, NEVER)
    process.ticks(100, START + TICK, 3, [0x7000, 0x8001]).ticks(101, START + TICK, 5, [0x9000])
    process.thread_end(100, START + 40_000_000)
    return write_session(path, process)


def record(session, *arguments):
    result = qelix("run", "--sample", "--threshold", "0", "-o", session, "--", SUBJECT, *arguments)
    assert result.returncode == 0, result.stderr


def records_of(session, kinds):
    files = [*session.glob("trace/*.umt"), *session.glob("sample/*.ums")]
    return [record for record in dump(*files) if record.get("type") in kinds]


@pytest.mark.parametrize("command", COMMANDS)
def test_a_page_loads_nothing(session, tmp_path, command):
    page = make_page(command, made(session), tmp_path / "page.html")
    assert "default-src 'none'" in page
    assert not re.search(r"https?://|\bsrc=|@import|url\(|\bfetch\(|XMLHttpRequest|innerHTML", page)


@pytest.mark.parametrize("command", COMMANDS)
def test_the_page_lies_in_the_session_without_an_option(session, command):
    made(session)
    result = qelix(command, session)
    assert result.returncode == 0
    assert result.stdout == f"{session}/qelix-{command}.html\n"
    assert data_of((session / f"qelix-{command}.html").read_text())["session"]["path"] == str(session)
    assert {path.name for path in session.glob("*.html*")} == {f"qelix-{command}.html"}


@pytest.mark.parametrize("command, sections", [
    ("flame", ["flame"]), ("timeline", ["timeline"]),
    ("html", ["times", "locks", "cpu", "calls", "never", "cautions", "timeline", "flame"])])
@pytest.mark.parametrize("kind", ["made", "recorded"])
def test_the_scripts_draw_every_section(session, tmp_path, command, sections, kind):
    made(session) if kind == "made" else record(session, "burn", "100", "2")
    elements = built(make_page(command, session, tmp_path / "page.html"))
    assert [name for tag, name, _ in elements if tag == "h2"] == sections
    assert "session" in [text for tag, _, text in elements if tag == "h1"]


def test_the_flame_graph_has_every_sample(session, tmp_path):
    record(session, "burn", "200", "2")
    page = make_page("flame", session, tmp_path / "page.html")
    samples = len(records_of(session, {"sample"}))
    assert samples > 0
    flame = data_of(page)["flame"]
    assert flame["samples"] == sum(thread["samples"] for thread in flame["threads"]) == samples
    assert sum(sum(thread["self"]) for thread in flame["threads"]) == samples
    total, depth, names = evaluate(
        page, "buildFlame(data.flame, data.flame.threads).total",
        "Math.max(...layOut(buildFlame(data.flame, data.flame.threads), 1000, 1).map((frame) => frame.node.depth))",
        "data.flame.functions.map(([name]) => name)")
    assert total == samples and depth > 1 and "WorkSixty" in names


# As much of a document as the report's tables need.
DOCUMENT = """(() => {
    class Node {
        constructor(tag) { Object.assign(this, { tag, children: [], style: {}, attributes: {} }); }
        append(...nodes) { this.children.push(...nodes); }
        setAttribute(name, value) { this.attributes[name] = value; }
        addEventListener() {}
        get text() { return this.children.map((child) => child instanceof Node ? child.text : child).join(" "); }
    }
    globalThis.Node = Node;
    globalThis.document = { createElement: (tag) => new Node(tag), createTextNode: (text) => text };
    const place = new Node("main");
    showReport(data.report, place, data);
    return place.children.map((child) => [child.tag, child.attributes.id || child.id || "", child.text]);
})()"""


def test_the_report_page_has_its_tables(session, tmp_path):
    page = make_page("html", made(session), tmp_path / "page.html")
    (parts,) = evaluate(page, DOCUMENT, scripts=["report.js"])
    titles = [text for tag, _, text in parts if tag == "h2"]
    assert titles[:5] == ["Where the time went", "Locks that were waited for", "Where CPU went", "Calls",
                          "Calls that never returned"]
    text = " ".join(text for _, _, text in parts)
    assert "main (100)" in text and "worker (101)" in text and "heap#1" in text and "100 main" in text


def test_the_share_of_a_search_counts_a_sample_once(session, tmp_path):
    process = Process(100).thread(100, "main", START)
    process.ticks(100, START + TICK, 4, [0x7000]).ticks(100, START + 20 * TICK, 12, [0x9000])
    page = make_page("flame", write_session(session, process), tmp_path / "page.html")
    both, none = evaluate(page, *(f"markMatches(buildFlame(data.flame, data.flame.threads), () => {wanted})"
                                  for wanted in ["true", "false"]))
    assert both == {"samples": 16, "ns": 16 * TICK} and none == {"samples": 0, "ns": 0}


def test_pictures_weigh_samples_as_the_report_does(session, tmp_path):
    page = make_page("html", unequal_session(session), tmp_path / "page.html")
    total, busier, line = evaluate(
        page, "buildFlame(data.flame, data.flame.threads).totalNs",
        "buildFlame(data.flame, data.flame.threads.filter((thread) => thread.pid === 100)).totalNs",
        "groupTotals(data.timeline, data.timeline.threads.map((t) => decodeThread(data.timeline, t)))[0].ns")
    assert total == line == report(session)["cpu"]["sampledNs"] == 6 * TICK
    assert data_of(page)["flame"]["sampledNs"] == 6 * TICK
    assert busier == 4 * TICK


def test_the_time_line_has_every_call_and_every_sample(session, tmp_path):
    record(session, "contend", "50")
    page = make_page("timeline", session, tmp_path / "page.html")
    timeline = data_of(page)["timeline"]
    calls = records_of(session, {"pthread", "syscall"})
    assert timeline["alone"] + timeline["binned"] + timeline["untimed"] == len(calls) > 0
    for thread in timeline["threads"]:
        assert thread["calls"] == sum(call["tid"] == thread["tid"] for call in calls)
        assert len(thread["waits"]) == 5 * thread["calls"]
        assert sum(thread["runs"][2::4]) == thread["samples"]
    (totals,) = evaluate(page, "groupTotals(data.timeline, data.timeline.threads.map((thread) => "
                               "decodeThread(data.timeline, thread)))")
    ids = [group["id"] for group in timeline["groups"]]
    mutexes = [call for call in calls if call["subType"] == "mutex"]
    assert totals[ids.index("lock")]["calls"] >= len(mutexes) > 0


def test_times_on_the_time_line_are_the_records(session, tmp_path):
    page = make_page("timeline", made(session), tmp_path / "page.html")
    assert data_of(page)["timeline"]["originNs"] == str(START)
    (threads,) = evaluate(page, "data.timeline.threads.map((thread) => decodeThread(data.timeline, thread))")
    main, worker = (next(thread for thread in threads if thread["tid"] == tid) for tid in (100, 101))
    assert [(wait["start"], wait["end"]) for wait in main["waits"]] == [(1000, 3000), (5000, 9000)]
    assert [(run["start"], run["end"], run["samples"]) for run in main["runs"]] == [(0, 3 * TICK, 3)]
    assert [wait["isOpen"] for wait in worker["waits"]] == [False, True]
    assert worker["waits"][1]["end"] == worker["end"] == main["end"] == 40_000_000
    assert (main["name"], worker["name"]) == ("main", "worker")
    assert data_of(page)["timeline"]["locks"][main["waits"][1]["lock"]].startswith("mutex ")


def test_a_search_finds_locks_and_calls(session, tmp_path):
    page = make_page("timeline", made(session), tmp_path / "page.html")
    search = "searchTimeline(data.timeline, data.timeline.threads.map((thread) => decodeThread(data.timeline, thread)), %s)"
    mutex, none, expression = evaluate(page, *(search % f"matcherOf({text})" for text in
                                               ["'MUTEX'", "'nothing of the kind'", "'/^condition/'"]))
    assert len(mutex["hits"]) == 2 and mutex["hits"][0]["wait"]["start"] == 5000
    assert none == {"hits": [], "totalNs": 0}
    assert expression["totalNs"] == 1000


def huge(path, threads=20, calls=15000):
    process = Process(100)
    for tid in range(100, 100 + threads):
        process.thread(tid, f"worker-{tid}", START)
        for number in range(calls):
            begin = START + number * 10_000
            process.lock(tid, begin, begin + 1000 + number % 977, 0x1000 + tid)
        process.ticks(tid, START + tid, 20)
    return write_session(path, process)


def test_a_huge_session_is_drawn_coarser_and_says_so(session, tmp_path):
    page = make_page("html", huge(session), tmp_path / "page.html")
    assert len(page.encode()) < 10_000_000
    timeline = data_of(page)["timeline"]
    assert timeline["binned"] > 0 and timeline["shortestAloneNs"] > 0
    assert timeline["alone"] + timeline["binned"] == 20 * 15000
    totals, = evaluate(page, "groupTotals(data.timeline, data.timeline.threads.map((thread) => "
                             "decodeThread(data.timeline, thread)))")
    lock = totals[[group["id"] for group in timeline["groups"]].index("lock")]
    assert lock["calls"] == 20 * 15000
    assert lock["ns"] == 20 * sum(1000 + number % 977 for number in range(15000))


HOSTILE = [b"</script><b>x", b"<!--<script>", b"\xff\xfe\"'&lt;", b"]]>\\u003c/x"]


@pytest.mark.parametrize("command", COMMANDS)
def test_names_cannot_break_out_of_the_page(tmp_path, command):
    process = Process(100)
    for number, name in enumerate(HOSTILE):
        process.thread(100 + number, name, START).call(100 + number, START + 10, START + 500)
        process.ticks(100 + number, START + TICK, 2)
    session = write_session(tmp_path / "<!--<script>alert(1)</", process)
    page = make_page(command, session, tmp_path / "page.html")
    assert len(re.findall("<script", page)) == len(re.findall("</script>", page)) == 2
    assert "<b>" not in page and "<!--" not in page
    data = data_of(page)
    threads = (data.get("timeline") or data.get("flame"))["threads"]
    assert {thread["name"] for thread in threads} == {
        "</script><b>x", "<!--<script>", "\ufffd\ufffd\"'&lt;", "]]>\\u003c/x"}


@pytest.mark.parametrize("command", COMMANDS)
def test_a_session_without_a_record_has_a_page(session, tmp_path, command):
    page = make_page(command, write_session(session), tmp_path / "page.html")
    data = data_of(page)
    assert all(data[part]["threads"] == [] for part in ["timeline", "flame"] if part in data)
    assert data["session"]["damaged"] is False


@pytest.mark.parametrize("command", COMMANDS)
def test_a_session_that_was_cut_off_is_drawn_up_to_there(session, tmp_path, command):
    (trace,) = made(session).glob("trace/*.umt")
    trace.write_bytes(trace.read_bytes()[: 24 + 80 + 80 + 64 + 7])
    data = data_of(make_page(command, session, tmp_path / "page.html", status=1))
    assert data["session"]["damaged"] is True
    if "timeline" in data:
        assert data["timeline"]["alone"] == 1
    if "flame" in data:
        assert data["flame"]["samples"] == 8


def test_hostile_times_are_drawn_too(session, tmp_path):
    process = Process(100).thread(100, "main", 1)
    process.call(100, 1, 2**64 - 2).call(100, 2**64 - 3, 2**64 - 2).call(100, 0, 5).ticks(100, 2**63, 2)
    timeline = data_of(make_page("timeline", write_session(session, process), tmp_path / "page.html"))["timeline"]
    assert (timeline["alone"], timeline["untimed"]) == (2, 1)


def test_nothing_is_left_where_a_page_cannot_be_written(session, tmp_path):
    made(session)
    for output in [tmp_path / "missing" / "page.html", session]:
        result = qelix("flame", session, "-o", output)
        assert result.returncode == 125
        assert str(output) in result.stderr and "-o FILE" in result.stderr
    assert not list(tmp_path.glob("**/*.new-*"))


def test_what_is_no_session_is_refused(tmp_path):
    for command in COMMANDS:
        result = qelix(command, tmp_path)
        assert result.returncode == 1 and str(tmp_path) in result.stderr
