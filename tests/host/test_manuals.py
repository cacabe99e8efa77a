"""The manual pages: sound for mandoc, and with the sections that readers need."""

import subprocess

import pytest

from harness import REPO

PAGES = sorted((REPO / "docs" / "man").iterdir())


def test_every_program_and_the_configuration_have_a_page():
    assert [page.name for page in PAGES] == [
        "AddUserAccounts.8", "Install.8", "rehearse.8", "vcdb.8",
        "vellumcraft.conf.5"]


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_mandoc_finds_nothing_wrong(page):
    done = subprocess.run(["mandoc", "-Tlint", str(page)], text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          check=False)
    # Its own data base of pages may be old, and ours are not installed here.
    assert [line for line in done.stdout.splitlines()
            if "referenced manual not found" not in line
            and "outdated mandoc.db" not in line] == []


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_it_has_the_sections_that_readers_look_for(page):
    text = page.read_text()
    wanted = ["NAME", "DESCRIPTION", "EXAMPLES", "SEE ALSO"]
    if page.suffix == ".8":
        wanted += ["SYNOPSIS", "EXIT STATUS"]
    for section in wanted:
        assert f".Sh {section}\n" in text, section
