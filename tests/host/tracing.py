"""What an installation does to files and processes, and as whom: by strace.

`trace(whole)` runs one and returns its operations in order; each is
(operation, path, identity) with the names of operations in `OPERATIONS`, and
the identity as effective USER:GROUP:OTHERS.  Calls that failed are left out,
and so is what the mail server does once it has been started.
"""

import os
import re
import time

from harness import BUILD

LOG = "/dev/shm/trace-"
IDENTITY_CALLS = ("setresuid", "setresgid", "setgroups")
BIRTHS = ("clone", "clone3", "vfork", "fork")
# By system call: what it is called in the tables.
OPERATIONS = {
    "creat": "write", "truncate": "write", "ftruncate": "write",
    "fallocate": "write", "rename": "rename", "renameat": "rename",
    "renameat2": "rename", "unlink": "remove", "unlinkat": "remove",
    "rmdir": "remove", "link": "link", "linkat": "link", "symlink": "symlink",
    "symlinkat": "symlink", "mkdir": "mkdir", "mkdirat": "mkdir",
    "mknod": "mknod", "mknodat": "mknod", "chmod": "chmod", "fchmod": "chmod",
    "fchmodat": "chmod", "chown": "chown", "lchown": "chown",
    "fchown": "chown", "fchownat": "chown", "utimensat": "utime",
    "setxattr": "xattr", "lsetxattr": "xattr", "fsetxattr": "xattr",
    "kill": "signal", "tgkill": "signal", "pidfd_send_signal": "signal"}
TRACED = ",".join(["open", "openat", "execve", *OPERATIONS, *IDENTITY_CALLS,
                   *BIRTHS])


def trace(whole):
    # The server that is started is still traced when the next run begins.
    log = LOG + str(len(whole.host.listdir("/dev/shm")))
    run = whole.host.run(
        "/usr/bin/strace", dict(whole.answers), timeout=60,
        args=["-D", "-f", "-y", "-s", "4096", "-o", log, "-e",
              "trace=" + TRACED, str(BUILD / "Install")])
    assert run.status == 0, run.text
    # The tracer outlives the program for a moment.
    end = time.monotonic() + 5
    while True:
        text = whole.host.read(log).decode("utf-8", "surrogateescape")
        first = text.split(None, 1)[0]
        exit_line = re.search(rf"^{first} +\+\+\+ exited", text, re.M)
        if exit_line:
            return list(operations(text[:exit_line.start()]))
        assert time.monotonic() < end, "the trace has no end"
        time.sleep(0.02)


def joined(text):
    """(process, line) with interrupted calls put together again."""
    begun = {}
    for line in text.splitlines():
        pid, rest = line.split(None, 1)
        if rest.endswith("<unfinished ...>"):
            begun[pid] = rest[:-len("<unfinished ...>")]
            if rest.startswith(BIRTHS):
                yield pid, "birth"
            continue
        resumed = re.match(r"<\.\.\. \w+ resumed>(.*)", rest)
        if resumed:
            rest = begun.pop(pid, "") + resumed.group(1)
        yield pid, rest


class Process:
    def __init__(self, parent=None):
        self.user, self.group = (parent.user, parent.group) if parent else (
            0, 0)
        self.others = parent.others if parent else ()
        self.is_server = parent.is_server if parent else False

    def identity(self):
        return f"{self.user}:{self.group}:{','.join(map(str, self.others))}"

    def change(self, call, arguments):
        numbers = [int(n) for n in re.findall(r"-?\d+", arguments)]
        if call == "setresuid" and numbers[1] >= 0:
            self.user = numbers[1]
        elif call == "setresgid" and numbers[1] >= 0:
            self.group = numbers[1]
        elif call == "setgroups":
            self.others = tuple(numbers[1:])


def operations(text):
    processes = {}
    parent = None
    for pid, line in joined(text):
        if pid not in processes:
            processes[pid] = Process(parent)
        process = processes[pid]
        if line == "birth":
            parent = process
            continue
        match = re.match(r"(\w+)\((.*)\) += (-?\d+|0x\w+)", line)
        if not match or match.group(3).startswith("-"):
            continue
        call, arguments, result = match.groups()
        if call in BIRTHS:
            processes.setdefault(result, Process(process))
        elif call in IDENTITY_CALLS:
            process.change(call, arguments)
        elif call == "execve":
            process.is_server |= arguments.startswith('"vellumcraft"')
        elif not process.is_server:
            for operation, path in what(call, arguments):
                yield operation, path, process.identity()


def what(call, arguments):
    """(operation, path) of one call; a rename or a link has two."""
    if call == "kill":
        return [("signal", arguments.split(", ")[1])]
    paths = re.findall(r'(?:\d+<([^>]*)>, )?"([^"]*)"', arguments)
    paths = [path if path.startswith("/") else os.path.join(base, path)
             for base, path in paths]
    paths = paths or re.findall(r"^\d+<([^>]*)>", arguments)
    if call in ("open", "openat"):
        if "O_TMPFILE" in arguments:
            return [("write", paths[0].rstrip("/") + "/(nameless)")]
        writes = re.search(r"O_WRONLY|O_RDWR|O_CREAT|O_TRUNC", arguments)
        return [("write" if writes else "read", re.sub("/+", "/", paths[0]))]
    operation = OPERATIONS[call]
    if operation in ("symlink", "link"):
        paths = paths[1:]
    return [(operation, re.sub(r"/+", "/", path)) for path in paths]
