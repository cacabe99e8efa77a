"""The throw-away host of the other tests keeps its own promises."""

import signal

import pytest

from harness import EOF, HANGUP, HostError, Raw, Signal, default_answer

ASK_TWICE = ("printf 'First question? '; read a; printf 'Second\nquestion? '; "
             "read b; echo \"<$a|$b>\"")


def run_shell(host, script, answers=(), **more):
    return host.run("/bin/sh", answers, ["-c", script], **more)


@pytest.mark.parametrize("terminal", [False, True])
def test_answers_in_order_or_by_prompt(host, terminal):
    run = run_shell(host, ASK_TWICE, ["one", "two"], terminal=terminal)
    assert run.output == (
        b"First question? Second\nquestion? <one|two>\n")
    run = run_shell(host, ASK_TWICE, {"Second question?": "two"},
                    terminal=terminal)
    assert run.output.endswith(b"<|two>\n")
    assert len(run.prompts) == 2


def test_end_of_input_half_lines_and_signals_as_answers(host):
    assert run_shell(host, ASK_TWICE, [EOF]).output.endswith(b"<|>\n")
    half = run_shell(host, "read a; echo \"$a:$?\"", [Raw(b"half"), EOF])
    assert half.output == b"half:1\n"
    killed = run_shell(host, ASK_TWICE, {"Second": Signal(signal.SIGTERM)})
    assert killed.status == -signal.SIGTERM
    noted = run_shell(host, "trap 'echo noted' HUP; " + ASK_TWICE, ["a", "b"],
                      signal_at={"First": signal.SIGHUP})
    assert b"noted" in noted.output


def test_a_console_that_goes_away(host):
    run = run_shell(host, ASK_TWICE, ["one", HANGUP], terminal=True)
    assert run.status == -signal.SIGHUP


def test_an_answer_may_act_on_the_host_first(host):
    def answer(prepared):
        prepared.write("/etc/seen", "x")
        return "go"
    run = run_shell(host, ASK_TWICE + "; cat /etc/seen", ["a", answer])
    assert run.output.endswith(b"<a|go>\nx")


@pytest.mark.parametrize("kind,expected", [
    ("pipe", b"line\n"), ("pty", b"line\n"), ("null", b"end\n"),
    ("closed", b"end\n")])
def test_every_kind_of_standard_input(host, kind, expected):
    run = run_shell(host, "read a 2>/dev/null && echo \"$a\" || echo end",
                    ["line"], stdin=kind)
    assert run.output == expected


def test_input_at_once_and_other_users(host):
    run = run_shell(host, "cat; id -un; echo oops >&2", input=b"a\nb",
                    user="nobody", cwd="/")
    assert (run.output, run.errors) == (b"a\nbnobody\n", b"oops\n")


def test_only_what_a_run_changed_is_listed(host):
    host.write("/etc/before", "x\n")
    host.write("/etc/edited", "old\n", 0o640, "vmail", "mail")
    run = run_shell(host, "echo new >/etc/edited; rm /etc/before; "
                    "mkdir /etc/made; mv /etc/hosts /etc/hosts.old")
    assert run.changed() == {
        "/etc/edited": "changed", "/etc/before": "removed",
        "/etc/made": "created", "/etc/hosts.old": "moved"}
    edited = run.changes["/etc/edited"]
    assert (edited.before, edited.after) == (b"old\n", b"new\n")
    assert (edited.mode, edited.owner, edited.group) == (
        0o640, "vmail", "mail")
    assert run.changes["/etc/hosts.old"].source == "/etc/hosts"
    again = run_shell(host, "true")
    assert (again.changes, again.started, again.signalled) == ({}, [], [])


def test_a_change_of_the_same_size_at_once_is_seen(host):
    for number in range(20):
        host.write("/etc/small", f"{number:04}")
        run = run_shell(host, f"printf {number + 1000} >/etc/small")
        assert run.changed() == {"/etc/small": "changed"}


def test_stand_in_daemons_log_their_signals(host):
    mail = host.daemon("sendmail", ports=[25])
    deaf = host.daemon("inetd", ports=[79], ignore=[signal.SIGTERM])
    run = run_shell(host, f"kill -TERM {mail.pid} {deaf.pid}; sleep 0.3")
    assert run.signalled == [("sendmail", 15), ("inetd", 15)]
    assert run.ended == ["sendmail"]
    assert run.listening == [79]
    assert (mail.signals(), mail.alive()) == ([15], False)
    assert (deaf.signals(), deaf.alive()) == ([15], True)
    assert run.changes == {}


def test_a_program_that_hangs_fails_the_test_with_its_screen(host):
    with pytest.raises(TimeoutError, match="so far"):
        run_shell(host, "echo so far; sleep 1000", timeout=0.5)
    with pytest.raises(HostError):
        host.read("/nonexistent")


def test_users_and_settings(host):
    host.user("ann", 1001, gecos="Ann Smith", mail=b"From x\n")
    host.config(HostName="mx", MailboxDir=None)
    assert host.sh("id -u ann; stat -c %U:%G:%a /var/mail/ann ~ann") == (
        "1001\nann:mail:660\nann:users:755\n")
    conf = host.read("/etc/vellumcraft.conf").decode()
    assert "HostName=mx\n" in conf and "MailboxDir" not in conf


@pytest.mark.parametrize("prompt,answer", [
    ("Postmaster password: ", "secret1"), ("Continue? [yes] ", "")])
def test_what_is_answered_by_default(prompt, answer):
    assert default_answer(prompt) == answer
