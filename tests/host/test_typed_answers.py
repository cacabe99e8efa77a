"""Whole installations with the answers of a careless or hostile hand.

VC_TYPED_RUNS and VC_TYPED_SEED in the environment ask for more and for others.
"""

import os
import random

import pytest

from harness import BUILD

RUNS = int(os.environ.get("VC_TYPED_RUNS", "6"))
SEED = int(os.environ.get("VC_TYPED_SEED", "1"))

MEANT = [b"", b"", b"", b"y", b"yes", b"no", b"n", b"p", b"a", b"f", b"UNIX",
         b"80", b"8080", b"ann@example.com, bob", b"example.com,other.org",
         b"/etc/passwd", b"inetd sendmail", b"secret1"]
ODD = [b"\x1b[2J\x07", b".*", b"(((", b"[a", b"\\", b"s/a/b/", b"$1", b"a\0b",
       b"\xff\xfe\x80", b"\r", b" ", b"\t\t", b"-1", b"99999999999999999999",
       b"0x50", b"nan", b"1e9", b"%s%n", b"`id`", b"$(id)", b"; id", b"../..",
       b"/", b"'\"", b"<>", b"@", b"a@b@c", b"(open", b"q@q", b"x" * 5000,
       b"a," * 2000, b"." * 300, b"\x7f\x08"]
# Nothing else may change, whatever is typed.
PLACES = ("/opt/vellumcraft", "/etc/inetd.conf", "/usr/lib/sendmail",
          "/var/mail", "/home", "/dev/shm")


def typed(seed):
    chance = random.Random(seed)
    answers = []
    for _ in range(80):
        kind = chance.randrange(40)
        if kind == 0:
            answers.append(b"quit")
        elif kind < 22:
            answers.append(chance.choice(MEANT))
        elif kind < 36:
            answers.append(chance.choice(ODD))
        else:
            answers.append(chance.randbytes(chance.randrange(80)).replace(
                b"\n", b""))
    return answers


@pytest.mark.parametrize("seed", range(SEED, SEED + RUNS))
def test_whatever_is_typed_the_run_ends_well(host, seed):
    host.user("ann", 1001, gecos="Ann", mail=b"From a\n\nmail\n")
    host.write("/etc/inetd.conf", "smtp stream tcp nowait root x x\n")
    bystander = host.daemon("bystander")
    run = host.run("Install", typed(seed), timeout=120)
    assert run.status in (0, 255), run.text[-2000:]
    assert run.errors == b""
    strange = [path for path in run.changes if not path.startswith(PLACES)]
    assert strange == []
    assert bystander.alive() and bystander.signals(0) == []
    for path in run.changes:
        if path.startswith("/opt/vellumcraft/config/") and host.exists(path):
            host.sh(f"'{BUILD}/vcdb' check '{path}'")
