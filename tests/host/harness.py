"""Throw-away hosts for tests: real programs as root, real paths, nothing real.

    with Host() as host:
        host.write("/etc/inetd.conf", "smtp stream tcp ...\\n")
        run = host.run("Install", answers={"setgid bit": "no"})
        assert run.status == 0
        assert run.changes["/var/mail"].mode == 0o2775

A host is an overlay of this machine made by `rehearse` and turned into the host
of tests/demo-host.  Everything on it ends with it.
"""

import dataclasses
import json
import os
import pathlib
import pickle
import re
import signal
import struct
import subprocess
import tempfile
import time

REPO = pathlib.Path(__file__).resolve().parent.parent.parent
BUILD = pathlib.Path(os.environ.get("VC_BUILD", REPO / "build")).resolve()
SCREENS = REPO / "tests" / "screens"
LOGS = "/dev/shm/standins"
TASK_STATE = "/dev/shm/task-state"

ENVIRONMENT = {
    "HOME": "/root", "LANG": "C", "LOGNAME": "root", "TERM": "vt100",
    "PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "TZ": "UTC0", "USER": "root"}


# Where tools/coverage gathers what programs ran on the hosts, and where they
# leave it there.
COVERAGE = os.environ.get("VC_COVERAGE")
COUNTERS = "/dev/shm/counters"
if COVERAGE:
    ENVIRONMENT["GCOV_PREFIX"] = COUNTERS


class HostError(Exception):
    """Something that was asked of the host failed."""


class EndOfInput:
    """An answer: the end of the input."""


class HangUp:
    """An answer: the whole console goes away."""


EOF = EndOfInput()
HANGUP = HangUp()


@dataclasses.dataclass
class Signal:
    """An answer: a signal instead of a line."""
    number: int


@dataclasses.dataclass
class Raw:
    """An answer without the line end that answers otherwise get."""
    data: bytes


@dataclasses.dataclass
class Change:
    """What became of one path while a program ran."""
    path: str
    kind: str                  # "created" "changed" "moved" "removed"
    type: str                  # "file" "directory" "link" "fifo" ...
    mode: int                  # of what there is now; if removed, of what was
    owner: str
    group: str
    before: bytes = None       # content, for regular files up to 1 MiB
    after: bytes = None
    target: str = None         # where a link leads
    source: str = None         # the former path of what was moved
    content_changed: bool = False
    old: dict = None           # mode, owner, group, ... as they were
    new: dict = None


@dataclasses.dataclass
class Run:
    """What a program did."""
    output: bytes = b""
    errors: bytes = b""
    status: int = None         # as os.waitstatus_to_exitcode: -15 for SIGTERM
    changes: dict = dataclasses.field(default_factory=dict)
    started: list = dataclasses.field(default_factory=list)
    ended: list = dataclasses.field(default_factory=list)
    signalled: list = dataclasses.field(default_factory=list)  # (name, signal)
    listening: list = dataclasses.field(default_factory=list)  # ports
    reminders: list = None
    show_stoppers: int = None
    state: dict = None
    prompts: list = dataclasses.field(default_factory=list)
    answered: list = dataclasses.field(default_factory=list)

    @property
    def text(self):
        return self.output.decode("utf-8", "surrogateescape")

    def changed(self):
        """{path: kind} of everything that changed."""
        return {path: change.kind for path, change in self.changes.items()}


class Daemon:
    """A stand-in process on a host."""

    def __init__(self, host, name, pid, log):
        self.host, self.name, self.pid, self.log = host, name, pid, log

    def signals(self, seconds=1.0):
        """The numbers of the signals it got; waits a little for the first."""
        until = time.monotonic() + seconds
        while True:
            numbers = [int(line) for line in self.lines() if line.isdigit()]
            if numbers or time.monotonic() > until:
                return numbers
            time.sleep(0.01)

    def lines(self):
        if not self.host.exists(self.log):
            return []
        return self.host.read(self.log).decode().split()

    def alive(self):
        return self.host.ask("alive", pid=self.pid)

    def kill(self, number=signal.SIGKILL):
        self.host.ask("send_signal", pid=self.pid, number=number)


class Host:
    """A prepared host; see the module."""

    def __init__(self, prepare=True, options=()):
        command = [str(BUILD / "rehearse"), "--privileged",
                   "--json", "/dev/null"]
        if prepare:
            command += ["--prepare",
                        f"exec sh '{REPO}/tests/demo-host/prepare'"]
        command += [*options, "--", "/usr/bin/python3", "-I", "-S",
                    str(REPO / "tests" / "host" / "agent.py")]
        self.process = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            cwd="/", env=ENVIRONMENT)
        self.daemons = 0
        if COVERAGE:
            self._make_room_for_counters()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        if COVERAGE:
            self._bring_counters()
        self.process.stdin.close()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()

    def _make_room_for_counters(self):
        """Programs leave counters as whoever they are when they end.

        No sticky bits: there the kernel lets nobody open another's file.
        """
        self.mkdir(COUNTERS, 0o777)
        self.sh(f"find '{BUILD}' -name '*.gcno' -printf '%h\\n' | sort -u | "
                f"sed 's|^|{COUNTERS}|' | xargs mkdir -p; "
                f"chmod -R 777 {COUNTERS}")

    def _bring_counters(self):
        try:
            archive = self.ask(
                "sh", command=f"tar -C {COUNTERS} -cf - .", stdin=b"")[1]
        except HostError:
            return
        with tempfile.NamedTemporaryFile(
                dir=COVERAGE, suffix=".tar", delete=False) as file:
            file.write(archive)

    def ask(self, name, **arguments):
        """Has the agent on the host do something; its result."""
        data = pickle.dumps((name, arguments))
        try:
            self.process.stdin.write(struct.pack("<Q", len(data)) + data)
            self.process.stdin.flush()
        except BrokenPipeError as problem:
            raise HostError("the host is gone") from problem
        size = self.process.stdout.read(8)
        if len(size) < 8:
            raise HostError("the host is gone")
        kind, result = pickle.loads(
            self.process.stdout.read(struct.unpack("<Q", size)[0]))
        if kind == "error":
            raise HostError(result)
        return result

    # Files.

    def write(self, path, content, mode=0o644, owner="root", group="root"):
        """Makes a file with exactly this content, and its directories."""
        if isinstance(content, str):
            content = content.encode("utf-8", "surrogateescape")
        self.ask("write", path=path, content=content, mode=mode, owner=owner,
                 group=group)

    def mkdir(self, path, mode=0o755, owner="root", group="root"):
        self.ask("mkdir", path=path, mode=mode, owner=owner, group=group)

    def symlink(self, target, path):
        self.ask("symlink", target=target, path=path)

    def read(self, path):
        return self.ask("read", path=path)

    def tree(self, *paths):
        """{path: (os.stat_result, content or link target)}, links as such."""
        return {path: (os.stat_result(status), content) for path,
                (status, content) in self.ask("tree", paths=paths).items()}

    def processes(self):
        """{process id: name} of all that live."""
        return self.ask("processes")

    def exists(self, path):
        return self.ask("exists", path=path)

    def listdir(self, path):
        return self.ask("listdir", path=path)

    def stat(self, path):
        """os.stat_result of the path itself, links not followed."""
        return os.stat_result(self.ask("lstat", path=path)[0])

    def readlink(self, path):
        return self.ask("lstat", path=path)[1]

    def mode(self, path):
        """Permission bits, with setuid, setgid and sticky."""
        return self.stat(path).st_mode & 0o7777

    def remove(self, path):
        self.ask("remove", path=path)

    # Commands.

    def sh(self, command, stdin=b"", check=True):
        """Standard output of a shell command."""
        status, output, errors = self.ask("sh", command=command, stdin=stdin)
        if check and status != 0:
            raise HostError(f"{command}: status {status}\n"
                            f"{errors.decode('utf-8', 'replace')}")
        return output.decode("utf-8", "surrogateescape")

    # The prepared host's own things.

    def config(self, **keys):
        """Rewrites keys of /etc/vellumcraft.conf; None removes one."""
        path = "/etc/vellumcraft.conf"
        lines = self.read(path).decode().splitlines()
        for key, value in keys.items():
            lines = [line for line in lines if not line.startswith(key + "=")]
            if value is not None:
                lines.append(f"{key}={value}")
        self.write(path, "".join(line + "\n" for line in lines))

    def user(self, name, uid, gid=100, gecos="", home=None, hash="*",
             mail=None, shell="/bin/sh", make_home=True):
        """Adds a user: password and shadow entry, home, spool mailbox."""
        home = f"/home/{name}" if home is None else home
        for path, line, mode, group in (
                ("/etc/passwd", f"{name}:x:{uid}:{gid}:{gecos}:{home}:{shell}",
                 0o644, 0),
                ("/etc/shadow", f"{name}:{hash}:19000:0:99999:7:::",
                 0o640, 42)):
            content = self.read(path)
            self.write(path, content + os.fsencode(line) + b"\n", mode, 0,
                       group)
        if make_home and home not in ("", "/"):
            self.mkdir(home, 0o755, uid, gid)
        if mail is not None:
            self.write(f"/var/mail/{name}", mail, 0o660, uid, 8)

    def group(self, name, gid):
        self.write("/etc/group", self.read("/etc/group") +
                   f"{name}:x:{gid}:\n".encode())

    def daemon(self, name, ports=(), ignore=(), arguments=()):
        """Starts a stand-in process of that name that holds the ports."""
        self.daemons += 1
        directory = f"/dev/shm/bin{self.daemons}"
        log = f"{LOGS}/{name}-{self.daemons}"
        self.mkdir(directory)
        self.mkdir(LOGS, 0o1777)
        self.symlink(str(BUILD / "standin_daemon"), f"{directory}/{name}")
        command = [f"{directory}/{name}", "--stay", "--log", log]
        if ports:
            command += ["--ports", ",".join(map(str, ports))]
        if ignore:
            command += ["--ignore", ",".join(map(str, map(int, ignore)))]
        pid = self.ask("start", arguments=command + list(arguments))
        daemon = Daemon(self, name, pid, log)
        until = time.monotonic() + 5
        while "ready" not in daemon.lines():
            if time.monotonic() > until or not daemon.alive():
                raise HostError(f"the stand-in {name} did not start")
            time.sleep(0.005)
        return daemon

    def install_server(self, name="vellumcraft"):
        """Puts the stand-in server into the program directory."""
        self.sh(f"cp '{BUILD}/standin_daemon' /opt/vellumcraft/{name} && "
                f"chown vmail:vmail /opt/vellumcraft/{name}")

    # Programs under test.

    def run(self, program, answers=(), args=(), terminal=False, stdin=None,
            input=None, user=None, cwd="/opt/vellumcraft", env=None,
            argv0=None, timeout=30, signal_at=None, until=None, limits=None,
            stty=""):
        """Runs a program and answers its questions; a Run.

        program     a name in the build directory, or a path
        answers     a list given in order, then defaults; or a dict from a part
                    of the prompt (blanks and line ends count the same) to an
                    answer or a list of them, for its successive occurrences.
                    An answer is text, Raw(bytes), Signal(number), EOF, HANGUP,
                    or a function of the host that gives one of these or None
                    (nothing is sent then, and the program is expected to go on)
        terminal    a terminal instead of pipes, without echo and conversions
        stdin       "pipe", "pty", "null", "closed"; "tty" is a terminal as it
                    is: it echoes, edits lines and ends them by CR and LF
        input       bytes sent before all else, followed by the end of input
        user        login to run as instead of root
        signal_at   {part of a prompt: signal}, sent once at that prompt
        until       ends the program by SIGKILL when it has written this text
        limits      {"RLIMIT_FSIZE": 0, ...}
        stty        how the terminal is set before, as "rows 10 cols 40"
        """
        path = str(BUILD / program) if "/" not in program else program
        run = Run()
        answers = Answers(answers, signal_at)
        self.ask("mark")
        pid = self.ask(
            "run", path=path, argv=[argv0 or path, *args],
            stdin=stdin or ("pty" if terminal else "pipe"), cwd=cwd, user=user,
            env=dict(ENVIRONMENT, **(env or {})), limits=limits or {},
            stty=stty)
        if input is not None:
            self.ask("send", pid=pid, data=input)
            self.ask("close_input", pid=pid)
        try:
            self._converse(run, pid, answers, timeout, until, input is None)
        finally:
            run.status = self.ask("finish", pid=pid)
        self._find_changes(run, pid)
        return run

    def run_task(self, task, answers=(), args=(), **more):
        """Runs one task behind the real start-up; see run."""
        if self.exists(TASK_STATE):
            self.remove(TASK_STATE)
        env = dict(more.pop("env", None) or {}, VC_TASK_STATE=TASK_STATE)
        run = self.run("run_task", answers, [task, *args], env=env, **more)
        # A run that was ended leaves the file empty.
        state = self.read(TASK_STATE) if self.exists(TASK_STATE) else b""
        if state:
            run.state = json.loads(state.decode("utf-8", "surrogateescape"))
            run.reminders = run.state.get("reminders")
            run.show_stoppers = run.state.get("show_stoppers")
        return run

    def _converse(self, run, pid, answers, timeout, until, may_answer):
        end = time.monotonic() + timeout
        answered = 0
        while True:
            left = end - time.monotonic()
            if left <= 0:
                raise TimeoutError(f"after {timeout} s, the screen:\n"
                                   f"{run.text}\n{run.errors.decode()}")
            output, errors, state = self.ask("step", pid=pid,
                                             seconds=min(left, 0.25))
            run.output += output
            run.errors += errors
            if until is not None and until in run.text:
                return
            if state == "ended":
                return
            if state == "waits" and may_answer:
                prompt = run.output[answered:].decode("utf-8",
                                                      "surrogateescape")
                sent = self._answer(run, pid, answers.to(prompt), prompt)
                if sent:
                    answered = len(run.output)

    def _answer(self, run, pid, answer, prompt):
        """Gives one answer; whether the prompt is done with."""
        if callable(answer):
            answer = answer(self)
        run.prompts.append(prompt)
        run.answered.append(answer)
        if isinstance(answer, Signal):
            self.ask("send", pid=pid, data=b"")
            self.ask("send_signal", pid=pid, number=int(answer.number))
            return False
        if answer is EOF:
            self.ask("close_input", pid=pid)
        elif answer is HANGUP:
            self.ask("hang_up", pid=pid)
        elif isinstance(answer, Raw):
            self.ask("send", pid=pid, data=answer.data)
        elif isinstance(answer, bytes):
            self.ask("send", pid=pid, data=answer + b"\n")
        elif answer is None:
            self.ask("send", pid=pid, data=b"")
            return False
        else:
            self.ask("send", pid=pid, data=answer.encode(
                "utf-8", "surrogateescape") + b"\n")
        return True

    def changes(self):
        """{path: Change} since the last run began."""
        run = Run()
        self._find_changes(run, None)
        return run.changes

    def _find_changes(self, run, pid):
        report = self.ask("changes")
        agent = report["agent"]
        for entry in report["files"]:
            before, after = entry.get("before"), entry.get("after")
            now = after or before
            run.changes[entry["path"]] = Change(
                path=entry["path"], kind=entry["kind"], type=now["type"],
                mode=int(now["mode"], 8), owner=now["owner"],
                group=now["group"], target=now.get("target"),
                source=entry.get("from"),
                content_changed=entry["content_changed"],
                before=(before or {}).get("content"),
                after=(after or {}).get("content"), old=before, new=after)
        run.started = [one["name"] for one in report["started"]
                       if one["pid"] not in (agent, pid)]
        run.ended = [one["name"] for one in report["ended"]]
        run.signalled = [(one["name"], one["signal"])
                         for one in report["signalled"]
                         if one["sender_pid"] != agent]
        run.listening = [one["port"] for one in report["listening"]]


def squeeze(text):
    return re.sub(r"\s+", " ", text)


class Answers:
    """Chooses the answer to a prompt."""

    def __init__(self, answers, signal_at):
        self.signals = dict(signal_at or {})
        self.in_order = []
        self.by_part = {}
        if isinstance(answers, dict):
            self.by_part = {
                squeeze(part): list(answer) if isinstance(answer, (list, tuple))
                else answer for part, answer in answers.items()}
        else:
            self.in_order = list(answers)

    def to(self, prompt):
        text = squeeze(prompt)
        for part in list(self.signals):
            if squeeze(part) in text:
                return Signal(self.signals.pop(part))
        if self.in_order:
            return self.in_order.pop(0)
        # The part that stands last in the text belongs to the question.
        places = [(text.rfind(part), part) for part in self.by_part
                  if part in text]
        if places:
            answer = self.by_part[max(places)[1]]
            if not isinstance(answer, list):
                return answer
            if answer:
                return answer.pop(0)
        return default_answer(text)


def default_answer(text):
    """The answer to what a test does not care for."""
    if re.search(r"Postmaster password: ?$", text):
        return "secret1"
    return ""


def check_screen(run, name):
    """Compares the whole output with tests/screens/NAME.txt."""
    expected = (SCREENS / f"{name}.txt").read_bytes()
    if run.output != expected:
        import difflib
        lines = difflib.unified_diff(
            [repr(line) for line in expected.decode(
                "utf-8", "replace").splitlines(True)],
            [repr(line) for line in run.output.decode(
                "utf-8", "replace").splitlines(True)],
            "expected", "printed", lineterm="")
        raise AssertionError(f"{name}:\n" + "\n".join(lines))
