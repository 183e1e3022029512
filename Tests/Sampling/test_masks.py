"""Masks over the profiling signal: the thread is sampled all the same, and the program sees the mask that it set."""

from sampling import TICK_NS, assert_sound, samples_of

REAL_TIMER = {"QELIX_TIMER_INTERVAL": TICK_NS}


def sampled(session, *arguments):
    """Runs natively and sampled; what is said is equal."""
    native = session.native("masks", *arguments)
    session.configure(**REAL_TIMER)
    run = session.run("masks", *arguments)
    assert (native.status, native.err) == (3, b"")
    assert run.lines() == native.lines()
    assert_sound(run, status=3)
    return run


def is_sampled(samples):
    """How many there are is the tick's affair, and a busy machine's."""
    return len(samples) >= 3


def test_a_thread_that_blocks_every_signal_is_sampled(session):
    run = sampled(session)
    assert is_sampled(samples_of(run, run.pid))


def test_a_thread_that_inherits_the_mask_is_sampled(session):
    run = sampled(session)
    (heir,) = {sample.tid for sample in samples_of(run)} - {run.pid}
    assert is_sampled(samples_of(run, heir))


def test_a_forked_child_that_inherits_the_mask_is_sampled(session):
    run = sampled(session)
    (child,) = {int(path.stem.rpartition("_")[2]) for path in session.root.glob("sample/*.ums")} - {run.pid}
    assert is_sampled(samples_of(run, pid=child))


def test_a_new_image_inherits_the_mask_that_the_program_set(session):
    run = sampled(session, "exec")
    assert "again: blocked 1" in run.lines()
    assert is_sampled(samples_of(run))
