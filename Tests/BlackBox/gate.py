"""Holds one call of the pthread family inside of what the agent takes for libc, so that a test can change the
controller's block at an exact point of the call."""

import os

from session import program

RUNNING = None  # the state without a pause; any other state is a pause's id


class Gate:
    """The two pipes of the object gate.so, which holds a call inside of what the agent takes for libc."""

    def __init__(self):
        self.arrived, self._out = os.pipe()
        self._in, self._open = os.pipe()

    def start(self, session, call, result=None):
        env = {"ZORV_TEST_GATE": f"{self._out},{self._in}", "ZORV_TEST_GATE_RESULT": result}
        return session.start("gated", call, behind=[program("gate.so")], env=env,
                             pass_fds=(self._out, self._in))

    def wait(self):
        assert os.read(self.arrived, 1) == b"e"

    def open(self):
        os.write(self._open, b"g")

    def close(self):
        for fd in (self.arrived, self._out, self._in, self._open):
            os.close(fd)


def set_state(session, state):
    if state is RUNNING:
        session.block.resume()
    else:
        session.block.pause(state)


def run_gated(session, gate, call, before=RUNNING, after=RUNNING, result=None):
    """One held call: `before` is set up ahead of it, `after` while it is inside."""
    run = gate.start(session, call, result)
    assert run.line() == f"ready {run.pid}"
    set_state(session, before)
    run.tell("go")
    gate.wait()
    set_state(session, after)
    gate.open()
    word, _, run.result = run.line().partition(" ")
    assert word == "result"
    session.block.resume()
    run.finish().assert_healthy()
    return run
