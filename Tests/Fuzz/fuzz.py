"""Runs fuzzers on seeds that are real files, whole and cut short.

    fuzz.py [--seconds N] FUZZER...     QELIX and QELIX_FUZZERS name the built command and the fuzzers' folder

A finding stays in the working directory as crash-..., leak-... or timeout-...; `FUZZER FILE` repeats it."""

import argparse
import json
import os
import pathlib
import struct
import subprocess
import sys
import tempfile

# Threads that wait and burn, a child, and a hostile thread name.
PROGRAM = """
import os, threading, time
lock = threading.Lock()
def work():
    for turn in range(20):
        with lock:
            time.sleep(0.001)
    sum(range(300000))
threads = [threading.Thread(target=work) for _ in range(3)]
[thread.start() for thread in threads]
[thread.join() for thread in threads]
os.waitpid(os.posix_spawn("/bin/true", ["true"], os.environ), 0)
"""

# What each fuzzer reads, as patterns in a session.
SEEDS = {
    "FuzzTrace": ["trace/*.umt"],
    "FuzzSample": ["sample/*.ums"],
    "FuzzMetadata": ["metadata/*.meta"],
    "FuzzSessionRecord": ["session.json"],
    "FuzzConfiguration": ["agent.conf"],
    "FuzzLogs": [".log/*.txt"],
    "FuzzSummary": ["summary.json"],
}
SECTIONS = ["agent.conf", "session.json", ".log/*.txt", "trace/*.umt", "sample/*.ums", "metadata/*.meta"]
LONGEST_SEED = 16384
LONGEST_SECTION = 4096


def record(session):
    subprocess.run([os.environ["QELIX"], "run", "--sample", "--threshold", "0", "-o", session, "--",
                    "/usr/bin/python3", "-c", PROGRAM], check=True, capture_output=True, timeout=120)
    (session / "summary.json").write_text(json.dumps(SUMMARY))


SUMMARY = {"version": 1, "rank": 3, "host": "node", "wallNs": 5, "processes": 1, "threads": 2, "threadNs": 9,
           "times": {"cpu": 4, "lock": 1, "io": 2}, "locks": [{"name": "queue", "ns": 1}],
           "functions": [{"name": "main", "ns": 4}], "damaged": False}


def cuts(content):
    """The beginning of a file at its full length, and cut off where a kill or a full disk may cut it."""
    content = content[:LONGEST_SEED]
    for size in {len(content), len(content) // 2, len(content) // 2 + 1, min(len(content), 24), 0}:
        yield content[:size]


def whole(session):
    """A session as one input, see FuzzFolder.h. Its modules are not there: reading their symbols takes long."""
    content = b""
    for pattern in SECTIONS:
        file = max(session.glob(pattern), key=lambda path: path.stat().st_size).read_bytes()[:LONGEST_SECTION]
        file = file.replace(b"/usr/", b"/nil/")
        content += struct.pack("<I", len(file)) + file
    return content


def write_seeds(fuzzer, session, folder):
    folder.mkdir()
    if fuzzer in SEEDS:
        files = [path.read_bytes() for pattern in SEEDS[fuzzer] for path in session.glob(pattern)]
    else:
        files = [whole(session)]
    assert files, f"the session has no file for {fuzzer}"
    for number, seed in enumerate(cut for file in files for cut in cuts(file)):
        (folder / f"seed{number}").write_bytes(seed)


def fuzz(fuzzer, seeds, seconds):
    """The fuzzer's status; it says much while it finds nothing, so only its figures are shown then."""
    command = [os.path.join(os.environ["QELIX_FUZZERS"], fuzzer), seeds, "-seed=1", f"-max_total_time={seconds}",
               "-max_len=65536", "-timeout=20", "-rss_limit_mb=1024", "-print_final_stats=1", "-verbosity=0"]
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace")
    lines = result.stdout.splitlines()
    print(fuzzer, *(lines if result.returncode != 0 else [line for line in lines if "executed_units" in line]), sep="\n",
          flush=True)
    return result.returncode


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=int, default=600)
    parser.add_argument("fuzzers", nargs="+")
    arguments = parser.parse_args()
    status = 0
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        record(folder / "session")
        for fuzzer in arguments.fuzzers:
            write_seeds(fuzzer, folder / "session", folder / fuzzer)
            status = status or fuzz(fuzzer, folder / fuzzer, arguments.seconds)
    return status


if __name__ == "__main__":
    sys.exit(main())
