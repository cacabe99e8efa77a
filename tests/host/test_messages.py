"""docs/messages.md explains every text that the installer prints."""

import re

import pytest

from harness import REPO

FOLDERS = ("driver", "console", "host", "accounts", "serverconfig", "toolkit")
# Bodies of mails and notices, not messages; the page says which there are.
MAILS = {"Notices.cc", "UserFiles.cc", "SpoolFile.cc"}
LITERAL = r'"((?:[^"\\\n]|\\.)*)"'


def sources():
    for folder in FOLDERS:
        for path in sorted((REPO / folder).glob("*.cc")):
            if not path.name.endswith("_test.cc") and path.name not in MAILS:
                yield path


def texts(source):
    """The texts of at least three words, adjacent literals as one."""
    source = re.sub(r"(?m)^\s*(//|#include).*$|\s//\s.*$", "", source)
    for pieces in re.finditer(rf"(?:{LITERAL}\s*)+", source):
        text = "".join(re.findall(LITERAL, pieces.group(0)))
        text = re.sub(r"\\[nt]", " ", text).replace('\\"', '"')
        if (len(re.findall(r"[A-Za-z]{2,}", text)) >= 3
                and not re.match(r"\s*(/etc|/usr|/proc|PATH=)", text)):
            yield " ".join(text.split())


def explained():
    """{message: explanation} of the page's table rows."""
    rows = {}
    for line in (REPO / "docs/messages.md").read_text().splitlines():
        if line.startswith("| ") and not line.startswith("| message"):
            message, explanation = line.strip("| ").split(" | ", 1)
            rows[" ".join(message.split())] = explanation
    return rows


@pytest.mark.parametrize("path", sources(), ids=lambda path: path.name)
def test_every_text_is_explained(path):
    rows = explained()
    assert [text for text in texts(path.read_text())
            if not any(text in row for row in rows)] == []


def test_every_row_says_what_to_do():
    rows = explained()
    assert len(rows) > 100
    for message, explanation in rows.items():
        assert len(explanation.split()) >= 2, message


def test_a_text_without_an_explanation_is_found():
    source = 'constexpr const char* pz_New = "A message " "nobody explained";'
    assert list(texts(source)) == ["A message nobody explained"]
    assert not any("nobody explained" in row for row in explained())
