"""Runs programs that meet a failing system call, or their end, at every call.

The preloaded library and its modes are described in tests/faults/Faults.cc.
"""

from harness import BUILD

LIBRARY = BUILD / "libvc_faults.so"
LOG = "/dev/shm/faults"


def environment(mode, at=0, program="run_task", **more):
    """Variables for a run with faults; `more` as in FAULT_NAME."""
    env = {"LD_PRELOAD": str(LIBRARY), "FAULT_MODE": mode,
           "FAULT_AT": str(at), "FAULT_PROGRAMS": program}
    env.update({f"FAULT_{name.upper()}": str(value)
                for name, value in more.items()})
    return env


def counted_calls(host, run, **more):
    """[(call, path)] of what `run(env)` does, in order."""
    if host.exists(LOG):
        host.remove(LOG)
    run(environment("count", log=LOG, **more))
    lines = host.read(LOG).decode().splitlines()
    return [(call, path) for _, _, call, _, path in (
        line.split(" ", 4) for line in lines)]


def backups(host, path):
    """{name: content} of all files beside `path` that begin with its name."""
    directory, name = path.rsplit("/", 1)
    return {other: host.read(f"{directory}/{other}")
            for other in host.listdir(directory)
            if other.startswith(name + ".bak")}


def remove_backups(host, path):
    for name in backups(host, path):
        host.remove(f"{path.rsplit('/', 1)[0]}/{name}")


def every_call_fails(host, task, path, old, new, answers=()):
    """Every call on the file or its backups fails once, with several errors.

    The program must say truly whether it changed the file, leave it old or new,
    keep no backup that is not whole, and none of a file it did not touch.
    """
    def run(env):
        host.write(path, old)
        remove_backups(host, path)
        return host.run("run_task", answers, [task], env=env)

    calls = counted_calls(host, run, paths=path)
    assert len(calls) > 20
    writing = max(i for i, call in enumerate(calls) if call[0] == "write")
    for at, call in enumerate(calls, 1):
        for error in ("ENOSPC", "EIO", "EACCES"):
            where = f"{error} at call {at}, {call}"
            done = run(environment("fail", at, paths=path, errno=error))
            content, kept = host.read(path), backups(host, path)
            assert content in (old, new), where
            assert (b"WARNING" in done.output) == (content == old), where
            assert all(backup == old for backup in kept.values()), where
            assert done.status == 0, where
            if content == new or at > writing:
                assert len(kept) == 1, where

    # A write that stores only a part of its bytes is gone on with.
    for at in range(1, len(calls) + 1):
        run(environment("short", at, paths=path, times=0))
        assert host.read(path) == new


def every_call_kills(host, task, path, old, new, mode, answers=()):
    """The program is killed at every call on the file or its backups.

    Then the file is old or new, or its backup is whole; and where the file is
    whole a second run finishes the job.
    """
    def run(env):
        host.write(path, old)
        remove_backups(host, path)
        return host.run("run_task", answers, [task], env=env)

    calls = counted_calls(host, run, paths=path)
    whole = 0
    for at, call in enumerate(calls, 1):
        where = f"{mode} at call {at}, {call}"
        assert run(environment(mode, at, paths=path)).status == -9, where
        content, kept = host.read(path), backups(host, path)
        if content not in (old, new):
            assert old in kept.values(), where
            continue
        whole += 1
        host.run("run_task", answers, [task])
        assert host.read(path) == new, where
        assert content == new or old in backups(host, path).values(), where
    assert whole >= len(calls) - 2


def every_call_is_interrupted(host, task, path, old, new, answers=()):
    """A signal comes at every call on the file or its backups.

    It ends the run before the edit, and is noted and survived from there on.
    """
    def run(env):
        host.write(path, old)
        remove_backups(host, path)
        return host.run("run_task", answers, [task], env=env)

    calls = counted_calls(host, run, paths=path)
    survived = 0
    for at, call in enumerate(calls, 1):
        where = f"signal at call {at}, {call}"
        number = (1, 2, 3, 15)[at % 4]
        done = run(environment("signal", at, paths=path, signal=number))
        content, kept = host.read(path), backups(host, path)
        if b"\nPlease wait until I'm finished with this.\n\n" in done.output:
            survived += 1
            assert done.status == 0, where
            assert content == new and list(kept.values()) == [old], where
        else:
            assert done.status == 3, where
            assert kept == ({} if content == old else {
                f"{path.rsplit('/', 1)[1]}.bak": old}), where
            assert content in (old, new), where
    assert survived > 12
