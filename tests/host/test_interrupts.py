"""Signals end the run with status 3 wherever it stands, and lose no output."""

import itertools

import pytest

from harness import BUILD, Host, Signal

NUMBERS = [1, 2, 3, 15]


def full_dialogue():
    """The output of an installation, its lengths at prompts, the answers."""
    with Host() as host:
        run = host.run("Install", until="Starting vellumcraft")
    lengths = list(itertools.accumulate(
        len(prompt.encode("utf-8", "surrogateescape"))
        for prompt in run.prompts))
    return run.output, lengths, run.answered


def test_a_signal_at_any_prompt_ends_the_run_there():
    output, lengths, given = full_dialogue()
    assert len(lengths) > 5
    for number in range(len(lengths)):
        signal = NUMBERS[number % 4]
        with Host() as host:
            run = host.run("Install", answers=[
                *given[:number], Signal(signal)])
        assert run.status == 3, (number, signal)
        assert run.output == output[:lengths[number]], (number, signal)


@pytest.mark.parametrize("number", NUMBERS)
@pytest.mark.parametrize("terminal", [False, True])
@pytest.mark.parametrize("program", ["Install", "AddUserAccounts"])
def test_each_signal_at_the_first_prompt(host, program, terminal, number):
    run = host.run(program, answers=[Signal(number)], terminal=terminal)
    assert (run.status, run.changes, run.errors) == (3, {}, b"")
    assert len(run.prompts) == 1 and run.text.endswith(run.prompts[0])


def test_a_signal_that_was_blocked_or_ignored_by_the_caller(host):
    script = """
import os, signal, subprocess, sys
signal.pthread_sigmask(signal.SIG_BLOCK, {1, 2, 3, 15})
for number in (1, 2, 3, 15):
    signal.signal(number, signal.SIG_IGN)
    run = subprocess.Popen([sys.argv[1]], stdin=subprocess.PIPE,
                           stdout=subprocess.PIPE)
    output = b""
    while not output.endswith(b"[yes] "):
        output += os.read(run.stdout.fileno(), 4096)
    run.send_signal(number)
    assert run.wait(10) == 3, number
"""
    host.sh(f"/usr/bin/python3 - {BUILD}/Install", stdin=script.encode())


# Every answer is a wrong one, so that the dialogue never rests; what a run has
# written must be the beginning of what all would write.
RANDOM_MOMENTS = """
import os, random, signal, subprocess, sys, time
answers = os.open("/dev/shm/answers", os.O_RDWR | os.O_CREAT)
os.write(answers, b"maybe\\n" * 200000)
whole = b""
random.seed(20)
for number in range(500):
    os.lseek(answers, 0, os.SEEK_SET)
    output, status = b"", None
    reading, writing = os.pipe()
    run = subprocess.Popen([sys.argv[1]], stdin=answers, stdout=writing)
    os.close(writing)
    output = os.read(reading, 10)
    end = time.monotonic() + random.random() * 0.004
    while time.monotonic() < end:
        output += os.read(reading, 1 << 16)
    run.send_signal(random.choice((1, 2, 3, 15)))
    while part := os.read(reading, 1 << 16):
        output += part
    os.close(reading)
    assert run.wait(10) == 3, (number, run.returncode)
    shorter, longer = sorted((output, whole), key=len)
    assert longer.startswith(shorter), number
    whole = longer
assert len(whole) > 1000
print("done")
"""


def test_five_hundred_signals_at_random_moments(host):
    assert host.sh(f"/usr/bin/python3 - {BUILD}/Install",
                   stdin=RANDOM_MOMENTS.encode()) == "done\n"
