"""Everything at once for a while: no hang, no crash, every file can be read, every lost sample is counted."""

import os
from collections import Counter

import records
import session as harness
from sampling import all_records, assert_files_parse, complaints, counted, lost, said, samples_of
from session import program

SECONDS = int(os.environ.get("QELIX_TEST_SOAK_SECONDS") or 5)
FASTEST_NS = 100_000  # the kernel fires on its tick and counts what it missed


def test_soak(session, monkeypatch):
    monkeypatch.setattr(harness, "PATIENCE", SECONDS + 60)
    session.configure(QELIX_TIMER_INTERVAL=FASTEST_NS, QELIX_PROFILE_CHILDREN=1)
    run = session.start("storm", "soak", 1000 * SECONDS, 20000, "heedless",
                        env={"ZORV_TEST_MODULE": program("module.so")}).finish()
    assert (run.status, run.err) == (0, b"")
    assert complaints(session) == []
    assert_files_parse(session)
    (sent,), = said(run, "sent")
    found = Counter(record.type for record in all_records(run))
    assert found[records.SAMPLE] + lost(session) >= int(sent) > 1000 * SECONDS
    assert found[records.SAMPLE] > int(sent) / 4
    assert counted(session, "Timer overrun count") > 100 * SECONDS
    children = [int(pid) for pid, in said(run, "child")]
    assert len(children) > SECONDS
    for child in children:
        assert {record.tid for record in all_records(run, child)} == {child}
    assert sum(len(samples_of(run, pid=child)) for child in children) > 0


def test_soak_with_tracing(session, monkeypatch):
    monkeypatch.setattr(harness, "PATIENCE", SECONDS + 60)
    session.configure(("QELIX_TRACE_SYSCALL", "1:100000:0"), ("QELIX_TRACE_PTHREAD", "1:100000:0"),
                      ("QELIX_UMT_DIR", session.root / "trace"), QELIX_TIMER_INTERVAL=FASTEST_NS,
                      QELIX_PROFILE_CHILDREN=1)
    run = session.start("storm", "soak", 1000 * SECONDS, 20000, "heedless",
                        env={"ZORV_TEST_MODULE": program("module.so")}).finish()
    assert (run.status, run.err) == (0, b"")
    assert complaints(session) == []
    assert_files_parse(session)
    (sent,), = said(run, "sent")
    assert len(samples_of(run)) + lost(session) >= int(sent)
