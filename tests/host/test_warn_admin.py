"""The completion report."""

from harness import SCREENS, check_screen


def test_complete(host):
    run = host.run_task("WarnAdmin")
    check_screen(run, "WarnAdmin/complete")
    assert (run.status, run.changes) == (0, {})


def test_another_port_is_part_of_the_address(host):
    run = host.run_task("ConfigureFeatures+WarnAdmin", answers={
        "change this information?": "yes",
        "Web port for configuration": "8080"})
    assert run.state["www_port"] == 8080
    assert run.output.endswith(
        (SCREENS / "WarnAdmin/complete_other_port.txt").read_bytes())


def test_reminders_take_the_place_of_the_address(host):
    host.sh("chmod 0775 /var/mail && chmod g-s /var/mail")
    run = host.run_task("FixMaildropDir+WarnAdmin", answers=["no"])
    assert run.output == b"".join(
        (SCREENS / f"{name}.txt").read_bytes()
        for name in ("FixMaildropDir/asked", "WarnAdmin/reminders"))
    assert run.status == 0
