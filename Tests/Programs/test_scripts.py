"""The scripts that QELIX_TEST_SCRIPTS names, natively and in the modes of the agent that QELIX_TEST_MODES names."""

import os

import pytest

from program_session import HERE, MODES, ProgramSession, difference, missing_packages

SCRIPTS = sorted(HERE.glob(os.environ.get("QELIX_TEST_SCRIPTS", "quick/*.sh")))
CHOSEN = os.environ.get("QELIX_TEST_MODES", "+".join(MODES)).split("+")
_natives = {}


@pytest.fixture
def session(tmp_path):
    session = ProgramSession(tmp_path / "session")
    yield session
    session.close()


def native_outcome(session, script):
    if script not in _natives:
        _natives[script] = session.run_script(script, agent=False)
    return _natives[script]


@pytest.mark.parametrize("mode", CHOSEN)
@pytest.mark.parametrize("script", SCRIPTS, ids=lambda script: script.stem)
def test_the_same_as_natively(session, script, mode):
    missing = missing_packages(script)
    if missing:
        pytest.skip("not installed: " + " ".join(missing))
    native = native_outcome(session, script)
    assert native.status == 0, native
    session.configure_mode(mode)
    changed = difference(native, session.run_script(script, agent=True))
    if changed and difference(native, session.run_script(script, agent=False)):
        changed += "\n(and two native runs differ)"
    if changed:
        pytest.fail(changed, pytrace=False)
    session.assert_files_whole()
