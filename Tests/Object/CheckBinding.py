"""Proves which entry answers a program that is bound to each old and each new version.

Usage: CheckBinding.py old|new AGENT FAKE_LIBRARY PROGRAM [NAME]

The program runs under the agent with a fake library behind it, which reports the version that it was asked for: only
the old entry asks for the old one. That nobody went past the agent shows in the trace record of the call, which holds
the function's address; for a call without a record, in the frame that calls it, or in the log of the finalised process.

A reference to an old version is answered by the old entry or by the weak one, which of the two is an accident of the
linker. The weak one finds the new function, and so it may answer only where libc has one function for both.
"""

import os
import pathlib
import re
import struct
import subprocess
import sys
import tempfile

from Members import read_members

# Where the address of the called function stands, by kind of record.
ADDRESS_OFFSET = {1: 40, 3: 32}
# Calls without a record of their own.
WITHOUT_RECORD = ("pthread_setname_np", "quick_exit")
# The agent needs these itself: they are not called.
NOT_FAKED = ("dlopen", "dlmopen", "dlclose")
# What the program calls beside the versioned names.
SINGLES = ("pthread_mutex_lock", "pthread_exit")


def functions_of_libc():
    """Address by (name, version), in the libc of this machine."""
    maps = pathlib.Path("/proc/self/maps").read_text()
    libc = re.search(r"/\S*/libc\.so\.6", maps).group(0)
    table = subprocess.run(["readelf", "--dyn-syms", "-W", libc], check=True, capture_output=True, text=True).stdout
    rows = re.findall(r"^\s*\d+: ([0-9a-f]+) .* (\w+)@@?(GLIBC_\S+)", table, re.M)
    return {(name, version): int(address, 16) for address, name, version in rows}


def answers(member, which, libc):
    """The versions that may be reported for a call that is bound to the old or to the new version."""
    if member.old is None:
        return ["GLIBC_2.2.5"]
    if which == "new":
        return [member.new]
    is_same = libc[(member.name, member.old)] == libc[(member.name, member.new)]
    return [member.old, member.new] if is_same else [member.old]


def expected_calls(only):
    rows = [m for m in read_members() if m.old and m.name not in NOT_FAKED]
    rows += [m for n in SINGLES for m in read_members() if m.name == n]
    return [m for m in rows if (m.name == only if only else m.name != "quick_exit")]


def run_program(session, which, agent, fake, program, *only):
    for folder in (".log", ".error", "umt"):
        (session / folder).mkdir()
    name = f"/zorv-binding-{os.getpid()}"
    config = session / "configuration"
    config.write_text(f"QELIX_TRACE_PTHREAD=1\nQELIX_TRACE_SYSCALL=1\n"
                      f"QELIX_UMT_DIR={session}/umt\nQELIX_SHM_NAME={name}\n")
    environment = dict(os.environ, LD_PRELOAD=f"{agent}:{fake}", QELIX_SESSION_DIR=str(session),
                       QELIX_UMA_CONFIG_FILE=str(config))
    try:
        return subprocess.run([program, which, *only], env=environment, capture_output=True, text=True, timeout=60)
    finally:
        pathlib.Path("/dev/shm" + name).unlink(missing_ok=True)


def traced_functions(session):
    """The function address of every record of a call, in the order of the file."""
    data = next((session / "umt").glob("*.umt")).read_bytes()
    addresses = []
    offset = 24
    while offset < len(data):
        kind, size = struct.unpack_from("<HH", data, offset)
        if kind in ADDRESS_OFFSET:
            addresses.append(struct.unpack_from("<Q", data, offset + ADDRESS_OFFSET[kind])[0])
        assert size >= 32, f"no record at offset {offset}"
        offset += size
    assert offset == len(data), "the file ends inside a record"
    return addresses


def check_reports(reports, expected, which, agent):
    """Each call arrived once, in its order, and asked for a version that may answer."""
    if [report[0] for report in reports] != [member.name for member in expected]:
        return [f"other calls arrived than those that were made: {reports}"]
    wrong = []
    libc = functions_of_libc()
    for member, (name, version, _, caller) in zip(expected, reports):
        print(f"{name}: {version}")
        if version not in answers(member, which, libc):
            wrong.append(f"{name} reached {version} instead of {member.old}")
        if name == "pthread_setname_np" and caller != pathlib.Path(agent).name:
            wrong.append(f"{name} was called by {caller}, past the agent")
    return wrong


def check_log(session):
    log = next((session / ".log").iterdir()).read_text()
    finalised = "Lost trace records count = 0" in log and "ERROR" not in log
    return [] if finalised else [f"the process was not finalised before its end: {log}"]


def check_trace(session, reports):
    called = [int(address, 16) for name, _, address, _ in reports if name not in WITHOUT_RECORD]
    traced = traced_functions(session)
    return [] if traced == called else [f"the trace shows other functions than were called: {traced}, {called}"]


def main():
    which, agent, fake, program, *only = sys.argv[1:]
    expected = expected_calls(only[0] if only else None)
    with tempfile.TemporaryDirectory() as directory:
        session = pathlib.Path(directory)
        result = run_program(session, which, agent, fake, program, *only)
        reports = [line.split() for line in result.stdout.splitlines()]
        wrong = check_reports(reports, expected, which, agent) + check_log(session) + check_trace(session, reports)
        if result.returncode != 0 or result.stderr:
            wrong.append(f"status {result.returncode}, standard error: {result.stderr}")
    print("\n".join(wrong))
    sys.exit(1 if wrong else 0)


if __name__ == "__main__":
    main()
