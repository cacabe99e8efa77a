"""Gives a throw-away host users and runs AddUserAccounts for all of them.

    import_users.py PROGRAM COUNT distinct|student

Runs as root on the host; prints the seconds that passed, the processor seconds
and the number of accounts made.
"""

import os
import random
import resource
import subprocess
import sys
import time

SEED = 19970301
FIRST_UID = 2001
USERS_GROUP = 100
GIVEN = "Ann Bob Carla David Emma Frank Grace Henry Ida John Karen Leo".split()
FAMILY = "Smith Miller Brown Wilson Taylor Moore Martin Clark Walker".split()


def add_users(count, students):
    """Password and shadow entries, and homes, every tenth with a ".plan"."""
    chance = random.Random(SEED)
    with (open("/etc/passwd", "a", encoding="ascii") as passwd,
          open("/etc/shadow", "a", encoding="ascii") as shadow):
        for number in range(count):
            login = f"u{number}"
            name = ("Student" if students else
                    f"{chance.choice(GIVEN)} {chance.choice(FAMILY)} {number}")
            uid = FIRST_UID + number
            home = f"/home/{number // 1000}/{login}"
            passwd.write(f"{login}:x:{uid}:{USERS_GROUP}:{name},Room "
                         f"{number % 900}:{home}:/bin/sh\n")
            shadow.write(f"{login}:{chance.getrandbits(60):013x}:"
                         "19000:0:99999:7:::\n")
            os.makedirs(home)
            os.chown(home, uid, USERS_GROUP)
            if number % 10 == 0:
                with open(f"{home}/.plan", "w", encoding="ascii") as plan:
                    plan.write(f"Room {number % 900}\n")


def main():
    program, count, names = sys.argv[1:]
    add_users(int(count), names == "student")
    # The host's own users are imported first; all else are defaults.
    start = time.monotonic()
    done = subprocess.run([program], input=b"\n" * 50, check=True,
                          stdout=subprocess.PIPE)
    passed = time.monotonic() - start
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    print(passed, used.ru_utime + used.ru_stime,
          done.stdout.count(b"....created\n"))


if __name__ == "__main__":
    main()
