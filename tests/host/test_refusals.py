"""What nearly every system offers, on one that refuses it."""

import pytest

from faults import environment
from harness import BUILD


@pytest.mark.parametrize("calls", ["renameat2", "renameat2,link"])
def test_names_are_as_exclusive_without_exclusive_renames(host, calls):
    """The unit test must pass in each of the three ways to rename."""
    run = host.run(f"{BUILD}/toolkit_test", cwd="/", args=[
        "--gtest_filter=FilesTest.ARenameToAFreeNameReplacesNothing"],
        env=environment("fail", 1, "toolkit_test", calls=calls, times=0,
                        errno="EINVAL"))
    assert "[  PASSED  ] 1 test.\n" in run.text and run.status == 0


def test_nothing_is_done_as_somebody_else(host):
    """Every change of the identity that is refused ends the run."""
    for at in range(1, 100):
        run = host.run_task("CreateMailboxDir", env=environment(
            "fail", at, calls="seteuid", errno="EAGAIN"))
        if run.status == 0:
            break
        assert run.status == 255
        if at > 2:  # the first two make it the mail owner
            assert run.errors == (b"The effective identity could not be "
                                  b"changed; ending.\n")
    assert 4 < at < 99
