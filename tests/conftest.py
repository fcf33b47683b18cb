"""Fixtures of all suites."""

import contextlib
import itertools
import os

import pytest
from harness.daemon import Daemon
from harness.programs import program


def pytest_xdist_auto_num_workers():
    """Tests mostly wait, so more of them run at once than there are processors."""
    is_emulated = len(program()) > 1
    return (3 if is_emulated else 6) * len(os.sched_getaffinity(0))


@pytest.fixture
def maker(tmp_path):
    """maker(kind, name) returns a function that makes objects of that kind.

    Each object gets its own directory, and is closed after the test, the newest first.
    """
    with contextlib.ExitStack() as stack:

        def maker_of(kind, name):
            numbers = itertools.count()

            def make(*arguments, **options):
                made = kind(tmp_path / f"{name}{next(numbers)}", *arguments, **options)
                return stack.enter_context(contextlib.closing(made))

            return make

        yield maker_of


@pytest.fixture
def make_daemon(maker):
    """Makes daemons (see Daemon)."""
    return maker(Daemon, "d")
