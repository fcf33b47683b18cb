"""The desk in a real browser."""

import re

import pytest
from harness.desk import PASSWORD
from harness.wait import wait_until
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.select import Select

LONG = (
    "Good morning, and welcome to the central station. The express train to the coast leaves from "
    "platform two, in eight minutes. Please keep your bags with you at all times. The café on the "
    "upper floor is open until midnight."
)


@pytest.fixture(autouse=True)
def silence(scene):
    """Waits before and after each test until nothing is spoken."""
    scene.wait_until_quiet()
    yield
    scene.wait_until_quiet()


def say(browser, text, directory="announcements"):
    Select(browser.find("#directory")).select_by_value(directory)
    browser.find("#text").clear()
    browser.find("#text").send_keys(text)
    browser.find("#say > form .main").click()


def test_a_waiting_message_can_be_withdrawn(browser, log_in, scene):
    log_in("anna")
    browser.wait_text("#link", "Live")
    say(browser, LONG)
    browser.wait_text("#now", "Good morning, and welcome")
    texts = ("The lost property office is closed today.", "Gate nine opens in ten minutes.")
    for text in ("The bus to the airport stops at bay four.", *texts):
        say(browser, text, "platform")
        browser.wait_text("#waiting", text)
    browser.shoot("waiting")
    browser.shoot("desk", height=1000, scale=0.5)  # For the README, as desk-phone.
    browser.prefer("dark")
    browser.shoot("dark")
    browser.prefer("light")
    # The daemon takes the first message at once. Each directory has one active message.
    for text in texts:
        browser.find(f'#waiting [aria-label="Withdraw: {text}"]').click()
        wait_until(lambda t=text: t not in browser.text("#waiting"), "it to be withdrawn")
    browser.wait_text("#notice", "Withdrawn.")
    browser.wait_text("#rows", "withdrawn by anna")
    scene.wait_until_quiet()
    said = [row.text for row in browser.all("#rows li") if "platform" in row.text]
    assert [re.search("withdrawn by|heard in full", text)[0] for text in said[:3]] == [
        "withdrawn by",
        "withdrawn by",
        "heard in full",
    ]


def test_wrong_password_is_refused(browser, log_in):
    log_in("anna", "wrong horse")
    browser.wait_text("[role=alert]", "The name or the password is wrong.")
    browser.shoot("login")
    log_in("nobody")
    browser.wait_text("[role=alert]", "The name or the password is wrong.")
    log_in("anna")
    browser.wait_text("#link", "Live")
    assert "anna" in browser.text("nav")
    browser.find("nav button").click()
    wait_until(lambda: browser.all("#password"), "the form to log in")


def test_page_shows_a_message_from_start_to_end(browser, log_in, scene):
    log_in("anna")
    browser.wait_text("#link", "Live")
    say(browser, 'The café <b>opens</b> at "ten" & closes at nine.')
    browser.wait_text("#say > form .answer", "Handed over.")
    assert browser.find("#text").get_attribute("value") == ""
    browser.wait_text("#now", 'The café <b>opens</b> at "ten" & closes at nine.')
    assert re.search(r"announcements\s+since \d\d:\d\d:\d\d\s+by anna", browser.text("#now"))
    browser.shoot("playing")
    browser.wait_text("#rows li", "heard in full")
    browser.wait_text("#now", "Nothing is playing.")
    assert re.search(
        r"handed over \d\d:\d\d:\d\d\s+by anna\s+heard \d\d:\d\d:\d\d", browser.text("#rows li")
    )
    assert (scene.root / "said.wav").stat().st_size > 22050
    line = r"^user anna says in announcements, as desk-[\d-]+: The café <b>opens"
    assert re.search(line, scene.desk.log(), re.M)
    browser.find("#rows li button").click()
    browser.wait_text("#notice", "Handed over again.")
    for row in (1, 2):
        browser.wait_text(f"#rows li:nth-child({row})", "The café <b>opens</b>")
        browser.wait_text(f"#rows li:nth-child({row})", "heard in full")
    assert browser.logged_errors() == []


def test_listen_first_announces_nothing(browser, log_in, scene):
    log_in("anna")
    before = scene.messages()
    browser.find("#text").send_keys("Nobody hears this but you, not even a word.")
    browser.wait_text("#say > form .length", "About 4 seconds, an estimate.")
    browser.find("#say > form .listen").click()
    browser.wait_text("#say > form .answer", "You hear a preview. Nothing is announced.")
    browser.wait_text("#say > form .length", "Takes ")
    audio = browser.find("#say audio")
    wait_until(lambda: audio.get_property("ended"), "the end of the preview")
    assert 1 < audio.get_property("duration") < 6
    browser.shoot("listen")
    assert scene.messages() == before
    assert browser.logged_errors() == []


def test_a_template_is_filled_in(browser, log_in):
    log_in("anna")
    browser.wait_text("#link", "Live")
    titles = [summary.text for summary in browser.all("#templates summary")]
    assert titles == ["Train leaves announcements", "Lost child announcements"]
    browser.find("#templates summary").click()
    browser.find("#templates [aria-label=place]").send_keys("Porto")
    browser.find("#templates .main").click()  # The number is missing.
    assert browser.focused() == "number"
    browser.find("#templates [aria-label=number]").send_keys("two")
    browser.wait_text("#templates .length", "About 3 seconds")
    browser.shoot("template")
    browser.find("#templates .main").click()
    browser.wait_text("#templates .answer", "Handed over.")
    browser.wait_text("#rows li", "The train to Porto leaves from platform two.")


def test_a_form_makes_an_xml_message(browser, log_in):
    log_in("anna")
    browser.wait_text("#link", "Live")
    browser.find("#say details summary").click()
    labels = [label.text for label in browser.all("#say details label")]
    assert labels == ["headline", "instruction (lang en)"]
    browser.find("#say details .main").click()
    browser.wait_text("#say details .answer", 'Parser "alert" finds nothing to say')
    browser.find("#d0-0").send_keys("Gate <7> & 8 are closed")
    browser.find("#d0-1").send_keys("Please use gate nine.")
    browser.shoot("form")
    browser.find("#say details .main").click()
    browser.wait_text("#rows li", "Gate <7> & 8 are closed. Please use gate nine.")


def test_page_reports_a_lost_connection(browser, log_in, scene):
    log_in("anna")
    browser.wait_text("#link", "Live")
    assert scene.desk.stop() == 0
    browser.wait_text("#link", "Connection lost at ")
    browser.find("#text").send_keys("Can you hear me?")
    browser.find("#say > form .main").click()
    browser.wait_text("#say > form .answer", "The device does not answer. Nothing was sent.")
    browser.shoot("lost")
    scene.desk.options += ["--listen", f"127.0.0.1:{scene.desk.port}"]
    scene.desk.start()
    # The end of the desk has ended the session.
    wait_until(lambda: browser.all("#password"), "the form to log in")
    log_in("anna")
    browser.wait_text("#link", "Live")


@pytest.mark.parametrize("user", ["anna", "operate", "look"])
def test_page_fits_a_narrow_screen(browser, log_in, user):
    browser.resize(360, 740)
    log_in(user)
    browser.wait_text("#link", "Live")
    width = browser.driver.execute_script("return document.documentElement.scrollWidth")
    assert width <= 360
    assert bool(browser.all("#say")) == (user != "look")
    browser.shoot(f"narrow-{user}")
    if user == "anna":
        browser.shoot("desk-phone", height=900, scale=0.6)


def test_desk_works_with_the_keyboard_only(browser, scene):
    browser.driver.get(scene.address + "/login")
    browser.press("anna", Keys.TAB, PASSWORD, Keys.ENTER)
    browser.wait_text("#link", "Live")
    browser.press(Keys.TAB)
    assert browser.focused() == "Go to the message"
    browser.tab_to("directory")
    browser.press("p")  # This key chooses "platform".
    browser.tab_to("text")
    browser.press("Typed with no mouse.")
    browser.tab_to("Listen first")
    browser.press(Keys.SPACE)
    browser.wait_text("#say > form .answer", "You hear a preview.")
    browser.tab_to("Say it")
    browser.shoot("keyboard")
    browser.press(Keys.ENTER)
    browser.wait_text("#rows li", "Typed with no mouse.")
    assert browser.focused() == "text"
    browser.wait_text("#rows li", "heard in full")
    browser.tab_to("Say again: Typed with no mouse.")
    assert browser.logged_errors() == []


def test_desk_works_without_javascript(browser, log_in):
    browser.driver.execute_cdp_cmd("Emulation.setScriptExecutionDisabled", {"value": True})
    try:
        log_in("anna")
        browser.wait_text("#link", "As of ")
        assert not browser.find(".listen").is_displayed()
        say(browser, " . , ")
        browser.wait_text("#notice", "There is nothing to say.")
        say(browser, LONG)
        browser.wait_text("#notice", "Handed over.")
        browser.find("#templates summary").click()
        browser.find("#templates [aria-label=place]").send_keys("Faro")
        browser.find("#templates [aria-label=number]").send_keys("one")
        browser.find("#templates .main").click()
        browser.wait_text("#waiting", "The train to Faro leaves from platform one.")
        browser.find("#waiting button").click()
        browser.wait_text("#notice", "Withdrawn.")
    finally:
        browser.driver.execute_cdp_cmd("Emulation.setScriptExecutionDisabled", {"value": False})


def test_operators_see_the_device(browser, log_in):
    log_in("operate")
    browser.find("nav a").click()
    browser.wait_text("main", "Line 5 is not")
    assert "alarms local 1 1 yes" in browser.text("main")
    browser.shoot("device")


def test_every_control_has_a_label(browser, log_in):
    """For screen readers, each control has a label and each part a heading."""
    log_in("operate")
    unnamed = browser.driver.execute_script(
        "return [...document.querySelectorAll('input:not([type=hidden]),textarea,select,button')]"
        ".filter(e => !(e.labels?.length || e.ariaLabel || e.textContent.trim()))"
        ".map(e => e.outerHTML)"
    )
    assert unnamed == []
    assert browser.find("html").get_attribute("lang") == "en"
    assert all(part.get_attribute("aria-labelledby") for part in browser.all("section.card"))
    assert browser.find("#now").get_attribute("aria-live") == "polite"
    assert browser.find("#problems").get_attribute("aria-live") == "assertive"


def test_a_service_that_ends_is_shown(browser, log_in, scene):
    """Must be the last test, as the service does not come back."""
    log_in("anna")
    browser.wait_text("#link", "Live")
    scene.station.process.kill()
    scene.station.process.wait()
    browser.wait_text("#problems", "The device does not speak: its service does not run.")
    say(browser, "Does anybody hear this?")
    browser.wait_text("#say > form .answer", "The device does not speak now")
    browser.shoot("problem")
