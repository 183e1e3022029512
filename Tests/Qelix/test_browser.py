"""The pages in a browser without a window: what a user sees and does."""

import re

import pytest

from conftest import SUBJECT, qelix
from pages import browser, make_page, rendered
from test_pages import HOSTILE, START, made
from made_session import TICK, Process, write_session

pytestmark = pytest.mark.skipif(browser() is None, reason="chromium is not installed; apt-get install chromium")


def test_the_time_line_says_what_it_draws(session, tmp_path):
    make_page("timeline", made(session), tmp_path / "page.html")
    document = rendered(tmp_path / "page.html", tmp_path)
    assert re.search(r'id="legend-lock".*?<b>L</b>lock: [^<]*, 2 calls', document)
    assert re.search(r'id="legend-sleep".*?<b>s</b>sleep: 2.00 µs, 1 call<', document)
    assert re.search(r'id="legend-cpu".*?<b>#</b>ran on a CPU: 32.0 ms, 8 samples', document)
    assert re.search(r'<canvas[^>]*id="timeline-canvas"[^>]*aria-label="Time line', document)


def test_search_and_keys_on_the_time_line(session, tmp_path):
    make_page("timeline", made(session), tmp_path / "page.html")
    document = rendered(tmp_path / "page.html", tmp_path, """
        const search = document.getElementById("timeline-search");
        search.value = "condition";
        search.dispatchEvent(new Event("input"));
        search.dispatchEvent(new KeyboardEvent("keydown", { key: "Enter" }));
        document.getElementById("timeline-canvas").dispatchEvent(new KeyboardEvent("keydown", { key: "+" }));
    """)
    assert re.search(r'id="timeline-matched"[^>]*>1 call drawn alone: 1.00 µs<', document)
    assert re.search(r'id="timeline-said"[^>]*>worker \(101\) · c condition: ', document)


def test_the_flame_graph_zooms_and_searches(session, tmp_path):
    process = Process(100).thread(100, "main", START).thread(101, "other", START)
    process.ticks(100, START + TICK, 3, [0x7000]).ticks(101, START + TICK, 1, [0x7000])
    make_page("flame", write_session(session, process), tmp_path / "page.html")
    document = rendered(tmp_path / "page.html", tmp_path, """
        const search = document.getElementById("flame-search");
        search.value = "no module";
        search.dispatchEvent(new Event("input"));
        const select = document.getElementById("flame-thread");
        select.value = "t0";
        select.dispatchEvent(new Event("change"));
        document.querySelectorAll(".frame")[1].click();
    """)
    assert re.search(r'id="flame-matched"[^>]*>matched: 100.0 % \(3 samples\)<', document)
    assert re.search(r'id="flame-said"[^>]*>\[no module\] · total 100.0 %: 3 samples, 12.0 ms', document)
    assert document.count('role="treeitem"') == 2


def test_the_report_has_its_sections(session, tmp_path):
    make_page("html", made(session), tmp_path / "page.html")
    document = rendered(tmp_path / "page.html", tmp_path)
    for section in ["times", "locks", "cpu", "calls", "never", "cautions", "timeline", "flame"]:
        assert f'<h2 id="{section}">' in document
    assert "<title>qelix: session</title>" in document


def test_hostile_names_are_text(tmp_path):
    process = Process(100)
    for number, name in enumerate(HOSTILE):
        process.thread(100 + number, name, START).call(100 + number, START + 10, START + 500)
        process.ticks(100 + number, START + TICK, 2)
    session = write_session(tmp_path / "<b>session", process)
    make_page("html", session, tmp_path / "page.html")
    document = rendered(tmp_path / "page.html", tmp_path)
    assert document.count("<script") == 3 and "<b>x" not in document and "<b>session" not in document
    assert "&lt;/script&gt;&lt;b&gt;x (100)" in document


def test_a_real_session(session, tmp_path):
    assert qelix("run", "--sample", "--threshold", "0", "-o", session, "--", SUBJECT, "burn", "200", "2").returncode == 0
    make_page("html", session, tmp_path / "page.html")
    document = rendered(tmp_path / "page.html", tmp_path)
    assert document.count('role="treeitem"') > 3
    assert "Uncaught" not in document
