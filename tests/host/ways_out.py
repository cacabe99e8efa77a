"""Tries, as root in a rehearsal, every way to the host that it knows.

    python3 ways_out.py VICTIM USERS_VICTIM DIRECTORY

The first process is root's, the second one nobody's; the directory is one of
the host's.  Prints as JSON what became of each try: null for success, or the
errno.
"""

import ctypes
import fcntl
import json
import os
import resource
import signal
import socket
import sys
import termios
import time

LIBC = ctypes.CDLL(None, use_errno=True)
TRIES = {}
TGKILL, ADD_KEY, IO_URING_SETUP = {
    "x86_64": (234, 248, 425), "aarch64": (131, 217, 425)}[os.uname().machine]


def attempt(name, function, *arguments):
    try:
        function(*arguments)
        TRIES[name] = None
    except OSError as problem:
        TRIES[name] = problem.errno


def call(function, *arguments):
    if getattr(LIBC, function)(*arguments) < 0:
        raise OSError(ctypes.get_errno(), function)


def write(path, text):
    with open(path, "w") as file:
        file.write(text)


def udp(address):
    socket.socket(socket.AF_INET, socket.SOCK_DGRAM).sendto(b"x", address)


def udp_message(address):
    socket.socket(socket.AF_INET, socket.SOCK_DGRAM).sendmsg(
        [b"x"], [], 0, address)


def unix(address, kind=socket.SOCK_STREAM):
    socket.socket(socket.AF_UNIX, kind).connect(address)


def as_nobody(function, *arguments):
    child = os.fork()
    if child == 0:
        status = 0
        try:
            os.setgroups([])
            os.setuid(65534)
            function(*arguments)
        except OSError as problem:
            status = problem.errno
        os._exit(status)
    status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
    if status:
        raise OSError(status, "as nobody")


def signals(victim, users_victim):
    attempt("kill", os.kill, victim, signal.SIGUSR1)
    attempt("kill a group", os.killpg, os.getpgid(victim), signal.SIGUSR2)
    pidfd = os.pidfd_open(victim)
    attempt("pidfd_send_signal", signal.pidfd_send_signal, pidfd,
            signal.SIGHUP)
    attempt("tgkill", call, "syscall", TGKILL, victim, victim, 10)
    attempt("nobody kills root's", as_nobody, os.kill, victim, signal.SIGKILL)
    attempt("nobody kills nobody's", as_nobody, os.kill, users_victim,
            signal.SIGCONT)
    attempt("probe", os.kill, victim, 0)
    attempt("probe nobody", os.kill, 4194000, 0)
    read, _ = os.pipe()
    attempt("own signals from a descriptor", fcntl.fcntl, read,
            fcntl.F_SETOWN, os.getpid())
    attempt("others' signals from a descriptor", fcntl.fcntl, read,
            fcntl.F_SETOWN, victim)
    child = os.fork()
    if child == 0:
        time.sleep(60)
    attempt("kill a child", os.kill, child, signal.SIGKILL)
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == -9
    # What would have ended is gone for this program.
    attempt("end", os.kill, users_victim, signal.SIGKILL)
    attempt("probe the ended", os.kill, users_victim, 0)
    TRIES["sees the ended"] = os.path.exists(f"/proc/{users_victim}/stat")


def network(directory):
    attempt("TCP", socket.create_connection, ("127.0.0.1", 25))
    attempt("UDP", udp, ("127.0.0.1", 514))
    attempt("UDP message", udp_message, ("127.0.0.1", 514))
    attempt("name server", udp, ("127.0.0.1", 53))
    attempt("abstract socket", unix, "\0decoy")
    attempt("host's socket", unix, f"{directory}/socket")
    listener = socket.socket(socket.AF_UNIX)
    listener.bind("/tmp/own")
    listener.listen()
    attempt("own socket", unix, "/tmp/own")
    attempt("hold a port", socket.socket().bind, ("0.0.0.0", 7))
    attempt("listen", socket.socket().listen)
    attempt("raw socket", socket.socket, socket.AF_INET, socket.SOCK_RAW, 1)


def host_itself():
    attempt("mount", call, "mount", b"none", b"/mnt", b"tmpfs", 0, None)
    attempt("umount", call, "umount2", b"/home", 2)
    attempt("host name", socket.sethostname, "changed")
    attempt("clock", time.clock_settime, time.CLOCK_REALTIME, time.time())
    attempt("reboot", call, "reboot", 0)  # not a command even if allowed
    attempt("swapoff", call, "swapoff", b"/nonexistent")
    attempt("name spaces", call, "unshare", 0x10000000)
    attempt("device", os.mknod, "/tmp/disk", 0o060600, os.makedev(8, 0))
    attempt("kernel setting", write, "/proc/sys/kernel/domainname", "changed")
    attempt("typing", fcntl.ioctl, 0, termios.TIOCSTI, b"x")
    attempt("keys", call, "syscall", ADD_KEY, b"user", b"x", b"x", 1, -2)
    attempt("ring", call, "syscall", IO_URING_SETUP, 1, bytes(120))


def processes(victim, users_victim):
    attempt("ptrace", call, "ptrace", 16, victim, None, None)
    attempt("limits", resource.prlimit, victim, resource.RLIMIT_NOFILE, (9, 9))
    attempt("own limits", resource.setrlimit, resource.RLIMIT_NOFILE, (99, 99))
    attempt("niceness", os.setpriority, os.PRIO_PROCESS, victim, 5)
    attempt("root's niceness", os.setpriority, os.PRIO_USER, 0, 5)
    attempt("own niceness", os.setpriority, os.PRIO_PROCESS, 0, 1)
    attempt("processors", os.sched_setaffinity, victim, {0})
    attempt("oom", write, f"/proc/{victim}/oom_score_adj", "500")
    for name in ("root", "cwd", "fd/0"):
        attempt(f"{name} of root's", os.stat, f"/proc/{victim}/{name}")
        attempt(f"{name} of nobody's", as_nobody, os.stat,
                f"/proc/{users_victim}/{name}")
    attempt("memory", open, f"/proc/{victim}/mem", "r+b")
    TRIES["command"] = open(f"/proc/{victim}/cmdline").read().split("\0")[0]


def main():
    victim, users_victim = int(sys.argv[1]), int(sys.argv[2])
    host_itself()
    processes(victim, users_victim)
    network(sys.argv[3])
    signals(victim, users_victim)
    print(json.dumps(TRIES))


main()
