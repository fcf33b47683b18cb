"""Fixtures of the system tests."""

import pytest
from daemon import Daemon


def pytest_configure(config):
    config.addinivalue_line(
        "markers", "core: what must also hold under an emulator and under sanitizers"
    )


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
