"""The classes of the interposed calls, and sessions that trace them."""

import re

import records
from session import PROGRAMS, Session

# class: its number in a record, the key that switches it
CLASSES = {"sleep": (1, "QELIX_TRACE_SLEEP"), "wait": (2, "QELIX_TRACE_WAIT_SLEEP_STATE_SYSCALL"),
           "lock": (3, "QELIX_TRACE_LOCK"), "sync": (4, "QELIX_TRACE_IO_SYNC"), "io": (5, "QELIX_TRACE_IO"),
           "other": (6, "QELIX_TRACE_SYSCALL")}
FUTEX = 202

# every row: libc name -> class
ROWS = {name: row_class for row_class, name in
        re.findall(r"^CALL\((\w+), (\w+),", (PROGRAMS / "calls.def").read_text(), re.MULTILINE)}
SHAPES = dict(re.findall(r"^CALL\(\w+, (\w+), \"(\w+)\"\)", (PROGRAMS / "calls.def").read_text(), re.MULTILINE))
# names whose real function is looked up by version
VERSIONED = {"clock_nanosleep", "mq_send", "mq_timedsend", "mq_receive", "mq_timedreceive", "mq_notify", "mq_getattr",
             "mq_setattr", "mq_close", "mq_unlink"}


def number_of(name):
    """The class number that a call of this name leaves in its record."""
    return CLASSES[ROWS[name]][0]


class CallSession(Session):
    """A session that traces every system call, and pthread calls, from the first nanosecond on."""

    def base_keys(self):
        return [("QELIX_TRACE_PTHREAD", "1:0:0"), ("QELIX_TRACE_SYSCALL", "1:0:0"),
                ("QELIX_UMT_DIR", self.root / "trace"), ("QELIX_METADATA_DIR", self.root / "metadata"),
                ("QELIX_SHM_NAME", self.block.name)]

    def trace_calls_from(self, threshold):
        self.configure(QELIX_TRACE_SYSCALL=f"1:{threshold}:0", QELIX_TRACE_PTHREAD=f"1:{threshold}:0")


def syscalls_of(run, tid=None):
    """The system-call records of a thread, of the main thread unless another is named."""
    return [record for record in run.trace()
            if record.type == records.SYSCALL and record.tid == (tid or run.pid)]
