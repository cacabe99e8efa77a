"""What `rehearse --this-host` promises: it tells the truth and harms nothing.

The host that is rehearsed on is the demonstration's, with /home and /var as
file systems of their own and stand-ins for sendmail and inetd at work.
"""

import difflib
import errno
import json
import os
import pathlib
import re
import signal
import subprocess
import time

import pexpect
import pytest

from harness import BUILD, REPO, Host

REHEARSE = str(BUILD / "rehearse")
INSTALL = str(BUILD / "Install")
HERE = REPO / "tests" / "host"
ANSWERS = REPO / "tests" / "demo-host" / "answers"

# Logs of the stand-ins show signals that reached them.
LOOKED_AT = ("/etc /home /var /opt/vellumcraft /srv /usr/lib/sendmail* "
             "/dev/shm/standins")

SECRETS = ("secret1", "ab5PtGoD8yzuY", "$6$Vw2mF1xS")

OWN_FILE_SYSTEMS = """
mkdir /mnt/copy && cp -a --parents /home /var/mail /var/spool /mnt/copy
mount -t tmpfs -o mode=755,strictatime none /home
mount -t tmpfs -o mode=755,strictatime none /var
cp -a /mnt/copy/home/. /home && cp -a /mnt/copy/var/. /var && rm -r /mnt/copy
mkdir -p /dev/shm/standins /srv
"""


class BusyHost(Host):
    """The demonstration's host, which may itself hold rehearsals."""

    def __init__(self):
        super().__init__(prepare=False, options=[
            "--unwatched", "--prepare",
            f"exec '{REPO}/tests/demo-host/furnish' '{BUILD}'"])
        self.sh(OWN_FILE_SYSTEMS)

    def look(self):
        return json.loads(self.sh(
            f"/usr/bin/python3 -I -S {HERE}/look.py {LOOKED_AT}"))

    def rehearse(self, command, *options, directory="/opt/vellumcraft"):
        """(status, output, errors) of a rehearsal on this host."""
        words = " ".join(f"'{option}'" for option in options)
        return self.ask("sh", stdin=b"", command=(
            f"cd {directory} && exec '{REHEARSE}' --this-host {words} -- "
            f"{command}"))

    def report(self, command, *options):
        """(report, output) of a rehearsal that succeeds."""
        file = "/dev/shm/report"
        status, output, errors = self.rehearse(command, "--json", file,
                                               *options)
        assert (status, errors) == (0, b"")
        report = json.loads(self.read(file))
        self.remove(file)
        return report, output.decode()

    def daemon_of(self, name):
        return int(self.sh(f"pgrep -x {name}"))


@pytest.fixture(scope="module", name="busy_host")
def make_busy_host():
    with BusyHost() as host:
        yield host


@pytest.fixture(scope="module", name="installed")
def install(busy_host):
    """The whole story: looks before, between and after; two rehearsals (one
    reported as text), then the real thing."""
    busy_host.ask("mark")
    story = {"start": busy_host.look()}
    story["report"], story["rehearsed"] = busy_host.report(
        f"'{INSTALL}'", "--answers", str(ANSWERS), "--keep", "/dev/shm/kept")
    story["text status"], _, story["text"] = busy_host.rehearse(
        f"'{INSTALL}'", "--answers", str(ANSWERS))
    story["rehearsed twice"] = busy_host.look()
    story["changes anywhere"] = busy_host.changes()
    story["daemons"] = {name: busy_host.daemon_of(name)
                        for name in ("inetd", "sendmail")}
    story["run"] = busy_host.run("Install", answers={
        "Postmaster password:": "secret1", "deliver the queue now?": "no",
        "UNIX delivery or POP delivery?": "POP"})
    story["end"] = busy_host.look()
    return story


# Nothing happens to the host.

def differences(before, after):
    """What differs between two looks, in a few lines; not the times at which
    programs of the checkout were run, should it lie in one of the places."""
    found = []
    for part in before:
        if isinstance(before[part], dict):
            found += [f"{part} {key}: {before[part].get(key)} -> "
                      f"{after[part].get(key)}"
                      for key in sorted({*before[part], *after[part]})
                      if before[part].get(key) != after[part].get(key)
                      and not str(key).startswith(f"{REPO}/")]
        elif before[part] != after[part]:
            found.append(f"{part}: {before[part]} -> {after[part]}")
    return found


def test_not_a_byte_mode_time_process_or_port_of_the_host_changes(installed):
    assert differences(installed["start"], installed["rehearsed twice"]) == []
    assert installed["changes anywhere"] == {}


def test_the_look_would_notice(installed):
    """The real run changes all kinds of things that a look compares."""
    found = differences(installed["rehearsed twice"], installed["end"])
    parts = {line.split(" ")[0] for line in found}
    assert {"files", "processes", "sockets:"} <= parts
    assert any("/var/mail/ann" in line for line in found)
    assert any("/dev/shm/standins" in line for line in found)  # signals


# The report tells what the real run does.

def general(path):
    """A path without times and process ids."""
    path = re.sub(r"\d{14}\.([A-Z]+)\d+", r"TIME.\1", path)
    return re.sub(r"(ComputeSizes)\.\d+", r"\1.PID", path)


STATE = ("type", "mode", "uid", "gid")


def real_changes(installed):
    """{path: (kind, type, mode, uid, gid)} of the real run."""
    before = installed["rehearsed twice"]["files"]
    after = installed["end"]["files"]
    found = {}
    for path in {*before, *after}:
        old, new = before.get(path), after.get(path)
        if path.startswith("/dev/shm"):
            continue
        if old is None or new is None:
            kind = "created" if old is None else "removed"
        elif any(old[key] != new[key] for key in (*STATE, "content")):
            kind = "changed"
        else:
            continue
        now = new or old
        found[general(path)] = (kind, *(now[key] for key in STATE[1:]))
    return found


def told_changes(report):
    found = {}
    for entry in report["files"]:
        kind = entry["kind"]
        if kind == "moved":
            kind = "created"
            # Unless something new has its former name.
            found.setdefault(general(entry["from"]), (
                "removed", *numbers(entry["before"])))
        now = entry.get("after") or entry["before"]
        found[general(entry["path"])] = (kind, *numbers(now))
    return found


def numbers(state):
    return int(state["mode"], 8), state["uid"], state["gid"]


def test_every_file_that_the_real_run_changes_was_told(installed):
    assert told_changes(installed["report"]) == real_changes(installed)
    assert len(installed["report"]["files"]) > 40


def test_the_kept_files_are_what_the_real_run_makes(busy_host, installed):
    kept = busy_host.sh("cd /dev/shm/kept && find . -type f").split()
    compared = 0
    for path in kept:
        path = path[1:]
        # Random passwords, times and ids of messages.
        if path.endswith("/config/Accounts") or general(path) != path:
            continue
        rehearsed, real = (
            re.sub(rb"Date: .*", b"", busy_host.read(start + path))
            for start in ("/dev/shm/kept", ""))
        assert rehearsed == real, path
        compared += 1
    assert compared >= 9
    assert "./etc/inetd.conf" in kept


def test_the_accounts_are_those_of_the_real_run(busy_host, installed):
    dump = busy_host.sh(
        f"{BUILD}/vcdb dump /opt/vellumcraft/config/Accounts")
    real = sorted(line[1:] for line in dump.splitlines()
                  if line.startswith("/"))
    told = installed["report"]["accounts"]
    assert [account["uid"] for account in told] == real
    assert {account["kind"] for account in told} == {"created"}
    carol = next(one for one in told if one["after"]["Name"] ==
                 ["Carol Carol Sons"])
    assert carol["after"]["SMTP-Address"] == [
        "carol@example.com", "carol@mail.example.com"]
    entry = next(one for one in installed["report"]["files"]
                 if one["group"] == "accounts")
    masked = re.compile(r"^(Raw-Password|Password)\n\t.*\n", re.M)
    assert masked.sub("", "".join(
        line[1:] + "\n" for line in entry["diff"].splitlines()[3:])) == (
            masked.sub("", dump))


def test_the_signals_and_the_start_are_those_of_the_real_run(busy_host,
                                                            installed):
    told = {one["name"]: (one["pid"], one["signal"], one["taken_to_have"])
            for one in installed["report"]["signals"]}
    assert told == {
        "inetd": (installed["daemons"]["inetd"], signal.SIGHUP,
                  "read its configuration again"),
        "sendmail": (installed["daemons"]["sendmail"], signal.SIGTERM,
                     "ended")}
    ended = (set(installed["rehearsed twice"]["processes"])
             - set(installed["end"]["processes"]))
    assert ended == {str(installed["daemons"]["sendmail"])}
    [start] = installed["report"]["would_start"]
    server = busy_host.daemon_of("vellumcraft")
    command = busy_host.read(f"/proc/{server}/cmdline").decode().split("\0")
    assert start["arguments"] == command[:-1]
    assert start["program"] == "/opt/vellumcraft/vellumcraft"
    assert start["directory"] == "/opt/vellumcraft"


def test_the_dialogue_is_that_of_the_real_run(installed):
    # A server that is really started says so.
    real = re.sub(r"vellumcraft: stand-in .*\n", "",
                  installed["run"].text).split()
    rehearsed = installed["rehearsed"].split()
    extra = []
    matcher = difflib.SequenceMatcher(None, real, rehearsed, autojunk=False)
    for kind, a, b, c, d in matcher.get_opcodes():
        assert kind in ("equal", "insert"), (real[a:b], rehearsed[c:d])
        extra += rehearsed[c:d] if kind == "insert" else []
    # The terminal of a rehearsal shows what is typed.
    assert sorted(extra) == ["POP", "no", "secret1"]
    assert "none found (that's good)" in installed["run"].text


def test_the_status_is_the_installers(installed):
    assert installed["run"].status == 0
    assert installed["report"]["exit_status"] == 0
    assert installed["text status"] == 0
    assert b"\nExit status: 0\n" in installed["text"]


def test_the_text_is_grouped_and_ends_by_saying_that_nothing_changed(installed):
    lines = installed["text"].decode().splitlines()
    titles = [line.split(":")[0] for line in lines[:-1] if re.match(
        r"[A-Z][a-z ]+:", line)]
    assert [title for title in titles if title != "Read-only in the rehearsal"
            ] == ["Rehearsal of", "Created", "Changed", "Moved", "Removed",
                  "Accounts", "Mail", "Signals", "Would start", "Exit status"]
    assert lines[-1] == ("Nothing was changed on this host: all of this "
                         "happened in memory only.")
    text = "\n".join(lines)
    for part in (
            "/etc/inetd.conf.bak, a copy of /etc/inetd.conf as it was",
            "      -smtp       stream  tcp",
            "      +#smtp       stream  tcp",
            "/usr/lib/sendmail.bak, from /usr/lib/sendmail",
            "  2775  root:mail  /var/mail/, mode was 0775",
            "  created  Ann-Smith  Ann Smith  ann@example.com, ann@mail.",
            "  created  2 files in /opt/vellumcraft/mailboxes/Ann-Smith/in/",
            "  removed  0660  ann:mail  /var/mail/ann",
            "SIGTERM from Install, taken to have ended",
            "      @@ -1,4 +1,7 @@\n       /Config\n       DefaultDomain\n"
            "      +\tmail.example.com"):
        assert part in text, part


def test_passwords_and_hashes_are_masked(installed):
    for report in (installed["text"].decode(),
                   json.dumps(installed["report"])):
        for secret in SECRETS:
            assert secret not in report
        # What the request for greetings says behind the names.
        assert "UNIX-PASSWORD" not in report
        assert "(masked 1)" in report


def test_a_changed_hash_shows_as_changed_and_as_nothing_else(busy_host):
    busy_host.write("/srv/change",
                    "sed -i 's/^ann:[*]:/ann:$1$new$hash:/' /etc/shadow\n")
    report, _ = busy_host.report("sh /srv/change")
    [entry] = [one for one in report["files"] if one["path"] == "/etc/shadow"]
    assert "\n-ann:*:" in entry["diff"] and "\n+ann:(masked " in entry["diff"]
    assert "$1$new" not in json.dumps(report)
    assert "ab5PtGoD8yzuY" not in json.dumps(report)


def test_a_running_server_is_told_to_look_again():
    with BusyHost() as host:
        host.sh("for name in sendmail inetd; do pkill -x $name; "
                "while pgrep -x $name; do sleep 0.01; done; done")
        server = host.daemon("vellumcraft", ports=[25, 110, 79])
        report, output = host.report(f"'{INSTALL}'", "--answers", str(ANSWERS))
        assert "Vellumcraft is running" in output
        assert report["would_start"] == []
        assert [(one["name"], one["pid"], one["signal"])
                for one in report["signals"]] == [
                    ("vellumcraft", server.pid, signal.SIGHUP)]
        assert server.signals(0) == [] and server.alive()


# The ways out.

@pytest.fixture(scope="module", name="tried")
def try_ways_out():
    with BusyHost() as host:
        victim = host.daemon("victim")
        other = int(host.sh("setpriv --reuid 65534 --clear-groups "
                            "sleep 1000 >/dev/null 2>&1 & echo $!"))
        host.sh("python3 -c \"import socket; s = socket.socket(socket.AF_UNIX)"
                "; s.bind('/srv/socket')\"")
        before = host.look()
        report, output = host.report(
            f"/usr/bin/python3 -I {HERE}/ways_out.py {victim.pid} {other} /srv")
        after = host.look()
        yield {"tries": json.loads(output), "report": report,
               "victim": victim.pid, "other": other,
               "changed": differences(before, after),
               "signals": victim.signals(0.2)}


def test_no_way_leads_to_the_host(tried):
    assert tried["changed"] == []
    assert tried["signals"] == []


PASSED = None
TRIED = {
    "mount": errno.EPERM, "umount": errno.EPERM, "host name": errno.EPERM,
    "clock": errno.EPERM, "reboot": errno.EPERM, "swapoff": errno.EPERM,
    "name spaces": errno.EPERM, "device": errno.EACCES,
    "kernel setting": errno.EROFS,
    "typing": errno.EPERM, "keys": errno.EPERM, "ring": errno.ENOSYS,
    "ptrace": errno.EPERM, "limits": errno.EPERM, "own limits": PASSED,
    "niceness": errno.EPERM, "root's niceness": errno.EPERM,
    "own niceness": PASSED, "processors": errno.EPERM, "oom": errno.EROFS,
    "root of root's": errno.EACCES, "root of nobody's": errno.EACCES,
    "cwd of root's": errno.EACCES, "cwd of nobody's": errno.EACCES,
    "fd/0 of root's": errno.EACCES, "fd/0 of nobody's": errno.EACCES,
    "memory": errno.EROFS,
    "TCP": errno.ECONNREFUSED, "UDP": errno.ECONNREFUSED,
    "UDP message": errno.ECONNREFUSED, "name server": PASSED,
    "abstract socket": errno.ECONNREFUSED, "host's socket": errno.ECONNREFUSED,
    "own socket": PASSED, "hold a port": errno.EACCES, "listen": errno.EACCES,
    "raw socket": errno.EPERM,
    "kill": PASSED, "kill a group": PASSED, "pidfd_send_signal": PASSED,
    "tgkill": PASSED, "nobody kills root's": errno.EPERM,
    "nobody kills nobody's": PASSED, "probe": PASSED,
    "probe nobody": errno.ESRCH, "own signals from a descriptor": PASSED,
    "others' signals from a descriptor": errno.EPERM, "kill a child": PASSED,
    "end": PASSED, "probe the ended": errno.ESRCH}


def test_each_way_out_is_answered_as_it_should_be(tried):
    tries = dict(tried["tries"])
    assert tries.pop("command").endswith("/victim")
    assert tries.pop("sees the ended") is False
    assert tries == TRIED


def test_signals_count_as_delivered_and_are_told(tried):
    victim, other = tried["victim"], tried["other"]
    told = [(one["pid"], one["signal"]) for one in tried["report"]["signals"]
            if one["pid"] in (victim, other)]
    assert told == [
        (victim, signal.SIGUSR1), (victim, signal.SIGUSR2),
        (victim, signal.SIGHUP), (victim, 10), (other, signal.SIGCONT),
        (other, signal.SIGKILL)]


def test_what_was_refused_is_told(tried):
    told = {one["what"] for one in tried["report"]["refused"]}
    assert {"mount", "sethostname", "clock_settime", "ptrace",
            "new name spaces", "connection to 127.0.0.1 port 25",
            "connection to 127.0.0.1 port 514", "connection to @decoy",
            "to hold 0.0.0.0 port 7", "to wait for connections",
            "prlimit of other processes", "setpriority of other processes",
            "fcntl of other processes", "ioctl", "add_key"} <= told


def test_a_limit_that_forbids_cores_is_no_obstacle(busy_host):
    # As sudo sets it.
    status, output, errors = busy_host.ask(
        "sh", command=f"ulimit -c 0; '{REHEARSE}' --this-host -- echo here",
        stdin=b"")
    assert status == 0 and output.startswith(b"here\n"), errors


@pytest.mark.parametrize("how", [
    "./vellumcraft --stay 192.0.2.1", "/opt/vellumcraft/vellumcraft x y",
    "sh -c 'PATH=/opt/vellumcraft; vellumcraft'", "./link"])
def test_the_server_is_never_started(busy_host, how):
    report, output = busy_host.report(
        f"sh -c \"ln -s vellumcraft link; {how}; echo status $?; "
        "cmp vellumcraft /opt/vellumcraft/bin/sendmail && echo whole\"")
    assert output == "status 0\nwhole\n"
    [start] = report["would_start"]
    assert start["program"] == "/opt/vellumcraft/vellumcraft"
    assert report["left_running"] == []


def test_what_is_left_running_is_told_and_ended(busy_host):
    report, output = busy_host.report(
        "sh -c 'setsid sleep 1234 >/dev/null 2>&1 & echo $!; sleep 0.3'")
    assert [(one["pid"], one["command"]) for one in report["left_running"]] == [
        (int(output), "sleep 1234")]
    assert busy_host.ask("alive", pid=int(output)) is False


def test_a_directory_of_the_host_is_no_standard_input(busy_host):
    status, _, errors = busy_host.rehearse("true </etc")
    assert status == 125
    assert b"descriptor 0 is a directory of the host" in errors


# Where it can't be done.

def test_without_announcements_of_calls_it_says_so(host):
    """The host's own rehearsal has the kernel's only watch."""
    status, output, errors = host.ask("sh", stdin=b"", command=(
        f"'{REHEARSE}' --this-host -- touch /etc/touched"))
    assert (status, output) == (125, b"")
    assert errors.count(b"\n") == 1
    assert b"seccomp" in errors and b"nothing was run" in errors
    assert not host.exists("/etc/touched")


def test_without_overlays_it_says_so():
    """Overlays can be laid over overlays, but not over those."""
    done = subprocess.run(
        [REHEARSE, "--privileged", "--unwatched", "--json", "/dev/null", "--",
         REHEARSE, "--privileged", "--unwatched", "--json", "/dev/null", "--",
         REHEARSE, "--this-host", "--", "touch", "/etc/touched"],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=30,
        check=False)
    assert (done.returncode, done.stdout) == (125, "")
    assert done.stderr.count("\n") == 1
    assert "overlay" in done.stderr and "nothing was run" in done.stderr


@pytest.mark.parametrize("right,word", [
    ("-sys_admin", "name spaces"), ("-sys_ptrace", "watch")])
def test_without_roots_rights_it_says_so(right, word):
    done = subprocess.run(
        ["setpriv", "--bounding-set", right, REHEARSE, "--this-host", "--",
         "touch", "/tmp/rehearsed-not"], stdout=subprocess.PIPE,
        stderr=subprocess.PIPE, text=True, timeout=20, check=False)
    assert done.returncode == 125
    assert done.stderr.count("\n") == 1
    assert word in done.stderr and "nothing was run" in done.stderr
    assert not os.path.exists("/tmp/rehearsed-not")


# Nothing is left, whatever ends it.

MARK = "rehearsed-on-this-host"
SCRIPT = (f"setsid sh -c 'sleep 1000; exit' {MARK} & "
          "trap 'echo int; exit 9' INT; echo ready; sleep 1000 & wait")


def marked():
    found = []
    for file in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
        try:
            words = file.read_bytes().split(b"\0")
            if words[0] == b"sh" and words[-2] == MARK.encode():
                found.append(int(file.parent.name))
        except OSError:
            continue
    return found


def wait_until(condition, seconds=5):
    end = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < end, f"not within {seconds} seconds"
        time.sleep(0.01)


@pytest.fixture(name="sleeper")
def start_sleeper():
    process = subprocess.Popen(
        [REHEARSE, "--this-host", "--", "sh", "-c", SCRIPT],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
        stderr=subprocess.PIPE, text=True)
    assert process.stdout.readline() == "ready\n"
    wait_until(marked)
    yield process
    wait_until(lambda: not marked())
    process.stdout.close()
    process.stderr.close()


def test_nothing_is_left_after_kill_9(sleeper):
    sleeper.kill()
    sleeper.wait()
    assert sleeper.stdout.read() == ""  # whoever holds it ends as well


def test_nothing_is_left_after_the_other_half_was_killed(sleeper):
    children = pathlib.Path(f"/proc/{sleeper.pid}/task/{sleeper.pid}/children")
    os.kill(int(children.read_text()), signal.SIGKILL)
    errors = sleeper.communicate(timeout=10)[1]
    assert sleeper.returncode == 125
    # The shell may say, too, that it can start nothing any more.
    assert "rehearse: the rehearsal was ended from outside\n" in errors


def test_an_interrupt_reaches_the_program(sleeper):
    sleeper.send_signal(signal.SIGINT)
    output, errors = sleeper.communicate(timeout=10)
    assert (output, sleeper.returncode) == ("int\n", 9)
    assert "\nExit status: 9\n" in errors


def test_the_shell_gets_its_terminal_back():
    child = pexpect.spawn("/bin/bash", ["--norc", "-i"], timeout=10,
                          env=dict(os.environ, PS1="PROMPT> "))
    child.expect("PROMPT> ")
    child.sendline(f"{REHEARSE} --this-host --json /dev/null -- "
                   "sh -c 'echo rea\"\"dy; read a; echo got $a; exit 3'")
    child.expect("ready")
    time.sleep(0.2)
    child.sendcontrol("z")
    child.expect("Stopped")
    child.sendline("echo still here")
    child.expect("still here\r")
    child.sendline("fg")
    child.expect("rehearse")
    time.sleep(0.2)
    child.sendline("again")
    child.expect("got")
    child.expect("PROMPT> ")
    child.sendline("echo status $?")
    child.expect("status 3\r")
    child.sendline("exit")
    child.expect(pexpect.EOF)
    child.close()
