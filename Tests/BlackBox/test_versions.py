"""Which entry answers a program that is bound to the old version of a name, and one bound to the new."""

import pytest

import records

VERSIONED = {"pthread_create", "pthread_mutex_trylock", "pthread_mutex_timedlock", "pthread_cond_wait",
             "pthread_cond_timedwait", "pthread_rwlock_rdlock", "pthread_rwlock_tryrdlock",
             "pthread_rwlock_timedrdlock", "pthread_rwlock_wrlock", "pthread_rwlock_trywrlock",
             "pthread_rwlock_timedwrlock", "pthread_spin_lock", "pthread_spin_trylock", "pthread_barrier_wait",
             "sem_wait", "sem_trywait", "sem_timedwait", "pthread_join", "pthread_cancel", "pthread_setname_np"}
# where the old and the new function of libc are different code
DIFFERENT = {"pthread_cond_wait", "pthread_cond_timedwait"}


@pytest.fixture
def answers(session):
    run = session.run("versions", "table")
    run.assert_healthy()
    return {(name, version): entry for name, version, entry in (line.split() for line in run.lines())}


def test_every_reference_is_answered_by_the_agent(answers):
    assert set(answers) == {(name, version) for name in VERSIONED for version in ("old", "new")}
    assert [reference for reference, entry in answers.items() if entry == "none"] == []


def test_every_new_reference_reaches_the_new_entry(answers):
    assert {entry for (_, version), entry in answers.items() if version == "new"} == {"new"}


def test_old_references_never_reach_a_new_entry(answers):
    assert {entry for (_, version), entry in answers.items() if version == "old"} <= {"old", "plain"}


@pytest.mark.parametrize("name", sorted(DIFFERENT))
def test_old_condition_waits_reach_the_old_entry(answers, name):
    assert answers[name, "old"] == "old"


def test_old_and_new_condition_waits_call_libcs_old_and_new_function(session):
    run = session.run("versions", "calls")
    run.assert_healthy()
    lines = {name: (int(old), int(new)) for name, old, new in (line.split() for line in run.lines())}
    conditions = lines.pop("conds")
    waits = [(record.lock, record.function) for record in run.calls(records.WAIT_CV)]
    wait, timed = lines["pthread_cond_wait"], lines["pthread_cond_timedwait"]
    assert waits == [(conditions[0], wait[0]), (conditions[1], wait[1]),
                     (conditions[0], timed[0]), (conditions[1], timed[1])]
    assert wait[0] != wait[1] and timed[0] != timed[1]
