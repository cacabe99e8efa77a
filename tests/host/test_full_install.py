"""The whole sequence of tasks, in one run."""

from harness import SCREENS

SEQUENCE = [
    "FullInstall/declined", "CreateMailboxDir/created", "FixMaildropDir/asked",
    "ConfigureFeatures/unchanged", "AddUserAccounts/none",
    "SetupAdminAccount/new", "EditInetdConf/unreadable", "KillSendmail/none",
    "InstallSendmail/done", "KillServers/none", "StartDaemon/started",
    "WarnAdmin/complete"]


def screens(names):
    return b"".join((SCREENS / f"{name}.txt").read_bytes() for name in names)


def identity(host):
    """Of the program that waits at its question."""
    fields = host.sh("grep -E '^(Uid|Gid|Groups):' "
                     "/proc/$(pgrep -x Install)/status")
    return [line.split()[1:] for line in fields.splitlines()]


def test_every_task_has_its_turn_and_prints_nothing_else(host):
    identities = []

    def remember_identity(host):
        identities.append(identity(host))
        return ""

    host.sh("chmod g-s /var/mail")
    run = host.run("Install", answers={
        "continue?": remember_identity, "setgid bit": remember_identity,
        "Which method?": "n", "Access Domains": remember_identity})
    assert run.output == screens(SEQUENCE)
    assert (run.status, run.errors) == (0, b"")
    # Real, effective, saved, file system.
    assert identities == 3 * [[["0", "950", "0", "950"],
                               ["0", "950", "0", "950"], []]]


def test_a_second_run_finds_everything_done(host):
    host.run("Install", until="Starting vellumcraft")
    run = host.run("Install", until="Starting vellumcraft")
    for text in ("Mailbox directory.... found\n", "maildrop directory.... OK\n",
                 "root@example.com (root)....already exists\n",
                 "Postmaster account.... found\n"):
        assert text in run.text, text
    # Only the Postmaster hears of it.
    assert [path.split("/")[3] for path in run.changes] == [
        "control", "messages", "messages"]


def test_no_task_follows_one_that_stopped_the_sequence(host):
    host.sh("chmod g-s /var/mail")
    run = host.run("Install", answers={"setgid bit": "quit"})
    assert run.output == screens(SEQUENCE[:3])
    assert run.status == 255
    assert [path for path in run.changes if "/config/" in path] == []
