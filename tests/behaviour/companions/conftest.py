"""Fixtures of the companions' tests."""

import contextlib

import pytest
from harness.companions import Sandbox


@pytest.fixture
def sandbox(tmp_path):
    with contextlib.closing(Sandbox(tmp_path)) as result:
        yield result
