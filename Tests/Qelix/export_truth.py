"""What an export must hold, read from the session's files by the independent reader, and readers of the forms."""

import json
import pathlib
import re
import sys
from collections import Counter, namedtuple

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "BlackBox"))
import records  # noqa: E402

CLASSES = {1: "sleep", 2: "wait", 3: "lock", 4: "io-sync", 5: "io", 6: "syscall"}

Call = namedtuple("Call", "pid tid traced_class start end result object")
Sample = namedtuple("Sample", "pid tid time depth core")


def calls_of(session):
    calls = []
    for path in sorted((session / "trace").glob("*.umt")):
        if path.stat().st_size == 0:
            continue
        for record in records.read_trace(path)[1]:
            if record.type in (records.PTHREAD, records.SYSCALL):
                is_pthread = record.type == records.PTHREAD
                calls.append(Call(
                    record.pid, record.tid, "pthread" if is_pthread else CLASSES[record.kind], record.start,
                    None if record.end == records.NOT_ENDED else record.end,
                    record.result if is_pthread else record.value, record.lock or 0))
    return calls


def samples_of(session):
    samples = []
    for path in sorted((session / "sample").glob("*.ums")):
        if path.stat().st_size == 0:
            continue
        samples += [Sample(record.pid, record.tid, record.start, len(record.stack), record.core)
                    for record in records.read_samples(path)[1] if record.type == records.SAMPLE]
    return samples


def sample_ns_of(session):
    """The CPU time that a sample of each process stands for, with what its timers and buffers missed."""
    facts = json.loads((session / "session.json").read_text())
    samples = Counter(sample.pid for sample in samples_of(session))
    weights = {}
    for pid, count in samples.items():
        text = "".join(path.read_text(errors="replace") for path in (session / ".log").glob(f"*_{pid}.txt"))
        overruns = sum(map(int, re.findall(r"Timer overrun count \((\d+)", text)))
        lost = sum(map(int, re.findall(r"Lost sample records count = (\d+)", text)))
        interval = facts["intervalNs"] or 0
        period = interval if overruns and interval else max(interval, facts["tickNs"])
        weights[pid] = period * (1 + (overruns + lost) / count)
    return weights


def names_of(session):
    """The last name of every thread that named itself, by process and thread."""
    names = {}
    for folder, read, kind in [("sample", records.read_samples, records.SAMPLE_PROC),
                               ("trace", records.read_trace, records.PROC)]:
        for path in sorted((session / folder).iterdir()):
            if path.stat().st_size == 0:
                continue
            found = [record for record in read(path)[1] if record.type == kind and record.tid > 0]
            for record in sorted(found, key=lambda record: record.start):
                names[record.pid, record.tid] = record.name.decode()
    return names


def per_thread(items):
    return Counter((item.pid, item.tid) for item in items)


def signed(value):
    return value - 2**64 if value >= 2**63 else value


def messages(text):
    """protoc's text form as dictionaries of lists; a field that the definition does not have is refused."""
    root = {}
    open_messages = [root]
    for line in text.splitlines():
        line = line.strip()
        if line == "}":
            open_messages.pop()
        elif line.endswith("{"):
            name = line[:-1].strip()
            assert not name.isdigit(), f"field {name} is not in the definition"
            message = {}
            open_messages[-1].setdefault(name, []).append(message)
            open_messages.append(message)
        else:
            name, value = re.fullmatch(r'(\w+): (.*)', line).groups()
            assert not name.isdigit(), f"field {name} is not in the definition"
            open_messages[-1].setdefault(name, []).append(value[1:-1] if value[0] == '"' else
                                                          int(value) if re.fullmatch(r"-?\d+", value) else value)
    assert open_messages == [root]
    return root
