"""Fixtures of the tests of the documents. The daemon is that of the system tests."""

import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "system"))

from daemon import Daemon  # noqa: E402  # pylint: disable=wrong-import-position


@pytest.fixture
def make_daemon(tmp_path):
    """Makes daemons (see Daemon) and ends them after the test."""
    daemons = []

    def make(**options):
        daemons.append(Daemon(tmp_path / f"d{len(daemons)}", **options))
        return daemons[-1]

    yield make
    for daemon in daemons:
        daemon.close()
