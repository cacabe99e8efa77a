"""Ports and processes from the host's own listings or from /proc."""

import pytest

from faults import environment
from harness import check_screen

NETSTAT = "/usr/etc/netstat"
LISTING = """
UDP
      Local Address         State
-------------------- -------
      *.25                  Idle
TCP
   Local Address        Remote Address    Swind Send-Q Rwind Recv-Q  State
-------------------- -------------------- ----- ------ ----- ------ -------
tcp        0      0  *.110                  *.*                    LISTEN
tcp        0      0  10.1.2.3.25            *.*                    LISTEN
tcp        0      0  10.1.2.3.79            10.9.9.9.1023          ESTABLISHED
tcp        0      0  10.1.2.3.110           10.9.9.9.1024          ESTABLISHED
tcp4       0      0  *.79                   *.*                    LISTENING
 tcp       0      0  *.79                   *.*                    LISTEN
"""


def script(host, path, text):
    host.write(path, "#!/bin/sh\n" + text, mode=0o755)


def listing(host, text):
    host.write("/srv/listing", text)
    script(host, NETSTAT, "cat /srv/listing\n")


def busy(run):
    return [word for word in run.text.split() if word.startswith("(port=")]


def test_the_socket_listing_of_the_target_system(host):
    listing(host, LISTING)
    run = host.run_task("KillServers")
    assert busy(run) == ["(port=25)", "(port=110)"]


def test_a_listing_without_listeners_is_believed(host):
    host.daemon("other", ports=[25])
    listing(host, "Active Internet connections\n")
    check_screen(host.run_task("KillServers"), "KillServers/none")


@pytest.mark.parametrize("mode, text", [
    (0o644, "#!/bin/sh\n"), (0o755, "#!/nonexistent/shell\n"),
    (0o755, "\x7fELF\x02garbage\n"), (0o755, "#!/bin/sh\nexit 127\n")])
def test_a_socket_listing_that_can_not_be_executed(host, mode, text):
    host.write(NETSTAT, text, mode=mode)
    host.daemon("other", ports=[25])
    assert busy(host.run_task("KillServers")) == ["(port=25)"]


def test_probes_read_nothing_and_their_errors_are_not_shown(host):
    for path in (NETSTAT, "/usr/bin/ps"):
        script(host, path, "cat; echo problem >&2; "
               "echo 'tcp 0 0 *.25 *.* LISTEN'; echo ' 44 ? 0:00 other'\n")
    run = host.run_task("KillServers", answers=["", "nosuch"])
    assert b"\n        other" in run.output
    assert run.errors == b""
    assert b"Couldn't kill nosuch" in run.output


def test_probes_run_as_root_with_default_signals(host):
    script(host, NETSTAT, "cat /proc/self/status >/srv/status\n")
    host.run_task("KillServers")
    status = host.read("/srv/status").decode()
    assert "Uid:\t0\t0\t0\t0\n" in status
    assert "SigBlk:\t0000000000000000\n" in status


@pytest.mark.parametrize("has_ps", [True, False])
def test_processes_are_found_with_and_without_a_listing(host, has_ps):
    dead = host.daemon("vctest-dead", ports=[25])
    names = ["vctest-a", "vctest b", "fifteen-letters"]
    for name in names:
        host.daemon(name)
    if not has_ps:
        host.remove("/usr/bin/ps")
    run = host.run_task("KillServers", answers=["yes", "b vctest-dead"])
    shown = run.text.split("your system:")[1].split("Please specify")[0].split()
    assert {"vctest-a", "b", "fifteen-letters", "vctest-dead"} <= set(shown)
    assert b"Killed b\n" in run.output and b"Killed vctest-dead" in run.output
    assert dead.signals() == [15]


@pytest.mark.parametrize("has_ps", [True, False])
def test_names_of_processes_can_not_write_to_the_terminal(host, has_ps):
    host.daemon("evil\x1b[2J\x07", ports=[25])
    if not has_ps:
        host.remove("/usr/bin/ps")
    run = host.run_task("KillServers")
    assert b"evil" in run.output
    assert b"\x1b" not in run.output and b"\x07" not in run.output


@pytest.mark.parametrize("call, error", [("posix_spawn", "EAGAIN"),
                                         ("pipe2", "EMFILE")])
def test_a_host_without_free_processes_is_looked_at_all_the_same(
        host, call, error):
    daemon = host.daemon("other", ports=[25])
    env = environment("fail", 1, calls=call, errno=error, times=0)
    run = host.run_task("KillServers", answers=["no", "other"], env=env)
    assert busy(run) == ["(port=25)"]
    assert b"Killed other\n" in run.output
    assert daemon.signals() == [15]


def test_output_is_read_to_its_end_in_spite_of_interrupted_reads(host):
    daemon = host.daemon("other", ports=[25])
    for at in range(1, 6):
        env = environment("fail", at, calls="read", paths="pipe:",
                          errno="EINTR")
        run = host.run_task("KillServers", answers=["no", ""], env=env,
                            stdin="pty")
        assert busy(run) == ["(port=25)"]
    assert daemon.alive()
