"""What every test module is given: a session of its own, and the gate."""

import pytest

from gate import Gate
from session import Session


@pytest.fixture
def session(tmp_path):
    session = Session(tmp_path / "session")
    yield session
    session.close()


@pytest.fixture
def gate():
    gate = Gate()
    yield gate
    gate.close()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """A failed test says where its session is kept."""
    outcome = yield
    report = outcome.get_result()
    session = getattr(item, "funcargs", {}).get("session")
    if report.failed and session:
        report.sections.append(("session directory", str(session.root)))
