"""Installing again: after an installation, and after one that was stopped."""

import re

import pytest

from harness import HANGUP, Signal
from whole import HOME, ROOTS, Whole, described, differences, spared

# What a second run of the same dialogue adds: its own notices to the Postmaster
# and, where somebody has a ".forward", to those users.
NEW_NOTICES = re.compile(HOME + r"/(control/\d{14}\.A[BC]\d+\.Notify-Control|"
                         r"messages/\d{14}\.A[BC]\d+\.Notify-(Header|Body))$")


@pytest.fixture(scope="module")
def whole():
    with Whole() as prepared:
        yield prepared


def everything(whole):
    """The tree without times; databases by their bytes."""
    return {path: (status.st_mode, status.st_uid, status.st_gid, content)
            for path, (status, content) in whole.host.tree(
                *ROOTS, *whole.backups()).items()}


@pytest.mark.parametrize("answers, notices", [
    ({}, 0),  # by default nothing is imported where accounts exist
    ({"Which method": "p", "UNIX delivery or POP": "p"}, 6)])
def test_a_second_run_changes_nothing_but_its_notices(whole, answers, notices):
    whole.restore()
    assert whole.run(answers=answers).status == 0
    first, state = everything(whole), whole.state()
    again = whole.run(answers=answers)
    assert again.status == 0
    # Compacted or not, the databases say the same.
    assert differences(state, whole.state()) == []
    second = everything(whole)
    more = [path for path in second.keys() - first.keys()]
    assert len(more) == notices and all(map(NEW_NOTICES.match, more)), more
    assert first.keys() - second.keys() == set()
    changed = {path for path in first if first[path] != second[path]}
    assert changed <= {HOME + "/config/Accounts", HOME + "/config/Dispatch"}
    assert again.signalled == [("vellumcraft", 1)]


def stopping(whole):
    """The answers of a whole dialogue, a prefix for each question."""
    whole.restore()
    run = whole.run()
    assert run.status == 0
    return [run.answered[:at] for at in range(len(run.answered))]


@pytest.mark.parametrize("stop, status", [(Signal(2), 3), (HANGUP, 3)])
def test_stopped_at_any_question_the_next_run_comes_to_the_same_end(
        whole, stop, status):
    whole.learn()
    answers = stopping(whole)
    assert len(answers) > 12
    for given in answers:
        whole.restore()
        stopped = whole.run(answers=given + [stop])
        where = f"stopped at question {len(given) + 1}"
        assert stopped.status == status, where
        assert whole.run().status == 0, where
        left = [described(difference) for difference in differences(
            whole.goal, whole.state())
            if not spared(difference, "signal", "", True)]
        assert left == [], where


def test_answering_quit_stops_and_the_next_run_comes_to_the_same_end(whole):
    whole.learn()
    stopped_at = 0
    for given in stopping(whole):
        whole.restore()
        # Where "q" is no way out it is an answer; then the console goes away.
        if whole.run(answers=given + ["q", HANGUP]).status != 255:
            continue
        stopped_at += 1
        assert whole.run().status == 0
        left = [described(difference) for difference in differences(
            whole.goal, whole.state())
            if not spared(difference, "signal", "", True)]
        assert left == [], f"quit at question {len(given) + 1}"
    assert stopped_at > 4
