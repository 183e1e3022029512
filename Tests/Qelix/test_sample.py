"""The samples of `qelix run`: shares of a known split of work, hidden frames, folded stacks, refusals."""

import os
import re
import time

import pytest

from conftest import SUBJECT, dump, full_text, qelix, report

HANDLER = {"ZorvUmsSignalHandler", "ZorvUmsCaptureSampleRecord", "__restore_rt"}
SPLIT = ["WorkSixty", "WorkThirty", "WorkTen"]


def sample(session, *command, options=()):
    result = qelix("run", *options, "-o", session, "--", *command)
    assert result.returncode == 0, result.stderr
    return result, report(session)


def total_of(functions, name):
    return sum(function["total"] for function in functions if function["name"] == name)


@pytest.mark.parametrize("threads, milliseconds", [(1, 3000), (4, 3000)])
def test_a_known_split_of_work_is_reported_within_3_points(session, threads, milliseconds):
    result, facts = sample(session, SUBJECT, "burn", milliseconds, threads, options=["--min", "all=off"])
    worked = [int(number) for number in result.stdout.split()]
    cpu = facts["cpu"]
    totals = [total_of(cpu["functions"], name) for name in SPLIT]
    for worked_here, samples_here in zip(worked, totals):
        assert abs(100 * worked_here / sum(worked) - 100 * samples_here / cpu["samples"]) < 3
    burners = [thread for thread in cpu["threads"] if thread["name"] == "burner"]
    assert len(burners) == threads
    for thread in burners:
        here = [total_of(thread["functions"], name) for name in SPLIT]
        assert sum(here) >= 0.97 * thread["samples"] and sorted(here, reverse=True) == here
    assert re.search(r"of the CPU time: thread burner \(\d+\)", full_text(session))


def test_threads_that_sleep_have_no_samples(session):
    _, facts = sample(session, SUBJECT, "contend", "200")
    assert facts["cpu"]["samples"] <= 2


def test_both_kinds_of_collection_go_together(session):
    result, facts = sample(session, SUBJECT, "burn", "100", "2", options=["--min", "all=0"])
    (process,) = facts["processes"]
    names = {call["name"] for thread in process["threads"] for call in thread["calls"]}
    assert {"pthread_create", "pthread_join"} <= names
    assert process["samples"] > 0
    assert "WHERE CPU GOES" in result.stderr and "pthread_join" in full_text(session)


def test_told_so_nothing_is_sampled(session):
    qelix("run", "--no-sample", "-o", session, "--", SUBJECT, "burn", "50", "1")
    assert report(session)["cpu"]["samples"] == 0
    assert "SAMPLING" not in (session / "agent.conf").read_text()
    assert not list((session / "sample").iterdir())


def test_only_sampled_there_is_no_trace(session):
    _, facts = sample(session, SUBJECT, "burn", "50", "1", options=["--min", "all=off"])
    assert "TRACE" not in (session / "agent.conf").read_text()
    assert facts["thresholdsNs"] is None
    assert facts["processes"][0]["samples"] > 0
    assert facts["processes"][0]["threads"] == []


def test_the_handlers_frames_are_hidden_until_asked_for(session):
    sample(session, SUBJECT, "burn", "200", "1")
    (samples,) = (session / "sample").iterdir()
    frames = [line["frames"] for line in dump(samples) if line["type"] == "sample"]
    assert all("ZorvUmsSignalHandler" in names for names in frames), "the files have them"
    assert all(names[0] != "WorkSixty" for names in frames)
    folded = qelix("export", "--to", "folded", session).stdout
    assert "ZorvUmsSignalHandler" not in folded and "__restore_rt" not in folded
    assert "ZorvUmsSignalHandler" in qelix("export", "--to", "folded", "--agent-frames", session).stdout
    names = {function["name"] for function in report(session)["cpu"]["functions"]}
    assert not names & HANDLER
    assert "ZorvUmsSignalHandler" in qelix("report", "--agent-frames", "--json", session).stdout


def test_folded_stacks_hold_every_sample_from_the_outermost_frame_on(session):
    _, facts = sample(session, SUBJECT, "burn", "200", "2")
    lines = qelix("export", "--to", "folded", session).stdout.splitlines()
    stacks = [line.rsplit(" ", 1) for line in lines]
    assert sum(int(count) for _, count in stacks) == facts["cpu"]["samples"]
    assert len({stack for stack, _ in stacks}) == len(stacks)
    burning = [stack.split(";") for stack, _ in stacks if "WorkSixty" in stack]
    assert burning
    for stack in burning:
        assert stack[0].startswith("QelixSubject (") and stack[1].startswith("burner (")
        assert stack.index("Work") < stack.index("WorkSixty")


def test_export_refuses_what_it_cannot_do(session):
    qelix("run", "-o", session, "--", "true")
    assert qelix("export", "--to", "folded", session).returncode == 1
    result = qelix("export", "--to", "nonsense", session)
    assert result.returncode == 125 and "the formats are folded" in result.stderr


# ---- the options -----------------------------------------------------------------------------------------


def test_the_configuration_says_what_was_asked_for(session):
    sample(session, "true", options=["--stacks=17", "--signal", "50"])
    lines = (session / "agent.conf").read_text().splitlines()
    assert "QELIX_ENABLE_SAMPLING=1" in lines
    assert "QELIX_CALLSTACK_COLLECTION=1" in lines
    assert "QELIX_CALLSTACK_DEPTH=17" in lines
    assert "QELIX_PROFILING_SIGNAL_NUMBER=50" in lines
    assert f"QELIX_CPU_PROFILE_DIR={session}/sample" in lines


def test_the_kernels_tick_is_the_default_and_the_floor(tmp_path, session):
    tick = round(time.clock_getres(6) * 1e9)  # CLOCK_MONOTONIC_COARSE
    _, facts = sample(session, "true")
    assert f"QELIX_TIMER_INTERVAL={tick}\n" in (session / "agent.conf").read_text()
    for options in (["-i", "1us"], ["--interval=1us"], ["-F", "100000"]):
        result = qelix("run", *options, "--", "true", cwd=tmp_path)
        assert result.returncode == 125
        assert "tick" in result.stderr and "--force" in result.stderr
    forced = tmp_path / "forced"
    assert qelix("run", "-i", "1us", "--force", "-o", forced, "--", SUBJECT, "burn", "50", "1").returncode == 0
    assert report(forced)["cpu"]["periodNs"] == tick
    for name, options in [("longer", ["-i", "50ms"]), ("rarer", ["-F", "20"])]:
        assert qelix("run", *options, "-o", tmp_path / name, "--", "true").returncode == 0
        assert report(tmp_path / name)["cpu"]["periodNs"] == 50_000_000


@pytest.mark.parametrize(
    "arguments, part",
    [
        (["-i", "soon"], "no interval"),
        (["-i", "0"], "no interval"),
        (["-F", "0"], "--frequency"),
        (["-F", "100", "-i", "10ms"], "excludes"),
        (["--signal", "9"], "no handler"),
        (["--signal", "33"], "no handler"),
        (["--signal", "65"], "no handler"),
        (["--stacks=0"], "--stacks"),
        (["--no-sample", "--signal", "50"], "is for samples"),
        (["--no-sample", "-e", "cycles"], "is for samples"),
        (["--events", "no-such-event", "--force"], "no-such-event"),
    ],
)
def test_what_cannot_work_is_refused_before_the_program_starts(tmp_path, arguments, part):
    result = qelix("run", *arguments, "--", "touch", "started", cwd=tmp_path)
    assert result.returncode == 125
    assert part in result.stderr
    assert not list(tmp_path.iterdir())


@pytest.mark.skipif(os.path.exists("/sys/bus/event_source/devices/cpu"), reason="this machine has counters")
def test_events_without_counters_are_refused(tmp_path):
    result = qelix("run", "--events", "cycles", "--", "true", cwd=tmp_path)
    assert result.returncode == 125
    assert "counters" in result.stderr and "leave --events out" in result.stderr


def test_the_word_behind_a_flag_is_the_program(session):
    result = qelix("run", "-o", session, "-g", "echo", "--stacks=1")
    assert result.stdout == "--stacks=1\n"


def test_the_earlier_names_of_the_options_still_work(session):
    assert qelix("run", "--sample=40ms", "--depth", "9", "-o", session, "--", "true").returncode == 0
    lines = (session / "agent.conf").read_text().splitlines()
    assert "QELIX_TIMER_INTERVAL=40000000" in lines and "QELIX_CALLSTACK_DEPTH=9" in lines


def test_without_an_unwinder_the_program_runs_unsampled_with_a_note(tmp_path, session):
    (tmp_path / "libunwind.so.8").write_text("no library")
    environment = {**os.environ, "LD_LIBRARY_PATH": str(tmp_path)}
    result = qelix("run", "-o", session, "--", "sh", "-c", "exit 6", env=environment)
    assert result.returncode == 6
    assert "no samples: call stacks need libunwind" in result.stderr and "libunwind8" in result.stderr
    assert "SAMPLING" not in (session / "agent.conf").read_text()
    result = qelix("run", "--min", "all=off", "--", "touch", "started", env=environment, cwd=tmp_path)
    assert result.returncode == 125 and not (tmp_path / "started").exists()
