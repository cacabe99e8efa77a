"""What `rehearse` promises: the real host stays as it is, all is told."""

import json
import os
import pathlib
import pwd
import shutil
import signal
import socket
import subprocess
import tempfile
import time

import pexpect
import pytest

from harness import BUILD

REHEARSE = str(BUILD / "rehearse")


@pytest.fixture
def scratch():
    """A directory of the real host, outside of any rehearsal."""
    directory = pathlib.Path(tempfile.mkdtemp(prefix="rehearsal-"))
    os.chmod(directory, 0o755)
    yield directory
    shutil.rmtree(directory)


# A preparation that leaves a process; it has its name when that has ended.
DAEMON = "sleep 1000 </dev/null >/dev/null 2>&1 & sleep 0.2"


def rehearse(*arguments, **more):
    return subprocess.run([REHEARSE, *map(str, arguments)],
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, timeout=30, check=False,
                          text=True, **more)


def shell(script, *options, **more):
    return rehearse(*options, "--", "sh", "-c", script, **more)


def report(scratch, script, *options):
    """The JSON report of a rehearsed shell script."""
    file = scratch / "report.json"
    done = shell(script, "--json", file, *options)
    assert done.stderr == "", done.stderr
    return json.loads(file.read_text())


def files_below(found, directory):
    """{path below the directory: entry} of a report."""
    start = str(directory) + "/"
    return {entry["path"][len(start):]: entry for entry in found["files"]
            if entry["path"].startswith(start)}


def processes_named(text):
    found = []
    for directory in pathlib.Path("/proc").iterdir():
        if directory.name.isdigit():
            try:
                command = (directory / "cmdline").read_bytes()
            except OSError:
                continue
            if text.encode() in command:
                found.append(int(directory.name))
    return found


def wait_until(condition, seconds=5):
    end = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < end, "not within %s seconds" % seconds
        time.sleep(0.01)


def mounts():
    return pathlib.Path("/proc/self/mountinfo").read_text()


# Nothing reaches the real host.

@pytest.mark.parametrize("directory", ["/etc", "/var", "/tmp", "/usr/lib",
                                       "/root", "/run", "/opt", "/dev/shm"])
def test_files_stay_in_the_rehearsal(directory):
    name = f"{directory}/rehearsal-leak-{os.getpid()}"
    done = shell(f"echo x >{name} && cat {name}")
    assert (done.returncode, done.stdout) == (0, "x\n")
    assert not os.path.exists(name)


def test_changed_and_removed_files_are_as_before_on_the_host(scratch):
    (scratch / "kept").write_text("old")
    (scratch / "gone").write_text("old")
    (scratch / "tree").mkdir()
    (scratch / "tree" / "leaf").write_text("old")
    before = os.stat(scratch / "kept")
    done = shell(f"cd {scratch} && echo new >kept && chmod 600 kept && "
                 "chown 1:1 kept && rm gone && rm -r tree && ls")
    assert done.stdout == "kept\n"
    after = os.stat(scratch / "kept")
    assert (scratch / "kept").read_text() == "old"
    assert (after.st_mode, after.st_uid, after.st_ctime_ns) == (
        before.st_mode, before.st_uid, before.st_ctime_ns)
    assert (scratch / "gone").read_text() == "old"
    assert (scratch / "tree" / "leaf").read_text() == "old"


def test_another_file_system_is_covered_too(scratch):
    subprocess.run(["mount", "-t", "tmpfs", "none", scratch], check=True)
    try:
        (scratch / "file").write_text("old")
        done = shell(f"echo new >{scratch}/file; cat {scratch}/file")
        assert done.stdout == "new\n"
        assert f"changed  0644  root:root  {scratch}/file" in done.stderr
        assert (scratch / "file").read_text() == "old"
    finally:
        subprocess.run(["umount", scratch], check=True)


def test_a_read_only_file_system_stays_read_only(scratch):
    subprocess.run(["mount", "-t", "tmpfs", "-o", "ro", "none", scratch],
                   check=True)
    try:
        done = shell(f"echo new >{scratch}/file")
        assert done.returncode == 2
        assert "Read-only file system" in done.stderr
        assert f"Read-only in the rehearsal: {scratch}\n" in done.stderr
    finally:
        subprocess.run(["umount", scratch], check=True)


def test_a_file_mounted_on_a_file_can_be_changed(scratch):
    (scratch / "source").write_text("real")
    (scratch / "target").write_text("hidden")
    subprocess.run(["mount", "--bind", scratch / "source", scratch / "target"],
                   check=True)
    try:
        done = shell(f"cat {scratch}/target; echo new >{scratch}/target; "
                     f"cat {scratch}/target")
        assert done.stdout == "realnew\n"
        assert (scratch / "source").read_text() == "real"
    finally:
        subprocess.run(["umount", scratch / "target"], check=True)


def test_the_host_name_stays_in_the_rehearsal():
    before = socket.gethostname()
    done = shell("hostname", "--prepare", "hostname rehearsed")
    assert done.stdout == "rehearsed\n"
    assert socket.gethostname() == before


def test_processes_of_the_host_are_out_of_reach():
    victim = subprocess.Popen(["sleep", "1000"])
    try:
        done = shell(f"kill -9 {victim.pid}; kill -9 -1; ls -d /proc/[0-9]*")
        assert f"/proc/{victim.pid}\n" not in done.stdout
        assert victim.poll() is None
    finally:
        victim.kill()
        victim.wait()


def test_killing_the_process_group_reaches_nobody_outside():
    done = subprocess.run(
        ["sh", "-c", f"{REHEARSE} -- sh -c 'kill -KILL 0'; echo $?"],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=20,
        start_new_session=True, check=True)
    assert done.stdout == "137\n"


def test_ports_are_the_rehearsals_own():
    taken = socket.socket()
    taken.bind(("127.0.0.1", 0))
    taken.listen()
    port = taken.getsockname()[1]
    script = (f"import socket; s = socket.socket(); s.bind(('127.0.0.1', "
              f"{port})); s.listen(); c = socket.create_connection(("
              f"'127.0.0.1', {port})); print('loopback')")
    done = rehearse("--", "/usr/bin/python3", "-c", script)
    assert done.stdout == "loopback\n"
    taken.close()


def test_sockets_of_the_hosts_services_are_out_of_reach(scratch):
    service = socket.socket(socket.AF_UNIX)
    service.bind(str(scratch / "service"))
    service.listen()
    done = rehearse("--", "/usr/bin/python3", "-c", (
        "import socket; socket.socket(socket.AF_UNIX).connect("
        f"'{scratch}/service')"))
    assert done.returncode == 1
    assert "Connection refused" in done.stderr
    service.close()


def test_the_kernels_settings_can_not_be_written():
    done = shell("for f in /proc/sys/kernel/hostname /proc/sysrq-trigger "
                 "/proc/sys/vm/swappiness /sys/kernel/uevent_seqnum; do "
                 "(echo 0 >$f) 2>/dev/null && echo $f; done; "
                 "mount -o remount,rw /proc/sys 2>/dev/null && echo remounted; "
                 "mount -t tmpfs none /mnt 2>/dev/null && echo mounted")
    assert done.stdout == ""


def test_there_are_no_disks_to_write_to():
    done = shell("find /dev -type b; "
                 "mknod /tmp/disk b 8 0 2>/dev/null && cat /tmp/disk; "
                 "ls /dev; ls /sys/fs/cgroup")
    assert done.stdout.split() == sorted([
        "fd", "full", "null", "ptmx", "pts", "random", "shm", "stderr",
        "stdin", "stdout", "tty", "urandom", "zero"])


def test_the_clock_and_the_modules_are_out_of_reach():
    done = shell("grep CapBnd /proc/self/status")
    bounding = int(done.stdout.split()[1], 16)
    for capability in (16, 17, 19, 21, 22, 25, 27, 34):
        # module, rawio, ptrace, admin, boot, time, mknod, syslog
        assert not bounding >> capability & 1, capability
    for capability in (0, 1, 3, 5, 6, 7, 10):
        # chown, dac_override, fowner, kill, setgid, setuid, bind_service
        assert bounding >> capability & 1, capability


def test_init_can_not_be_looked_into():
    done = shell("ls /proc/1/fd/*/ /proc/1/root/ 2>/dev/null; "
                 "kill -9 1; kill -TERM 1; echo alive")
    assert (done.returncode, done.stdout) == (0, "alive\n")


def test_mounts_stay_private():
    before = mounts()
    done = shell("mount -t tmpfs none /mnt && touch /mnt/here && ls /mnt",
                 "--privileged")
    assert done.stdout.split() == ["here"]
    assert mounts() == before


# Nothing is left, whatever ends the rehearsal.

@pytest.fixture
def place():
    """A view of this host in which nobody else makes temporary files; after
    the test it must look as before.  A command prefix that runs in it."""
    holder = subprocess.Popen(
        ["unshare", "-m", "sh", "-c",
         "mount -t tmpfs none /opt && cp \"$0\" /opt/rehearse && "
         "for d in /tmp /run /var/tmp /dev/shm; do mount -t tmpfs none $d "
         "|| exit; done; echo ready; cat", REHEARSE],
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    assert holder.stdout.readline() == "ready\n"
    # The root is named, for this host may be a change of root itself.
    enter = ["nsenter", "-t", str(holder.pid), "-m", "--root"]

    def look():
        inside = pathlib.Path(f"/proc/{holder.pid}")
        files = [sorted(os.listdir(inside / "root" / directory)) for directory
                 in ("tmp", "run", "var/tmp", "dev/shm", "opt", "etc", "")]
        return ((inside / "mountinfo").read_text(), files,
                processes_named("rehearsed-"))

    before = look()
    yield [*enter, "/opt/rehearse"]
    end = time.monotonic() + 5
    while look() != before and time.monotonic() < end:
        time.sleep(0.05)
    after = look()
    holder.communicate()
    assert after == before


def start_sleeper(place):
    """A rehearsal with a background daemon, running."""
    process = subprocess.Popen(
        [*place, "--", "sh", "-c",
         "setsid sh -c 'sleep 1000; exit' rehearsed-daemon & touch /tmp/x; "
         "trap 'echo int; exit 9' INT; echo ready; sleep 1000 & wait"],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
        stderr=subprocess.PIPE, text=True)
    assert process.stdout.readline() == "ready\n"
    wait_until(lambda: processes_named("rehearsed-daemon"))
    return process


def test_nothing_is_left_after_a_normal_end(place):
    done = subprocess.run(
        [*place, "--", "sh", "-c", "touch /tmp/x /run/x; sleep 1000 & "
         "setsid sh -c 'sleep 1000; exit' rehearsed-daemon & exit 4"],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
        stderr=subprocess.PIPE, timeout=20, check=False)
    assert done.returncode == 4


def test_nothing_is_left_after_kill_9(place):
    process = start_sleeper(place)
    process.kill()
    process.wait()
    # Whoever holds the output ends as well.
    assert process.stdout.read() == ""


def test_nothing_is_left_after_init_was_killed(place):
    process = start_sleeper(place)
    init = pathlib.Path(f"/proc/{process.pid}/task/{process.pid}/children")
    os.kill(int(init.read_text()), signal.SIGKILL)
    errors = process.communicate(timeout=10)[1]
    assert process.returncode == 125
    assert errors == "rehearse: the rehearsal was ended from outside\n"


def test_nothing_is_left_after_an_interrupt(place):
    process = start_sleeper(place)
    process.send_signal(signal.SIGINT)
    output, errors = process.communicate(timeout=10)
    assert output == "int\n"
    assert process.returncode == 9
    assert "Files:" in errors


def test_a_signal_that_ends_the_program_ends_the_rehearsal(place):
    process = start_sleeper(place)
    process.send_signal(signal.SIGTERM)
    process.communicate(timeout=10)
    assert process.returncode == 128 + signal.SIGTERM


def test_an_interrupt_while_preparing_ends_everything(place):
    process = subprocess.Popen(
        [*place, "--prepare", "sh -c 'sleep 1000; exit' rehearsed-first",
         "--", "true"], stderr=subprocess.PIPE)
    wait_until(lambda: len(processes_named("rehearsed-first")) > 2)
    process.send_signal(signal.SIGINT)
    process.communicate(timeout=10)
    assert process.returncode == 128 + signal.SIGINT


def test_two_at_once_see_nothing_of_each_other(scratch):
    script = (f"echo $$ >{scratch}/same; sleep 0.5; cat {scratch}/same; "
              "echo $$; ls /proc | grep -c '^[0-9]'")
    pair = [subprocess.Popen([REHEARSE, "--", "sh", "-c", script],
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             text=True) for _ in range(2)]
    for one in pair:
        lines = one.communicate(timeout=20)[0].split()
        assert lines[0] == lines[1]
        assert int(lines[2]) <= 4
    assert not (scratch / "same").exists()


# The terminal.

def test_ctrl_c_reaches_the_program_and_the_report_follows():
    child = pexpect.spawn(REHEARSE, [
        "--", "sh", "-c", "trap 'echo caught; exit 5' INT; echo ready; "
        "touch /etc/rehearsed; while :; do sleep 0.1; done"], timeout=10)
    child.expect("ready")
    time.sleep(0.2)
    child.sendintr()
    child.expect("caught")
    child.expect("created  0644  root:root  /etc/rehearsed")
    child.expect(pexpect.EOF)
    child.close()
    assert child.exitstatus == 5


def test_a_program_reads_from_the_terminal():
    child = pexpect.spawn(REHEARSE, ["--", "sh", "-c",
                                     "read line; echo got $line; test -t 0"],
                          timeout=10)
    child.sendline("hello")
    child.expect("got hello")
    child.expect(pexpect.EOF)
    child.close()
    assert child.exitstatus == 0


def test_job_control_stops_and_continues():
    child = pexpect.spawn("/bin/bash", ["--norc", "-i"], timeout=10,
                          env=dict(os.environ, PS1="PROMPT> "))
    child.expect("PROMPT> ")
    child.sendline(f"{REHEARSE} -- sh -c 'echo rea\"\"dy; read a; echo got $a'")
    child.expect("ready")
    time.sleep(0.2)
    child.sendcontrol("z")
    child.expect("Stopped")
    child.sendline("jobs; echo still here")
    child.expect("still here\r")
    child.sendline("fg")
    child.expect("rehearse")
    time.sleep(0.2)
    child.sendline("again")
    child.expect("got")
    child.expect("Files: none")
    child.sendline("exit")
    child.expect(pexpect.EOF)
    child.close()


def test_the_shell_gets_its_terminal_back():
    child = pexpect.spawn("/bin/bash", ["--norc", "-i"], timeout=10,
                          env=dict(os.environ, PS1="PROMPT> "))
    child.expect("PROMPT> ")
    child.sendline(f"{REHEARSE} --json /dev/null -- bash --norc -ic 'exit 3'")
    child.expect("PROMPT> ")
    child.sendline("echo status $?")
    child.expect("status 3\r")
    child.sendline("exit")
    child.expect(pexpect.EOF)
    child.close()


# Exit statuses.

@pytest.mark.parametrize("script,status", [
    ("exit 0", 0), ("exit 3", 3), ("exit 255", 255), ("kill -TERM $$", 143),
    ("kill -KILL $$", 137)])
def test_the_exit_status_is_the_programs(script, status):
    assert shell(script).returncode == status


def test_a_missing_program_is_told_from_one_that_can_not_run(scratch):
    (scratch / "text").write_text("no program")
    missing = rehearse("--", "/nonexistent/program")
    assert missing.returncode == 127
    assert missing.stderr == ("rehearse: can't run /nonexistent/program: "
                              "No such file or directory\n")
    refused = rehearse("--", scratch / "text")
    assert refused.returncode == 126
    assert "Permission denied" in refused.stderr


@pytest.mark.parametrize("arguments", [
    [], ["--root"], ["--bogus", "--", "true"],
    ["--this-host", "--root", "/tmp", "--", "true"],
    ["--this-host", "--prepare", "true", "--", "true"],
    ["--this-host", "--privileged", "--", "true"],
    ["--root", "/nonexistent", "--", "true"],
    ["--prepare", "exit 3", "--", "true"],
    ["--answers", "/nonexistent", "--", "true"],
    ["--json", "/nonexistent/file", "--", "true"], ["--changes"]])
def test_what_can_not_be_rehearsed_has_a_status_of_its_own(arguments):
    done = rehearse(*arguments)
    assert done.returncode == 125
    assert done.stdout == ""
    assert done.stderr.strip().splitlines()[-1].startswith("rehearse: ")


def test_without_root_it_says_what_it_needs():
    nobody = pwd.getpwnam("nobody")
    done = rehearse("--", "true", user=nobody.pw_uid, group=nobody.pw_gid,
                    extra_groups=[])
    assert done.returncode == 125
    assert done.stderr.count("\n") == 1
    assert "must be run by root" in done.stderr


def test_without_the_right_to_make_name_spaces_it_says_so():
    done = subprocess.run(["setpriv", "--bounding-set", "-sys_admin",
                           REHEARSE, "--", "touch", "/tmp/rehearsed-not"],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          text=True, timeout=20, check=False)
    assert done.returncode == 125
    assert done.stderr.count("\n") == 1
    assert "name spaces" in done.stderr and "nothing was run" in done.stderr
    assert not os.path.exists("/tmp/rehearsed-not")


# What is told.

def test_every_kind_of_change_is_told_with_mode_and_owner(scratch):
    for name in ("content", "mode", "owner", "removed", "moved", "type",
                 "untouched", "rewritten"):
        (scratch / name).write_text(f"this is {name}\n")
    os.symlink("old", scratch / "link")
    (scratch / "old-directory").mkdir()
    found = files_below(report(scratch, f"""
        cd {scratch}
        echo more >>content; chmod 4750 mode; chown 1:2 owner; rm removed
        mv moved elsewhere; rm type; mkdir type; chmod 2770 type
        cp rewritten copy; cat copy >rewritten; touch untouched
        (umask 027; echo x >created); ln -sf new link; mkfifo fifo
        rmdir old-directory
    """), scratch)
    kinds = {path: entry["kind"] for path, entry in found.items()}
    assert kinds == {
        "content": "changed", "mode": "changed", "owner": "changed",
        "removed": "removed", "elsewhere": "moved", "type": "changed",
        "copy": "created", "created": "created", "link": "changed",
        "fifo": "created", "old-directory": "removed"}
    assert found["content"]["content_changed"] is True
    assert found["mode"]["after"]["mode"] == "4750"
    assert found["mode"]["before"]["mode"] == "0644"
    assert found["mode"]["content_changed"] is False
    assert (found["owner"]["after"]["uid"],
            found["owner"]["after"]["gid"]) == (1, 2)
    assert found["owner"]["before"]["owner"] == "root"
    assert found["elsewhere"]["from"] == f"{scratch}/moved"
    assert found["type"]["before"]["type"] == "file"
    assert found["type"]["after"]["type"] == "directory"
    assert found["type"]["after"]["mode"] == "2770"
    assert found["created"]["after"]["mode"] == "0640"
    assert found["link"]["before"]["target"] == "old"
    assert found["link"]["after"]["target"] == "new"
    assert found["fifo"]["after"]["type"] == "fifo"
    assert found["removed"]["before"]["size"] == len("this is removed\n")


def test_the_text_tells_the_same(scratch):
    (scratch / "content").write_text("x")
    (scratch / "mode").write_text("x")
    (scratch / "old").write_text("unlike the others")
    (scratch / "gone").write_text("unlike any other")
    done = shell(f"cd {scratch}; echo y >content; chmod 600 mode; "
                 "mv old new; rm gone; mkdir -m 2750 made; ln -s made link; "
                 "chown 1:0 made")
    lines = [line for line in done.stderr.splitlines() if str(scratch) in line]
    assert lines == [
        f"  changed  0644  root:root  {scratch}/content, content",
        f"  removed  0644  root:root  {scratch}/gone",
        f"  created  0777  root:root  {scratch}/link -> made",
        f"  created  2750  daemon:root  {scratch}/made/",
        f"  changed  0600  root:root  {scratch}/mode, mode was 0644",
        f"  moved  0644  root:root  {scratch}/new, from {scratch}/old"]


def test_replaced_and_moved_directories_are_told_whole(scratch):
    for name in ("replaced", "moved"):
        (scratch / name / "sub").mkdir(parents=True)
        (scratch / name / "sub" / "file").write_text(f"in {name}\n")
    found = files_below(report(scratch, f"""
        cd {scratch}
        rm -r replaced; mkdir replaced; echo other >replaced/new
        mv moved target; echo more >>target/sub/added
    """), scratch)
    kinds = {path: entry["kind"] for path, entry in found.items()}
    assert kinds == {
        "replaced/sub": "removed", "replaced/sub/file": "removed",
        "replaced/new": "created", "moved": "removed", "moved/sub": "removed",
        "target": "created", "target/sub": "created",
        "target/sub/file": "moved", "target/sub/added": "created"}


def test_what_was_undone_is_not_told(scratch):
    (scratch / "file").write_text("same\n")
    found = files_below(report(scratch, f"""
        cd {scratch}
        touch new; rm new; chmod 600 file; chmod 644 file; echo other >file
        echo same >file; mkdir d; rmdir d
    """), scratch)
    assert found == {}


def test_what_the_preparation_did_is_the_baseline(scratch):
    (scratch / "host").write_text("host\n")
    found = report(
        scratch, f"cd {scratch}; echo b >>changed; rm removed; rm host; "
        "mv moved target; echo same >rewritten",
        "--prepare", f"cd {scratch}; for f in changed removed moved kept; do "
        "echo $f >$f; done; echo same >rewritten; echo new >>host; "
        "exec sleep 1000 </dev/null >/dev/null 2>&1 &")
    files = files_below(found, scratch)
    assert {path: entry["kind"] for path, entry in files.items()} == {
        "changed": "changed", "removed": "removed", "host": "removed",
        "target": "moved"}
    assert files["host"]["before"]["size"] == len("host\nnew\n")
    assert found["started"] == [] and found["ended"] == []


def test_names_that_are_no_text_survive(scratch):
    found = report(scratch, f"touch {scratch}/\"$(printf 'a\\377\\tb\"')\"")
    assert [os.fsencode(entry["path"]) for entry in found["files"]] == [
        os.fsencode(scratch) + b'/a\xff\tb"']


def test_signals_are_told_with_name_number_and_sender(scratch):
    found = report(scratch, "sleep 1000 & sleep 0.2; kill -TERM $!; "
                   "sleep 1000 & sleep 0.2; kill -0 $!; kill -HUP $!; kill -USR1 $$ 2>/dev/null; "
                   "exit", "--prepare",
                   DAEMON)
    assert [(one["name"], one["signal_name"], one["sender"])
            for one in found["signalled"]] == [
                ("sleep", "SIGTERM", "sh"), ("sleep", "SIGHUP", "sh")]


def test_a_signal_by_name_is_told(scratch):
    found = report(scratch, "killall -HUP sleep; sleep 0.2", "--prepare",
                   DAEMON)
    assert [(one["name"], one["signal"], one["sender"])
            for one in found["signalled"]] == [("sleep", 1, "killall")]
    assert [one["name"] for one in found["ended"]] == ["sleep"]


def test_a_signal_that_is_refused_is_not_told(scratch):
    found = report(scratch, "setpriv --reuid 1 --clear-groups "
                   "kill -TERM $(pgrep -x sleep) 2>/dev/null", "--prepare",
                   DAEMON)
    assert found["signalled"] == []


def test_daemons_and_their_ports_are_told(scratch):
    found = report(
        scratch, f"{BUILD}/standin_daemon --ports 25,79 >/dev/null; sleep 0.3",
        "--prepare", f"ln -s {BUILD}/standin_daemon /opt/inetd; "
        "/opt/inetd --ports 110 >/dev/null; sleep 0.3")
    assert [one["name"] for one in found["started"]] == ["standin_daemon"]
    assert [(one["port"], one["protocol"], one["process"])
            for one in found["listening"]] == [
                (25, "tcp", "standin_daemon"), (79, "tcp", "standin_daemon"),
                (110, "tcp", "inetd")]


def test_a_tree_can_be_rehearsed_on(scratch):
    tree = scratch / "tree"
    for directory in ("bin", "etc", "proc", "sys", "dev", "lib", "lib64"):
        (tree / directory).mkdir(parents=True)
    for file in ("/bin/sh", "/lib64/ld-linux-x86-64.so.2",
                 "/lib/x86_64-linux-gnu/libc.so.6"):
        target = tree / file[1:]
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(file, target)
    done = rehearse("--root", tree, "--", "/bin/sh", "-c",
                    "echo x >/etc/made; echo /*", cwd="/")
    assert done.returncode == 0, done.stderr
    assert done.stdout.split() == [
        "/bin", "/dev", "/etc", "/lib", "/lib64", "/proc", "/sys"]
    assert "created  0644  0:0  /etc/made\n" in done.stderr
    assert not (tree / "etc" / "made").exists()


def test_changed_files_can_be_kept(scratch):
    (scratch / "gone").write_text("x")
    kept = scratch / "kept"
    done = shell(f"cd {scratch}; mkdir -p a/b; echo hello >a/b/c; "
                 "chmod 2750 a/b; chown 1:2 a/b/c; ln -s b a/link; rm gone",
                 "--keep", kept)
    assert done.returncode == 0, done.stderr
    inside = kept / str(scratch)[1:]
    assert (inside / "a/b/c").read_text() == "hello\n"
    assert os.stat(inside / "a/b").st_mode & 0o7777 == 0o2750
    assert os.stat(inside / "a/b/c").st_uid == 1
    assert os.readlink(inside / "a/link") == "b"
    assert not (inside / "gone").exists()


def test_a_program_can_ask_what_it_changed(scratch):
    (scratch / "file").write_text("old\n")
    done = shell(f"echo new >{scratch}/file; {REHEARSE} --before "
                 f"{scratch}/file; {REHEARSE} --changes; {REHEARSE} --mark; "
                 f"touch {scratch}/second; {REHEARSE} --changes")
    first, second = done.stdout.split("Files:\n")[1:]
    assert done.stdout.startswith("old\n")
    assert f"{scratch}/file, content" in first
    assert f"{scratch}/second" in second and "/file" not in second


def test_answers_are_typed_where_they_are_asked_for(scratch):
    (scratch / "answers").write_text(
        "# a comment\nYour name?\tAnn\nPassword\tsecret\n")
    done = shell(
        "printf 'Your name? '; read n; printf 'Age? '; read a; "
        "sh -c 'printf \"Password: \"; read p; echo \"<$p>\"'; "
        "echo \"$n/$a\"; test -t 0 && test -t 1; exit 6",
        "--answers", scratch / "answers")
    assert done.returncode == 6
    assert done.stdout == ("Your name? Ann\nAge? \nPassword: secret\n"
                           "<secret>\nAnn/\n")


def test_the_users_who_may_not_read_a_file_may_not_in_a_rehearsal(scratch):
    (scratch / "secret").write_text("x")
    os.chmod(scratch / "secret", 0o600)
    done = shell(f"setpriv --reuid 65534 --clear-groups cat {scratch}/secret")
    assert "Permission denied" in done.stderr


def test_a_rehearsal_starts_fast():
    start = time.monotonic()
    for _ in range(5):
        assert rehearse("--json", "/dev/null", "--", "true").returncode == 0
    assert (time.monotonic() - start) / 5 < 0.5
