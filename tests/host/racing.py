"""Imports a user again and again while that user swaps the files under it.

Runs on a throw-away host as root: racing.py PROGRAM RUNS ANSWERS.  The user
"mal" owns /srv/mal with the home /srv/mal/home, the spool entry and nothing
else.  Prints a JSON object: the runs, the swaps, what the runs said, and what
should never be.
"""

import ctypes
import json
import os
import random
import shutil
import signal
import stat
import subprocess
import sys
import time

MAL, BOB, USERS, MAIL = 1001, 1002, 100, 8
HOME = "/srv/mal/home"
SPOOL = "/var/mail/mal"
SERVER = "/opt/vellumcraft"
MAILBOXES = SERVER + "/mailboxes"
RENAME_EXCHANGE = 2
AT_FDCWD = -100
TARGETS = {  # path: (owner, content); none of it may ever be reached
    "/root/secret": (0, b"From root\n\nSECRET\n"),
    "/home/bob/private": (BOB, b"From bob\n\nSECRET\n"),
    "/etc/hostile": (0, b"From etc\n\nSECRET\n"),
    "/root/linked": (0, b"From linked\n\nSECRET\n"),
    "/home/bob/linked": (BOB, b"From linked\n\nSECRET\n")}
NEVER_MADE = ["/etc/made", "/root/made", "/home/bob/made"]
WATCHED = ["/etc", "/root", "/home/bob", "/"]
MAILBOX = b"From a\nSubject: mine\n\nmine\n" * 20
CALLS = "openat,newfstatat,unlink,rename,link,fchown,fchmod"
LIBC = ctypes.CDLL(None, use_errno=True)


def put(path, content, owner, group, mode):
    with open(path, "wb") as file:
        file.write(content)
    os.chown(path, owner, group)
    os.chmod(path, mode)


def own_all(directory):
    """Gives what lies there to the attacker, but for other names of files."""
    for folder, folders, files in os.walk(directory):
        for name in [folder] + [f"{folder}/{n}" for n in folders + files]:
            if os.lstat(name).st_nlink == 1 or os.path.isdir(name):
                os.lchown(name, MAL, USERS)


def prepare():
    for path, (owner, content) in TARGETS.items():
        os.makedirs(os.path.dirname(path), exist_ok=True)
        put(path, content, owner, USERS if owner else 0, 0o600)
    os.chown("/home/bob", BOB, USERS)
    os.chmod("/var/mail", 0o1777)
    os.makedirs(HOME)
    os.mkdir("/srv/mal/spool")
    make_variants("/srv/mal/spool", 0o600, MAILBOX)
    # Older systems let anybody give files of others a further name.
    for number, path in enumerate(("/root/linked", "/home/bob/linked")):
        os.link(path, f"/srv/mal/spool/hard{number}")
    for name in (".plan", ".project", ".forward", ".forward.NOTICE"):
        os.mkdir("/srv/mal/" + name)
        make_variants("/srv/mal/" + name, 0o644, b"mine\n")
        put(f"{HOME}/{name}", b"mine\n", MAL, USERS, 0o644)
    os.mkdir("/srv/mal/locks")
    make_variants("/srv/mal/locks", 0o444, b"999999999\n")
    os.mkdir("/srv/mal/homes")
    os.symlink("/root", "/srv/mal/homes/root")
    os.symlink("/home/bob", "/srv/mal/homes/bob")
    os.symlink("/etc", "/srv/mal/homes/etc")
    own_all("/srv/mal")
    for home in ("/root", "/home/bob", "/etc"):
        for name in (".plan", ".project", ".forward"):
            owner = BOB if home == "/home/bob" else 0
            put(f"{home}/{name}", b"SECRET\n", owner, 0, 0o600)


def make_variants(directory, mode, content):
    """Everything that a path may be swapped with."""
    for number, path in enumerate([*TARGETS, *NEVER_MADE, "/etc", "/etc/shadow",
                                   "/dev/zero"]):
        os.symlink(path, f"{directory}/link{number}")
    os.mkfifo(f"{directory}/fifo")
    os.mkdir(f"{directory}/directory")
    for number in range(8):
        put(f"{directory}/file{number}", content, MAL, USERS, mode)


def swap(a, b):
    """Exchanges two names, or moves the one that is there."""
    if LIBC.renameat2(AT_FDCWD, os.fsencode(a), AT_FDCWD, os.fsencode(b),
                      RENAME_EXCHANGE) == 0:
        return True
    for source, goal in ((a, b), (b, a)):
        try:
            os.rename(source, goal)
            return True
        except OSError:
            pass
    return False


def attack(seed, pairs, counter):
    """Swaps for ever, as the user."""
    os.setgroups([])
    os.setgid(USERS)
    os.setuid(MAL)
    LIBC.prctl(1, signal.SIGKILL)
    chance = random.Random(seed)
    swaps = 0
    while True:
        path, directory = chance.choice(pairs)
        names = os.listdir(directory)
        if not names:
            continue
        other = f"{directory}/{chance.choice(names)}"
        # There, and soon back again.
        swaps += swap(path, other)
        time.sleep(chance.choice([0, 0, 0.0001, 0.001]))
        swaps += swap(path, other)
        time.sleep(chance.choice([0, 0, 0.001, 0.005]))
        os.pwrite(counter, b"%20d" % swaps, 20 * seed)


def start_attackers():
    counter = os.memfd_create("swaps")
    os.write(counter, b"%20d%20d" % (0, 0))
    lists = [[(SPOOL, "/srv/mal/spool")] * 3 + [(SPOOL + ".lock",
                                                 "/srv/mal/locks")],
             [(f"{HOME}/{name}", f"/srv/mal/{name}")
              for name in (".plan", ".project", ".forward",
                           ".forward.NOTICE")] + [(HOME, "/srv/mal/homes")]]
    attackers = []
    for seed, pairs in enumerate(lists):
        pid = os.fork()
        if pid == 0:
            attack(seed, pairs, counter)
        attackers.append(pid)
    return attackers, counter


def state():
    """What the run must not change."""
    found = {}
    for path in TARGETS:
        status = os.lstat(path)
        with open(path, "rb") as file:
            content = file.read()
        found[path] = [stat.filemode(status.st_mode), status.st_uid,
                       status.st_gid, content.decode()]
        if "linked" not in path:  # whose further names the attacker moves
            found[path] += [status.st_nlink, status.st_ctime_ns]
    for directory in WATCHED:
        found[directory] = sorted(os.listdir(directory))
    for path in ("/etc", "/etc/shadow", "/etc/passwd", "/root", "/home/bob",
                 "/dev/zero"):
        status = os.stat(path)
        found[path + " itself"] = [status.st_mode, status.st_uid,
                                   status.st_gid]
    return found


def leaks():
    """Files of the server that hold what only others could read."""
    done = subprocess.run(
        ["grep", "-rlE", "SECRET|root:", "--", MAILBOXES,
         f"{SERVER}/messages", f"{SERVER}/control", f"{SERVER}/config"],
        stdout=subprocess.PIPE, check=False)
    return done.stdout.decode("utf-8", "replace").split()


def remove(path):
    try:
        os.remove(path)
    except IsADirectoryError:
        # Somebody may be exchanging it.
        shutil.rmtree(path, ignore_errors=True)
    except FileNotFoundError:
        pass


def renew(number):
    """The host before the next run: a mailbox, no accounts."""
    for directory in (MAILBOXES, f"{SERVER}/messages", f"{SERVER}/control"):
        for name in os.listdir(directory):
            remove(f"{directory}/{name}")
    for name in os.listdir(f"{SERVER}/config"):
        if name.startswith("Accounts"):
            os.remove(f"{SERVER}/config/{name}")
    for name in os.listdir("/var/mail"):
        if name.startswith("mal.lock"):
            remove(f"/var/mail/{name}")
    # Without the sticky bit the user may swap files of others, too.
    os.chmod("/var/mail", 0o1777 if number % 2 else 0o777)
    put("/srv/mal/new", MAILBOX, MAL, USERS, 0o600)
    while os.path.lexists("/srv/mal/new"):
        try:
            status = os.lstat(SPOOL)
            if not stat.S_ISREG(status.st_mode) or status.st_nlink > 1:
                os.rename(SPOOL, f"/srv/mal/spool/again{number}")
        except FileNotFoundError:
            pass
        try:
            os.rename("/srv/mal/new", SPOOL)
        except IsADirectoryError:  # by now
            pass


# Before these calls the program is held up, so that more swaps come between a
# look and what it leads to.
SLOWLY = ["strace", "-o", "/dev/null", "-e", f"trace={CALLS}",
          "-e", f"inject={CALLS}:delay_enter=800"]


def run(program, answers, slowly):
    """One import; (status, screen)."""
    command = (SLOWLY if slowly else []) + [program]
    try:
        done = subprocess.run(command, input=answers, timeout=60,
                              stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, check=False, cwd="/")
    except subprocess.TimeoutExpired as late:
        return "hangs", late.stdout or b""
    return done.returncode, done.stdout


def main():
    program, runs, answers = sys.argv[1], int(sys.argv[2]), sys.argv[3]
    prepare()
    renew(0)
    before = state()
    attackers, counter = start_attackers()
    report = {"runs": 0, "said": {}, "wrong": []}
    words = (b"ALERT", b"created\n", b"Error:", b"couldn't convert",
             b"format unrecognized")
    for number in range(runs):
        status, screen = run(program, answers.encode(), number % 4 != 0)
        for word in words:
            if word in screen:
                key = word.decode().strip()
                report["said"][key] = report["said"].get(key, 0) + 1
        if os.path.isdir(MAILBOXES + "/Mal"):
            report["said"]["moved"] = report["said"].get("moved", 0) + 1
        after = state()
        wrong = [f"{path}: {before[path]} is now {after[path]}"
                 for path in before if before[path] != after[path]]
        wrong += [f"{path} holds what others may not read" for path in leaks()]
        if status != 0:
            wrong.append(f"status {status}: {screen[-300:]!r}")
        if b"\x1b" in screen:
            wrong.append(f"an escape on the screen: {screen!r}")
        report["runs"] += 1
        if wrong:
            report["wrong"].append([number, wrong])
            break
        renew(number)
    for pid in attackers:
        os.kill(pid, signal.SIGKILL)
        os.waitpid(pid, 0)
    report["swaps"] = sum(
        int(os.pread(counter, 20, 20 * i)) for i in range(2))
    print(json.dumps(report))


main()
