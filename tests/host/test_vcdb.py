"""vcdb: every command, byte for byte, and what it leaves when it can't."""

import fcntl
import os
import pathlib
import shutil
import subprocess
import tempfile

import pytest

from faults import environment
from harness import BUILD

VCDB = str(BUILD / "vcdb")
TEXT = b"/Config\nEmailConfig\n\tyes\nWWWAccess\n"
USAGE = (b"usage: vcdb dump FILE\n"
         b"       vcdb load FILE < TEXT\n"
         b"       vcdb get FILE SECTION KEY\n"
         b"       vcdb set FILE SECTION KEY [VALUE]...\n"
         b"       vcdb check FILE...\n")
# Every kind of escape, bytes that stand as they are, blanks at the end, an
# empty value, an empty list, an empty section; in the order of bytes.
ODD = (b"/\n"
       b"/Config\n"
       b" key \n"
       b"\t value  \n"
       b"\t\n"
       b"\t#no comment\n"
       b"\t/no section\n"
       b"\\x23comment\n"
       b"\\x2fpath\n"
       b"A\n"
       b"\t\\\\ \\t \\n \\r \\x00 \\x1f \\x7f\n"
       b"B#/\n"
       b"\t\xc3\xa4\xff\x80\n"
       b"\tline\\r\\nline\n"
       b"Empty\n"
       b"/Config/deep\\n\n"
       b"/a b\n"
       b"\xe4\n")


@pytest.fixture(name="place")
def fixture_place():
    """A directory in memory."""
    place = pathlib.Path(tempfile.mkdtemp(dir="/dev/shm"))
    yield place
    shutil.rmtree(place)


def vcdb(*arguments, stdin=b"", **more):
    """(status, output, errors)"""
    done = subprocess.run([VCDB, *map(str, arguments)], input=stdin,
                          capture_output=True, timeout=60, check=False, **more)
    return done.returncode, done.stdout, done.stderr


def load(path, text=TEXT):
    assert vcdb("load", path, stdin=text) == (0, b"", b"")


def dump(path):
    status, text, errors = vcdb("dump", path)
    assert (status, errors) == (0, b"")
    return text


def complaint(path, cause):
    return 1, b"", f"vcdb: {path}: {cause}\n".encode()


def test_what_is_loaded_is_dumped(place):
    path = place / "db"
    load(path, ODD)
    assert dump(path) == ODD
    load(place / "again", dump(path))
    assert dump(place / "again") == ODD
    assert vcdb("check", path, place / "again") == (0, b"", b"")


def test_text_in_any_order_with_remarks_and_blank_lines(place):
    load(place / "db",
         b"\n# remark\n/b\n\nZ\n# remark\n\tz\n\n\ty\nA\n/a\n/\nlast\n\tvalue")
    assert dump(place / "db") == b"/\nlast\n\tvalue\n/a\n/b\nA\nZ\n\tz\n\ty\n"
    load(place / "empty", b"")
    assert dump(place / "empty") == b""


@pytest.mark.parametrize("text, problem", [
    (b"key\n", "line 1: key outside of a section"),
    (b"\tvalue\n", "line 1: value without a key"),
    (b"/a\n\tvalue\n", "line 2: value without a key"),
    (b"/a\nk\n/b\n\tvalue\n", "line 4: value without a key"),
    (b"# x\n\n/a\nk\nk\n", "line 5: key given twice"),
    (b"/a\n/b\n/a\n", "line 3: section given twice"),
    *[(b"/a\nk\n\t" + bad + b"\n", "line 3: unknown escape")
      for bad in (b"\\", b"\\q", b"\\x", b"\\x1", b"\\xg0", b"\\x1G",
                  b"\\xAB", b"\\N", b"a\\0")],
])
def test_text_that_is_refused(place, text, problem):
    path = place / "db"
    assert vcdb("load", path, stdin=text) == complaint(path, problem)
    assert os.listdir(place) == []
    load(path)
    assert vcdb("load", path, stdin=text) == complaint(path, problem)
    assert dump(path) == TEXT and os.listdir(place) == ["db"]


@pytest.mark.parametrize("unreadable", ["</", "<&-"])
def test_input_that_cannot_be_read_changes_nothing(place, unreadable):
    path = place / "Dispatch"
    load(path)
    former = path.read_bytes()
    done = subprocess.run(f"'{VCDB}' load {path} {unreadable}", shell=True,
                          capture_output=True, check=False)
    assert (done.returncode, done.stdout, done.stderr) == complaint(
        path, "the input can't be read")
    assert path.read_bytes() == former


@pytest.mark.parametrize("mask", [0, 0o027, 0o777])
def test_a_new_database_has_its_mode_whatever_the_mask(place, mask):
    for name, arguments in (("load", ()), ("set", ("/a", "k"))):
        vcdb(name, place / name, *arguments, umask=mask)
        assert (place / name).stat().st_mode & 0o7777 == 0o640


def test_load_replaces_by_a_rename_and_keeps_the_owner(place):
    path = place / "db"
    load(path)
    os.chown(path, 950, 951)
    path.chmod(0o660)
    before = path.stat()
    load(path, b"/new\n")
    after = path.stat()
    assert before.st_ino != after.st_ino
    assert (after.st_uid, after.st_gid) == (950, 951)
    assert after.st_mode & 0o7777 == 0o640
    assert dump(path) == b"/new\n" and os.listdir(place) == ["db"]


def test_get(place):
    path = place / "db"
    load(path, ODD)
    for section, key, want in (
            ("/Config", " key ", b" value  \n\n#no comment\n/no section\n"),
            ("/Config", "A", b"\\\\ \\t \\n \\r \\x00 \\x1f \\x7f\n"),
            ("/Config", "#comment", b""), ("/Config", "Empty", b""),
            ("/Config", "B#/", b"\xc3\xa4\xff\x80\nline\\r\\nline\n")):
        assert vcdb("get", path, section, key) == (0, want, b"")
    for section, key in (("/Config", "None"), ("/None", "A"), ("None", "A"),
                         ("/Config", "a"), ("/Config", "")):
        assert vcdb("get", path, section, key) == complaint(
            path, f'no key "{key}" in "{section}"')


def test_set(place):
    path = place / "db"
    assert vcdb("set", path, "/Config", "Key", "a", "", "\tb\n") == (
        0, b"", b"")
    assert dump(path) == b"/Config\nKey\n\ta\n\t\n\t\\tb\\n\n"
    assert vcdb("set", path, "/Config", "Key") == (0, b"", b"")
    assert vcdb("set", path, "/", "/odd", "x") == (0, b"", b"")
    assert dump(path) == b"/\n\\x2fodd\n\tx\n/Config\nKey\n"
    for section, key in (("Config", "Key"), ("", "Key"), ("/Config", "")):
        assert vcdb("set", path, section, key, "x") == complaint(
            path, 'a section begins with "/", a key is not empty')
    assert dump(path) == b"/\n\\x2fodd\n\tx\n/Config\nKey\n"


@pytest.mark.parametrize("arguments", [
    [], ["dump"], ["dump", "a", "b"], ["load"], ["load", "a", "b"],
    ["get"], ["get", "a", "/b"], ["get", "a", "/b", "c", "d"],
    ["set", "a", "/b"], ["check"], ["show", "a"], ["--help"], [""]])
def test_wrong_usage(place, arguments):
    assert vcdb(*arguments, cwd=place) == (2, b"", USAGE)
    assert os.listdir(place) == []


@pytest.mark.parametrize("make, cause", [
    (lambda path: None, "No such file or directory"),
    (lambda path: path.write_bytes(b""), "damaged, or no database"),
    (lambda path: path.write_bytes(b"text\n" * 999), "damaged, or no database"),
    (lambda path: path.mkdir(), None),
    (lambda path: os.mkfifo(path), "damaged, or no database"),
    (lambda path: path.symlink_to("/nowhere/at/all"), None)])
def test_files_that_are_none(place, make, cause):
    path = place / "db"
    make(path)
    def state():
        return path.read_bytes() if path.is_file() else os.listdir(place)
    before = state()
    for arguments in (["dump"], ["get", "/a", "k"], ["check"],
                      ["set", "/a", "k", "v"], ["load"]):
        if cause == "No such file or directory" and arguments[0] in (
                "set", "load"):
            continue
        status, output, errors = vcdb(arguments[0], path, *arguments[1:])
        assert (status, output) == (1, b"")
        assert errors.startswith(f"vcdb: {path}: ".encode())
        assert errors.count(b"\n") == 1
        if cause and arguments[0] != "check":
            assert (status, output, errors) == complaint(path, cause)
        assert state() == before


def test_a_directory_that_is_missing_is_not_made(place):
    path = place / "none" / "db"
    for arguments in (["set", path, "/a", "k"], ["load", path]):
        assert vcdb(*arguments) == complaint(path, "No such file or directory")
    assert os.listdir(place) == []


def test_check_names_every_file_that_is_not_sound(place):
    for name in "abc":
        load(place / name)
    data = bytearray((place / "b").read_bytes())
    data[0x622] ^= 4
    (place / "b").write_bytes(data)
    status, output, errors = vcdb("check", *(place / name for name in "abxc"))
    assert (status, output) == (1, b"")
    assert errors.decode().splitlines() == [
        f"vcdb: {place}/b: wrong checksum of a record at byte 1536",
        f"vcdb: {place}/x: No such file or directory"]


def test_check_finds_a_flipped_bit_in_every_byte_and_every_cut(place):
    path = place / "db"
    load(path)
    data = path.read_bytes()
    damaged = []
    for at in range(0, len(data)):
        flipped = bytearray(data)
        flipped[at] ^= 1 << at % 8
        for kind, content in (("f", flipped), ("c", data[:at])):
            damaged.append(place / f"{kind}{at}")
            damaged[-1].write_bytes(content)
    status, output, errors = vcdb("check", *damaged)
    assert (status, output) == (1, b"")
    lines = errors.decode().splitlines()
    assert len(lines) == len(damaged)
    for line, file in zip(lines, damaged):
        assert line.startswith(f"vcdb: {file}: ") and line[-2:] != ": "


def test_check_finds_damage_in_a_big_database(place):
    path = place / "Accounts"
    load(path, b"".join(
        b"/U%d\nName\n\t%s\nSMTP-Address\n\tu%d@example.com\n"
        % (i, b"x" * 50, i) for i in range(5000)))
    data = path.read_bytes()
    assert len(data) > 500000
    for at in range(1536, len(data), 20011):
        flipped = bytearray(data)
        flipped[at] ^= 1 << at % 8
        path.write_bytes(flipped)
        status, _, errors = vcdb("check", path)
        assert status == 1 and b"at byte" in errors, at
    for size in range(0, len(data), 60013):
        path.write_bytes(data[:size])
        assert vcdb("check", path)[0] == 1, size


def test_another_writer_is_waited_for_and_then_told_of(place):
    path = place / "db"
    load(path)
    with open(path, "rb") as held:
        fcntl.flock(held, fcntl.LOCK_EX)
        for arguments in (["set", path, "/a", "k"], ["load", path]):
            assert vcdb(*arguments) == complaint(
                path, "somebody else is changing it")
        assert dump(path) == TEXT, "readers do not care"
        assert vcdb("check", path) == (0, b"", b"")
    assert vcdb("set", path, "/a", "k") == (0, b"", b"")
    assert os.listdir(place) == ["db"]


def test_output_that_cannot_be_written(place):
    path = place / "db"
    load(path)
    with open("/dev/full", "wb") as full:
        for arguments in (["dump", path], ["get", path, "/Config",
                                           "EmailConfig"]):
            done = subprocess.run([VCDB, *arguments], stdout=full,
                                  stderr=subprocess.PIPE, check=False)
            assert (done.returncode, done.stderr) == complaint(
                path, "the output can't be written")[::2]


def test_a_full_file_system(place):
    """Sets until there is no space left; nothing that was set is lost."""
    script = f"""
        mount -t tmpfs -o size=128k none '{place}' || exit 99
        n=0
        while '{VCDB}' set '{place}/db' /a k$n "$(printf %1000s x)"; do
          n=$((n + 1)); [ $n -lt 1000 ] || exit 98
        done
        echo $n
        '{VCDB}' dump '{place}/db' | grep -c '^k'
        '{VCDB}' check '{place}/db' && ls '{place}'
        '{VCDB}' load '{place}/db' < /dev/null; echo $?
    """
    done = subprocess.run(["unshare", "-m", "sh", "-c", script],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          check=False, text=True)
    lines = done.stdout.splitlines()
    full = f"vcdb: {place}/db: No space left on device"
    assert lines[0] == full, done.stdout
    assert int(lines[1]) == int(lines[2]) > 5
    assert lines[3] == "db"
    # An empty database fits beside it, or it doesn't; then nothing is touched.
    assert lines[4:] in (["0"], [full, "1"])


COMMANDS = {
    "load": (["load"], b"/new\n", b"/new\n"),
    "set": (["set", "/Config", "EmailConfig", "no"], b"",
            TEXT.replace(b"yes", b"no")),
}


@pytest.mark.parametrize("name", COMMANDS)
@pytest.mark.parametrize("old", [TEXT, None])
def test_every_call_fails_or_kills(place, name, old):
    """The database is old or new, and new when the command says so."""
    arguments, stdin, new = COMMANDS[name]
    if old is None and name == "set":
        new = b"/Config\nEmailConfig\n\tno\n"
    path = place / "db"

    def run(mode, at, **more):
        for left in os.listdir(place):
            os.remove(place / left)
        if old is not None:
            load(path, old)
        return vcdb(arguments[0], path, *arguments[1:], stdin=stdin, env={
            **os.environ, **environment(mode, at, "vcdb", paths=place, **more)})

    hit = 0
    for mode, more in (("fail", {"errno": "ENOSPC"}), ("fail", {"errno": "EIO"}),
                       ("kill", {}), ("torn", {}), ("short", {"times": 0})):
        for at in range(1, 200):
            where = f"{mode} {more} at call {at}"
            status, output, errors = run(mode, at, **more)
            state = dump(path) if path.exists() else None
            # A database that is new is empty before its first change.
            assert state in (old, new, b"" if name == "set" and old is None
                             else new), where
            assert output == b"", where
            if path.exists() and mode != "torn":
                assert vcdb("check", path) == (0, b"", b""), where
            if status == 0:
                assert state == new, where
            elif mode == "fail":
                hit += 1
                assert (status, errors.count(b"\n")) == (1, 1), where
            if mode != "kill" and mode != "torn":
                assert set(os.listdir(place)) <= {"db"}, where
            else:
                # What was left does not hinder the next.
                assert vcdb("set", path, "/z", "k") == (0, b"", b""), where
                assert vcdb("check", path) == (0, b"", b""), where
                assert os.listdir(place) == ["db"] or state is None, where
            if mode in ("kill", "torn") and status != -9:
                break
            if mode == "short" and at > 12:
                break
            if mode == "fail" and status == 0 and at > 40:
                break
        else:
            pytest.fail(f"{mode}: more calls than expected")
    assert hit > 8
