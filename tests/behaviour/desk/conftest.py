"""Fixtures of the desk's tests."""

import pytest
from harness.desk import Browser, Desk


@pytest.fixture
def make_desk(maker):
    """Makes desks (see Desk)."""
    return maker(Desk, "desk")


@pytest.fixture
def desk(make_desk):
    """A desk that runs."""
    return make_desk().start()


@pytest.fixture
def browser(desk):
    """Requests of a user who is logged in and may announce."""
    browser = Browser(desk)
    assert browser.log_in("say").status == 303
    return browser
