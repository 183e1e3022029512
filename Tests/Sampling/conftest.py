import pytest

from sampling import SamplingSession


@pytest.fixture
def session(tmp_path):
    session = SamplingSession(tmp_path / "session")
    yield session
    session.close()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """A failed test says where its session is kept."""
    outcome = yield
    report = outcome.get_result()
    session = getattr(item, "funcargs", {}).get("session")
    if report.failed and session:
        report.sections.append(("session directory", str(session.root)))
