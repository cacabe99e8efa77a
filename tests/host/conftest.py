import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from harness import Host  # noqa: E402


@pytest.fixture
def host():
    with Host() as prepared:
        yield prepared
