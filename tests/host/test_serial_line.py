"""Narrow windows, serial lines and connections without a terminal."""

import time

import pytest

from harness import BUILD, HANGUP, SCREENS, Host, Raw
from real_packages import unpack
from test_terminal import PASTED, furnish, install, on_a_terminal, state

INSTALL = f"{BUILD}/Install"
PROMPT = "yes/no/quit [yes] "
STOP, GO = b"\x13", b"\x11"
GETTY = "/sbin/agetty"


def screen_of(host, command):
    return host.sh(f"tmux -L test {command}")


def wait_in_tmux(host, text):
    """The pane as it is shown, once it shows the text."""
    end = time.monotonic() + 10
    while text not in (shown := screen_of(host, "capture-pane -p -S -")):
        assert time.monotonic() < end, shown
        time.sleep(0.02)
    return shown


@pytest.mark.parametrize("columns", [80, 40])
def test_a_window_shows_the_whole_text_in_its_width(host, columns):
    """The text is wrapped by the window; the program writes no other byte."""
    screen_of(host, f"-f /dev/null new-session -d -x {columns} -y 100 "
                    "'read start; stty size > /dev/shm/size; "
                    f"{INSTALL}; echo status $?; sleep 1000'")
    screen_of(host, "pipe-pane 'cat > /dev/shm/bytes'")
    screen_of(host, "send-keys Enter")
    wait_in_tmux(host, "continue?")
    screen_of(host, "send-keys n o Enter")
    shown = wait_in_tmux(host, "status 255")
    assert host.read("/dev/shm/size").split()[1] == str(columns).encode()
    assert host.read("/dev/shm/bytes") == (
        b"\r\n" + on_a_terminal("FullInstall/declined", b"no") +
        b"status 255\r\n")

    assert max(map(len, shown.splitlines())) <= columns
    text = (SCREENS / "FullInstall/declined.txt").read_text()
    whole = screen_of(host, "capture-pane -p -J -S -")
    assert [line.rstrip() for line in whole.splitlines() if line.strip()] == [
        line.rstrip() for line in
        text.replace(PROMPT, PROMPT + "no").replace("\f", "").splitlines()
        if line.strip()] + ["status 255"]


def even_parity(line):
    """The bytes of seven bits as a line with even parity carries them."""
    return bytes(byte | (bin(byte).count("1") % 2) << 7 for byte in line)


def serial_line(host, answers, term="vt100"):
    """A line as a getty sets it up, which runs the installer for a login."""
    return host.run(GETTY, answers, stdin="tty", args=[
        "-n", "-i", "-J", "-l", INSTALL, "9600", "-", term],
        stty="9600 -echoe -echok -echoke -echoctl")


@pytest.mark.parametrize("term", ["vt100", "dumb", "unknown"])
def test_a_getty_runs_it_on_a_serial_line(host, term):
    run = serial_line(host, [b"maybe", b"x", b"\xff", b"no"], term=term)
    screen = on_a_terminal("FullInstall/asked_again", b"maybe", b"x", b"\xff",
                           b"no")
    assert run.output.endswith(screen.split(b"\f")[1])
    assert run.status == 255


def test_without_a_kind_of_terminal_the_screen_is_the_same(host):
    run = host.sh(f"script -q -e -c 'env -u TERM {INSTALL}' /dev/shm/screen; "
                  "echo $?", stdin=b"no\n")
    assert run.endswith("255\n")
    assert on_a_terminal("FullInstall/declined", b"").split(b"\f")[1][:-2] in (
        host.read("/dev/shm/screen"))


def test_answers_with_a_parity_bit_are_understood_where_it_is_stripped(host):
    answers = [Raw(even_parity(line)) for line in (b"maybe\r", b"no\r")]
    run = host.run("Install", answers, stdin="tty", stty="istrip")
    assert run.status == 255 and len(run.prompts) == 2
    assert max(run.output) < 0x80  # so that seven bits show all of it


def test_erase_and_kill_work_as_on_paper(host):
    """Without echoe and echok nothing is wiped; the answer is edited still."""
    run = host.run("Install", [Raw(b"yes\b\b\bno@yes\x15no\r")], stdin="tty",
                   stty="-echoe -echok -echoke -echoctl erase ^H")
    assert run.status == 255 and len(run.prompts) == 1


def test_a_line_without_conversion_takes_a_line_feed_for_return(host):
    """As after a program that left the line raw: Control-J is what helps."""
    run = host.run("Install", [Raw(b"no\n")], stdin="tty", stty="-icrnl -opost")
    assert run.status == 255 and run.output == on_a_terminal(
        "FullInstall/declined", b"no").replace(b"\r\n", b"\n")


class Line:
    """The far end of a line on which a program runs."""

    def __init__(self, host, stty=""):
        self.host = host
        self.output = b""
        self.status = None
        self.pid = host.ask(
            "run", path=INSTALL, argv=[INSTALL], stdin="tty", user=None,
            cwd="/opt/vellumcraft", env={"PATH": "/usr/bin:/bin"}, limits={},
            stty=stty)

    def type(self, data):
        self.host.ask("send", pid=self.pid, data=data)

    def read(self, seconds):
        """What arrives in that time, or up to the next question."""
        end = time.monotonic() + seconds
        arrived = b""
        state = "runs"
        while state == "runs" and (left := end - time.monotonic()) > 0:
            output, _, state = self.host.ask("step", pid=self.pid,
                                             seconds=left)
            arrived += output
        self.output += arrived
        return arrived, state


def session(host, stop=None):
    """Everything that a whole installation shows; on the way, at the answer of
    that number, the output is stopped for two seconds."""
    line = Line(host, "ixon -ixany")
    answers = list(PASTED)
    while line.read(10)[1] == "waits" and answers:
        answer = answers.pop(0) + b"\r"
        stopped = len(PASTED) - len(answers) == stop
        line.type(STOP + answer if stopped else answer)
        if stopped:
            assert line.read(2) == (b"", "runs")
            line.type(GO)
        if b"Starting vellumcraft" in line.output:
            break
    host.ask("finish", pid=line.pid)
    return line.output.split(b"Starting vellumcraft")[0]


@pytest.mark.parametrize("stop", [1, 11])
def test_output_that_is_stopped_for_two_seconds_loses_nothing(stop):
    with Host() as host:
        furnish(host)
        plain = session(host)
        wanted = state(host)
    assert plain.count(b"created\r\n") >= 2
    with Host() as host:
        furnish(host)
        assert session(host, stop) == plain
        assert state(host) == wanted


def test_a_lost_carrier_ends_it_and_the_next_run_goes_on():
    with Host() as host:
        furnish(host)
        run = serial_line(host, [*PASTED[:9], HANGUP])
        assert run.status == 3
        assert not host.sh("pgrep -x Install || true")
        run = install(host, {"Set up UNIX delivery": "pop",
                             "change any information?": "yes"})
        assert "Starting vellumcraft" in run.text


def furnish_sshd(host):
    unpack(host, "openssh-server")
    host.sh("mkdir -p /run/sshd /dev/shm/ssh && cd /dev/shm/ssh &&"
            " ssh-keygen -q -t ed25519 -N '' -f host &&"
            " ssh-keygen -q -t ed25519 -N '' -f user && cp user.pub keys &&"
            " echo \"mail $(cat host.pub)\" > known &&"
            " sed -i '/^root:/s/^root:[^:]*/root:*/' /etc/shadow &&"
            " (grep -q ^sshd: /etc/passwd || echo 'sshd:x:966:65534::/run/sshd:"
            "/usr/sbin/nologin' >> /etc/passwd)")
    host.write("/dev/shm/ssh/sshd", "HostKey /dev/shm/ssh/host\n"
               "AuthorizedKeysFile /dev/shm/ssh/keys\nStrictModes no\n"
               "UsePAM no\nPermitRootLogin yes\n")


@pytest.mark.parametrize("terminal", ["-T", "-tt"])
def test_it_runs_over_ssh_with_and_without_a_terminal(host, terminal):
    furnish_sshd(host)
    output = host.sh(
        "ssh -q -F /dev/null -i /dev/shm/ssh/user -o ProxyCommand="
        "'/usr/sbin/sshd -i -f /dev/shm/ssh/sshd' -o UserKnownHostsFile="
        f"/dev/shm/ssh/known {terminal} root@mail {INSTALL}; echo $?",
        b"maybe\nx\n\xff\nno\n")
    screen = (SCREENS / "FullInstall/asked_again.txt").read_text()
    if terminal == "-T":
        assert output == screen + "255\n"
    else:
        assert output.count("[yes] ") == screen.count("[yes] ")
        assert output.endswith("255\n")
