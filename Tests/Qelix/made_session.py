"""Sessions made by hand, byte by byte from the layouts: every number in them is known."""

import json
import struct

MAGIC = 0xFFFFFFFFFFFFFFFF
NEVER = 0xFFFFFFFFFFFFFFFF
PTHREAD, SYSCALL, PROC, THREAD_END = 1, 3, 4, 7
MUTEX, CONDITION = 1, 3
SLEEP, WAIT, FILE_LOCK, IO_SYNC, IO, OTHER = range(1, 7)
TICK = 4_000_000


def header(pid, rank):
    return struct.pack("<QiiHHI", MAGIC, pid, rank, 2, 0, 0)


def name_field(name):
    return (name if isinstance(name, bytes) else name.encode())[:32].ljust(32, b"\0")


class Process:
    """The three files of one process."""

    def __init__(self, pid, rank=0, host="host"):
        self.pid, self.host = pid, host
        self.trace = [header(pid, rank)]
        self.samples = [header(pid, rank)]
        self.modules = [struct.pack("<QIHH", MAGIC, pid, 0, 1)]

    def call_header(self, kind, size, sub, start, end, tid, flags=0):
        return struct.pack("<HHHHQQii", kind, size, sub, flags, start, end, self.pid, tid)

    def thread(self, tid, name, start):
        self.trace.append(self.call_header(PROC, 80, 0, start, 0, tid) + struct.pack("<QI", 7000 + tid, 0)
                          + name_field(name) + struct.pack("<I", 0))
        return self

    def thread_end(self, tid, time):
        self.trace.append(self.call_header(THREAD_END, 40, 0, time, time, tid) + struct.pack("<Q", 7000 + tid))
        return self

    def lock(self, tid, start, end, address=0x1000, sub=MUTEX):
        self.trace.append(self.call_header(PTHREAD, 64, sub, start, end, tid)
                          + struct.pack("<QQQiHH", address, 0x5000, 0, 0, 0, 0))
        return self

    def call(self, tid, start, end, sub=SLEEP, function=0x6000):
        self.trace.append(self.call_header(SYSCALL, 64, sub, start, end, tid)
                          + struct.pack("<QQQHHHH", function, 0, 0, 0, 0, 0, 0))
        return self

    def sample(self, tid, time, stack):
        self.samples.append(struct.pack("<iiHHHHQ", self.pid, tid, 3, 40 + 8 * len(stack), 0, 1, time)
                            + struct.pack("<QII", 0, 0, len(stack)) + struct.pack(f"<{len(stack)}Q", *stack))
        return self

    def ticks(self, tid, start, count, stack=(0x7000,)):
        for number in range(count):
            self.sample(tid, start + number * TICK, stack)
        return self


def write_session(path, *processes, record=None):
    for folder in ["trace", "sample", "metadata", ".log", ".error"]:
        (path / folder).mkdir(parents=True)
    for process in processes:
        end = f"_{process.host}_{process.pid}"
        (path / "trace" / f"trace{end}.umt").write_bytes(b"".join(process.trace))
        (path / "sample" / f"profile{end}.ums").write_bytes(b"".join(process.samples))
        (path / "metadata" / f"metadata{end}.meta").write_bytes(b"".join(process.modules))
    facts = {"version": 1, "command": ["made"], "pid": processes[0].pid if processes else 0, "tickNs": TICK,
             "waitStatus": 0, "processes": []}
    (path / "session.json").write_text(json.dumps({**facts, **(record or {})}))
    return path


def unequal_session(path):
    """A process whose one sample stands for three missed ones too, and one whose two samples are all."""
    start = 1_000_000_000
    write_session(path, *(Process(pid).thread(pid, f"p{pid}", start).ticks(pid, start + TICK, ticks)
                          for pid, ticks in [(100, 1), (200, 2)]))
    (path / ".log/ZorvUmtAgent_host_made_100.txt").write_text("INFO : 100 : 100: Timer overrun count (3).\n")
    return path
