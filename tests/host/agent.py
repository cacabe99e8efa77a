"""Works inside a throw-away host for the test that started it.

Requests and answers are pickled objects on standard input and output, each
behind its length.  A request is (name, arguments); an answer ("ok", result) or
("error", text).
"""

import ctypes
import fcntl
import os
import pickle
import pwd
import grp
import resource
import select
import shutil
import signal
import socket
import stat
import struct
import subprocess
import sys
import termios
import time

READ_CALL = {"x86_64": 0, "aarch64": 63}[os.uname().machine]
KEEP_BYTES = 1 << 20
AFTER_ANSWER_SECONDS = 0.2

REQUESTS = {}
PROGRAMS = {}


def request(function):
    REQUESTS[function.__name__] = function
    return function


def ask_init(question):
    """Asks the init of the rehearsal, as `rehearse --changes` does."""
    peer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    peer.connect("\0rehearse")
    peer.sendall(os.fsencode(question) + b"\n")
    parts = []
    while part := peer.recv(1 << 16):
        parts.append(part)
    peer.close()
    return b"".join(parts)


@request
def mark():
    ask_init("mark")


@request
def changes(contents=True):
    """The report since the mark; with contents of small regular files."""
    import json
    report = json.loads(ask_init("changes-json"))
    if contents:
        report["files"] = [
            change for change in report["files"] if add_contents(change)]
    report["agent"] = os.getpid()
    return report


def add_contents(change):
    """False when somebody who is still at work has removed the file."""
    path = change["path"]
    before, after = change.get("before"), change.get("after")
    if before and before["type"] == "file" and before["size"] <= KEEP_BYTES:
        before["content"] = ask_init("before " + change.get("from", path))
    if after and after["type"] == "file" and after["size"] <= KEEP_BYTES:
        try:
            after["content"] = read(path)
        except FileNotFoundError:
            return False
    return True


@request
def write(path, content, mode, owner, group):
    parent = os.path.dirname(path)
    os.makedirs(parent, exist_ok=True)
    if os.path.islink(path):
        os.remove(path)
    with open(path, "wb") as file:
        file.write(content)
    own(path, mode, owner, group)


def own(path, mode, owner, group):
    uid = owner if isinstance(owner, int) else pwd.getpwnam(owner).pw_uid
    gid = group if isinstance(group, int) else grp.getgrnam(group).gr_gid
    os.chown(path, uid, gid)
    os.chmod(path, mode)


@request
def mkdir(path, mode, owner, group):
    os.makedirs(path, exist_ok=True)
    own(path, mode, owner, group)


@request
def read(path):
    with open(path, "rb") as file:
        return file.read()


@request
def exists(path):
    return os.path.lexists(path)


@request
def listdir(path):
    return sorted(os.listdir(path))


@request
def lstat(path):
    status = os.lstat(path)
    return tuple(status), os.readlink(path) if stat.S_ISLNK(
        status.st_mode) else None


@request
def tree(paths):
    """{path: (status, content or target)} of everything at and below."""
    found = {}

    def visit(path):
        try:
            status = os.lstat(path)
        except FileNotFoundError:
            return
        content = None
        if stat.S_ISREG(status.st_mode):
            content = read(path)
        elif stat.S_ISLNK(status.st_mode):
            content = os.fsencode(os.readlink(path))
        found[path] = tuple(status), content
        if stat.S_ISDIR(status.st_mode):
            for name in sorted(os.listdir(path)):
                visit(f"{path}/{name}")

    for path in paths:
        visit(path)
    return found


@request
def processes():
    """{process id: name} of all that live."""
    found = {}
    for name in os.listdir("/proc"):
        if name.isdigit() and alive(int(name)):
            with open(f"/proc/{name}/comm") as file:
                found[int(name)] = file.read().rstrip("\n")
    return found


@request
def symlink(target, path):
    if os.path.lexists(path):
        os.remove(path)
    os.symlink(target, path)


@request
def remove(path):
    if os.path.isdir(path) and not os.path.islink(path):
        shutil.rmtree(path)
    else:
        os.remove(path)


@request
def sh(command, stdin):
    done = subprocess.run(["/bin/sh", "-c", command], input=stdin,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          check=False)
    return done.returncode, done.stdout, done.stderr


@request
def start(arguments):
    """Starts a process that stays; its process id."""
    return subprocess.Popen(arguments, stdin=subprocess.DEVNULL,
                            stdout=subprocess.DEVNULL, cwd="/",
                            start_new_session=True).pid


@request
def alive(pid):
    try:
        os.waitpid(pid, os.WNOHANG)
    except ChildProcessError:
        pass
    try:
        with open(f"/proc/{pid}/stat", "rb") as file:
            return file.read().rsplit(b")", 1)[1].split()[0] not in b"ZX"
    except (FileNotFoundError, ProcessLookupError):
        return False


@request
def send_signal(pid, number):
    os.kill(pid, number)


def become(user):
    """Drops root for a login, or leaves only its effective id."""
    if user is not None:
        entry = pwd.getpwnam(user)
        os.setgroups([])
        os.setgid(entry.pw_gid)
        os.setuid(entry.pw_uid)


class Program:
    """A program under test and its console."""

    def __init__(self, path, argv, stdin, cwd, env, user, limits, stty):
        self.status = None
        self.switches = -1
        self.sent = 0.0
        self.terminal = stdin in ("pty", "tty")
        child_in = child_out = child_err = None
        if self.terminal:
            self.console, child = os.openpty()
            if stdin == "pty":
                raw = termios.tcgetattr(child)
                raw[1] &= ~termios.OPOST
                raw[3] &= ~termios.ECHO
                termios.tcsetattr(child, termios.TCSANOW, raw)
            if stty:
                subprocess.run(["stty", *stty.split()], stdin=child, check=True)
            child_in = child_out = child_err = child
            self.input = self.output = self.console
            self.errors = None
        else:
            self.output, child_out = os.pipe()
            self.errors, child_err = os.pipe()
            self.input = None
            if stdin == "pipe":
                child_in, self.input = os.pipe()
            elif stdin == "null":
                child_in = os.open("/dev/null", os.O_RDONLY)
        self.pid = os.fork()
        if self.pid == 0:
            try:
                self.become_program(path, argv, cwd, env, user, limits,
                                    (child_in, child_out, child_err))
            except BaseException as problem:
                os.write(2, f"{path}: {problem}\n".encode())
            finally:
                os._exit(127)
        for fd in {child_in, child_out, child_err} - {None}:
            os.close(fd)
        for fd in {self.output, self.errors} - {None}:
            os.set_blocking(fd, False)

    def become_program(self, path, argv, cwd, env, user, limits, console):
        os.setsid()
        if self.terminal:
            fcntl.ioctl(console[0], termios.TIOCSCTTY, 0)
        else:
            os.setpgid(0, 0) if os.getpid() != os.getsid(0) else None
        for fd, source in enumerate(console):
            if source is None:
                try:
                    os.close(fd)
                except OSError:
                    pass
            else:
                os.dup2(source, fd)
        os.closerange(3, 1000)
        for name in (signal.SIGPIPE, signal.SIGXFSZ):
            signal.signal(name, signal.SIG_DFL)
        for name, value in limits.items():
            resource.setrlimit(getattr(resource, name), (value, value))
        os.chdir(cwd)
        become(user)
        os.umask(0o022)
        os.execve(path, argv, env)

    def drain(self, fd):
        parts = []
        while fd is not None:
            try:
                part = os.read(fd, 1 << 16)
            except BlockingIOError:
                break
            except OSError:  # the other side of a terminal is closed
                break
            if not part:
                break
            parts.append(part)
        return b"".join(parts)

    def waits(self):
        """Whether it reads its console and nothing that was sent is left."""
        try:
            with open(f"/proc/{self.pid}/syscall") as file:
                call = file.read().split()
            if call[:2] != [str(READ_CALL), "0x0"]:
                return False
            with open(f"/proc/{self.pid}/status") as file:
                lines = dict(line.split(":", 1) for line in file)
        except (FileNotFoundError, ProcessLookupError, PermissionError):
            return False
        switches = int(lines["voluntary_ctxt_switches"])
        if lines["State"].split()[0] != "S":
            return False
        # Having slept before and having gone to sleep again since then, it has
        # taken what was sent.
        if switches == self.switches and self.sent and (
                time.monotonic() < self.sent + AFTER_ANSWER_SECONDS):
            return False
        self.switches = switches
        return True

    def ended(self):
        if self.status is None:
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            if pid:
                self.status = os.waitstatus_to_exitcode(status)
        return self.status is not None


@request
def run(path, argv, stdin, cwd, env, user, limits, stty):
    program = Program(path, argv, stdin, cwd, env, user, limits, stty)
    PROGRAMS[program.pid] = program
    return program.pid


@request
def step(pid, seconds):
    """Waits until the program waits for input, ends, or has written much.

    Returns (output, errors, state): "waits", "ended", "runs".
    """
    program = PROGRAMS[pid]
    output, errors = b"", b""
    until = time.monotonic() + seconds
    state = "runs"
    pause = 0.0005
    watched = [fd for fd in (program.output, program.errors) if fd is not None]
    while state == "runs" and time.monotonic() < until:
        if program.ended():
            state = "ended"
        elif program.waits():
            state = "waits"
            if program.terminal:  # what was written arrives a little later
                while select.select([program.output], [], [], 0.005)[0]:
                    part = program.drain(program.output)
                    output += part
                    if not part:
                        break
        output += program.drain(program.output)
        errors += program.drain(program.errors)
        if state == "runs":
            select.select(watched if program.status is None else [], [], [],
                          pause)
            pause = min(pause * 1.5, 0.02)
            if output or errors:
                break
    return output, errors, state


@request
def send(pid, data):
    program = PROGRAMS[pid]
    program.sent = time.monotonic()
    try:
        os.write(program.input, data)
    except BrokenPipeError:
        pass


@request
def close_input(pid):
    program = PROGRAMS[pid]
    program.sent = time.monotonic()
    if program.terminal:
        os.write(program.input, b"\x04")
    elif program.input is not None:
        os.close(program.input)
        program.input = None


@request
def hang_up(pid):
    """Takes the whole console away, as when a terminal is closed."""
    program = PROGRAMS[pid]
    for fd in {program.input, program.output, program.errors} - {None}:
        os.close(fd)
    program.input = program.output = program.errors = None


@request
def finish(pid):
    """Lets go of a program; its exit status."""
    program = PROGRAMS.pop(pid)
    if not program.ended():
        os.kill(pid, signal.SIGKILL)
        program.status = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
    for fd in {program.input, program.output, program.errors} - {None}:
        os.close(fd)
    return program.status


def receive(stream):
    size = stream.read(8)
    if len(size) < 8:
        return None
    return pickle.loads(stream.read(struct.unpack("<Q", size)[0]))


def reply(stream, answer):
    data = pickle.dumps(answer)
    stream.write(struct.pack("<Q", len(data)) + data)
    stream.flush()


def main():
    requests = os.fdopen(os.dup(0), "rb")
    answers = os.fdopen(os.dup(1), "wb")
    null = os.open("/dev/null", os.O_RDWR)
    os.dup2(null, 0)
    os.dup2(2, 1)
    while (message := receive(requests)) is not None:
        name, arguments = message
        try:
            answer = ("ok", REQUESTS[name](**arguments))
        except Exception as problem:
            answer = ("error", f"{type(problem).__name__}: {problem}")
        reply(answers, answer)


main()
