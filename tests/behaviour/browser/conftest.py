"""One desk and one browser for all tests: both take seconds to start."""

import contextlib

import pytest
from harness.browser import Browser
from harness.desk import PASSWORD
from harness.scene import Scene


@pytest.fixture(scope="session")
def scene(tmp_path_factory):
    with contextlib.closing(Scene(tmp_path_factory.mktemp("scene"))) as result:
        result.start()
        yield result


@pytest.fixture(scope="session")
def started_browser(tmp_path_factory):
    with contextlib.closing(Browser(tmp_path_factory.mktemp("browser"))) as result:
        yield result


@pytest.fixture
def browser(started_browser, scene):
    """A browser in which nobody is logged in. Asserts at the end that it has logged no error."""
    started_browser.driver.get(scene.address + "/login")
    started_browser.driver.delete_all_cookies()
    started_browser.resize(1280, 900)
    started_browser.logged_errors()
    yield started_browser


@pytest.fixture
def log_in(browser, scene):
    def log_in_as(user, password=PASSWORD):
        browser.driver.get(scene.address + "/login")
        browser.find("#user").send_keys(user)
        browser.find("#password").send_keys(password)
        browser.find("button").click()

    return log_in_as
