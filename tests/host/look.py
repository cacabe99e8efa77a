"""Looks at a host without leaving a trace, not even a time of reading.

    python3 look.py DIRECTORY...

Prints as JSON all that a rehearsal on the host may not change: every file with
content, mode, owner and times, processes, listening sockets, mounts.
"""

import hashlib
import json
import os
import stat
import sys


def content_of(path, status):
    if stat.S_ISLNK(status.st_mode):
        return os.readlink(path)
    if not stat.S_ISREG(status.st_mode):
        return None
    fd = os.open(path, os.O_RDONLY | os.O_NOATIME | os.O_NOFOLLOW)
    with os.fdopen(fd, "rb") as file:
        return hashlib.sha256(file.read()).hexdigest()


def times_of(status):
    times = [status.st_mtime_ns, status.st_ctime_ns]
    # A link can't be read without leaving a trace.
    if not stat.S_ISLNK(status.st_mode):
        times.append(status.st_atime_ns)
    return times


def names_in(path):
    fd = os.open(path, os.O_RDONLY | os.O_DIRECTORY | os.O_NOATIME)
    try:
        return sorted(os.listdir(fd))
    finally:
        os.close(fd)


def add_files(path, files):
    status = os.lstat(path)
    files[path] = {
        "type": stat.S_IFMT(status.st_mode), "mode": status.st_mode & 0o7777,
        "uid": status.st_uid, "gid": status.st_gid, "size": status.st_size,
        "links": status.st_nlink, "inode": status.st_ino,
        "times": times_of(status),
        "content": content_of(path, status)}
    if stat.S_ISDIR(status.st_mode):
        for name in names_in(path):
            add_files(os.path.join(path, name), files)


def processes():
    found = {}
    mine = {os.getpid(), os.getppid()}
    for name in os.listdir("/proc"):
        if not name.isdigit() or int(name) in mine:
            continue
        with open(f"/proc/{name}/stat") as file:
            fields = file.read().rsplit(")", 1)[1].split()
        with open(f"/proc/{name}/cmdline") as file:
            command = file.read()
        limits = open(f"/proc/{name}/limits").read()
        # State, parent, group, session, niceness, start.
        found[name] = [command, *(fields[i] for i in (1, 2, 3, 16, 19)), limits]
    return found


def sockets():
    lines = []
    for name in ("tcp", "tcp6", "udp", "udp6"):
        with open(f"/proc/net/{name}") as file:
            # Local address, state, inode.
            lines += [[words[i] for i in (1, 3, 9)] for words in
                      map(str.split, file.read().splitlines()[1:])
                      if words[3] in ("0A", "07")]
    return sorted(lines)


def main():
    files = {}
    for directory in sys.argv[1:]:
        add_files(directory, files)
    with open("/proc/self/mountinfo") as file:
        mounts = file.read()
    json.dump({"files": files, "processes": processes(), "sockets": sockets(),
               "mounts": mounts, "name": os.uname().nodename}, sys.stdout)


main()
