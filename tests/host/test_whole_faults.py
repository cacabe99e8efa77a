"""Whole installations with a fault at a call; see whole.py.

A sample of the calls by default.  VC_SWEEP=all, which tests/nightly sets, has
all of them and takes most of an hour; VC_SWEEP=N every N-th.  The figures of a
sweep stand in docs/reliability.md.
"""

import os

import pytest

from whole import Whole

SWEEP = os.environ.get("VC_SWEEP", "")
# Every n-th trial of a mode, so that the sample stays below two minutes.  The
# signals come by four, the errors by two: n is no multiple of those.
SAMPLES = {"kill": 19, "torn": 29, "short": 29, "fail": 37, "signal": 53}


def step(mode):
    return 1 if SWEEP == "all" else int(SWEEP or SAMPLES[mode])


@pytest.fixture(scope="module")
def whole():
    with Whole() as prepared:
        yield prepared


def installed(whole):
    """Before a trial of the second run: the first one."""
    assert whole.run().status == 0


def sweep(whole, mode, prepare=lambda: None):
    trials = list(whole.trials(mode, whole.calls(prepare)))[::step(mode)]
    assert trials
    problems = []
    for mode, at, more in trials:
        for problem in whole.problems(mode, at, prepare, **more):
            problems.append(f"{mode} {more} at {at}: {problem}")
    print(f"\n{mode}: {len(trials)} trials")
    assert not problems, "\n".join(problems)


@pytest.mark.parametrize("mode", SAMPLES)
def test_an_installation_that_meets_a_fault(whole, mode):
    sweep(whole, mode)


@pytest.mark.parametrize("mode", SAMPLES)
def test_a_second_installation_that_meets_a_fault(whole, mode):
    sweep(whole, mode, lambda: installed(whole))


# Faults that once left something wrong: mode, call, part of the path.
FOUND = [
    ("kill", "fchown", "/mailboxes"),             # root's mailbox directory
    ("kill", "rename", "/config/Dispatch"),       # settings only in a backup
    ("fail", "open", "/config/Account-Manager"),  # settings not preserved
    ("kill", "linkat", ".forward.NOTICE"),        # an empty notice for ever
    ("kill", "pwrite", "/config/Accounts"),       # Postmaster's mail nowhere
    ("fail", "pwrite", "/config/Accounts"),       # "completed" without password
    ("signal", "fsync", "/control/"),             # half a request left
]


@pytest.mark.parametrize("mode, call, part", FOUND)
def test_what_was_once_wrong(whole, mode, call, part):
    hit = [at for at, (name, path) in enumerate(whole.calls(), 1)
           if name == call and part in path]
    assert hit
    more = {"fail": {"errno": "EMFILE"}, "signal": {"signal": 15}}.get(mode, {})
    for at in hit:
        assert whole.problems(mode, at, **more) == [], at
