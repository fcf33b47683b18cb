"""The desk with all that it needs, and a browser that looks at it."""

import base64
import os
from pathlib import Path

from selenium import webdriver
from selenium.common.exceptions import StaleElementReferenceException, WebDriverException
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from harness.companions import COMPANIONS
from harness.desk import Desk
from harness.files import parser
from harness.programs import start_command
from harness.station import Station
from harness.wait import wait_until

TEMPLATES = """# Title | directory | text
Train leaves | announcements | The train to {place} leaves from platform {number}.
Lost child | announcements | Would the parents of {name} please come to the {place}.
Nobody can use this | nowhere | Of a directory that is not there.
This line is broken
"""


class Scene:
    """A station with daemon, translator and player, which writes a WAV file, and a desk."""

    def __init__(self, root):
        self.root = Path(root)
        self.root.mkdir(exist_ok=True)
        self.player = None
        self.station = Station(self.root / "s", (), words=5, files=2, status=False, output=False)
        self.run = self.station.run_path
        self.station.status_path = self.run / "status.xml"
        self.station.translator.unlink()
        self.station.translator.symlink_to(COMPANIONS / "translators/espeak-ng")
        text = {"parser": "text", "encoding": "utf8"}
        self.station.configure(
            self.station.directory("announcements", priority=5, **text),
            self.station.directory("platform", priority=6, conv_opts="speed=220", **text),
            self.station.directory("alarms", priority=1, parser="alert", encoding="utf8"),
            parser("alert", ("headline",), ("instruction", "lang", "en", "info")),
        )
        options = ("--run", self.run, "--translator", self.station.translator)
        self.desk = Desk(self.root / "desk", options, users=("look", "operate"))
        self.desk.add_user("anna", "say")
        (self.desk.root / "templates").write_text(TEMPLATES)

    @property
    def address(self):
        return f"http://127.0.0.1:{self.desk.port}"

    def start(self):
        """Starts all; returns when a message would be played."""
        wav = self.root / "said.wav"
        player = [COMPANIONS / "player", "--null", "--wav", wav, "--config", self.station.config]
        self.station.start()
        self.player = start_command(*player, "--run", self.run)
        wait_until((self.run / "player").exists, "the player's state")
        self.desk.start()

    def messages(self):
        """State and file of each message that the station knows."""
        return [(m.get("state"), m.get("file")) for m in self.station.health().iter("message")]

    def wait_until_quiet(self):
        wait_until(
            lambda: all(state in ("heard", "dropped") for state, _ in self.messages()), "silence"
        )

    def close(self):
        self.desk.close()
        if self.player:
            self.player.kill()
            self.player.communicate()
        self.station.close()


class Browser:
    """Chromium without a window. Elements are named by CSS selectors."""

    def __init__(self, root):
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for argument in (
            "--headless=new",
            "--no-sandbox",  # Tests may run as root.
            "--disable-gpu",
            "--disable-dev-shm-usage",
            "--hide-scrollbars",
            "--mute-audio",
            "--no-first-run",
            "--disable-background-networking",
            "--disable-component-update",
            # Whatever it does besides, nothing leaves this machine.
            "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1",
            f"--user-data-dir={root}",
        ):
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        service = webdriver.chrome.service.Service("/usr/bin/chromedriver")
        self.driver = webdriver.Chrome(service=service, options=options)
        self.driver.set_page_load_timeout(60)
        self.shots = Path(os.environ.get("VOCASTRA_SCREENSHOTS", root))

    def close(self):
        self.driver.quit()

    def resize(self, width, height):
        self.driver.execute_cdp_cmd(
            "Emulation.setDeviceMetricsOverride",
            {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 600},
        )

    def shoot(self, name, height=None, scale=1):
        """A screenshot of the page, or its top, kept where VOCASTRA_SCREENSHOTS says."""
        self.shots.mkdir(exist_ok=True)
        clip = self.driver.execute_cdp_cmd("Page.getLayoutMetrics", {})["cssContentSize"]
        clip.update(scale=scale, height=height or clip["height"])
        shot = self.driver.execute_cdp_cmd(
            "Page.captureScreenshot", {"captureBeyondViewport": True, "clip": clip}
        )
        (self.shots / f"{name}.png").write_bytes(base64.b64decode(shot["data"]))

    def prefer(self, scheme):
        """Light or dark colours."""
        feature = {"name": "prefers-color-scheme", "value": scheme}
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [feature]})

    def find(self, selector):
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def text(self, selector):
        """The visible text, or nothing while there is no such element."""
        try:
            return self.find(selector).text
        except (StaleElementReferenceException, WebDriverException):
            return ""

    def wait_text(self, selector, wanted):
        wait_until(
            lambda: wanted in self.text(selector),
            lambda: f'"{wanted}" in {selector}, which has "{self.text(selector)}"',
        )

    def press(self, *keys):
        webdriver.ActionChains(self.driver).send_keys(*keys).perform()

    def focused(self):
        """The text, value or label of the element that has the focus."""
        return self.driver.execute_script(
            "const e = document.activeElement;"
            "return e.getAttribute('aria-label') || e.id || e.textContent.trim();"
        )

    def tab_to(self, wanted):
        """Presses the tabulator until that element has the focus."""
        for _ in range(80):
            if self.focused() == wanted:
                return
            self.press(Keys.TAB)
        raise AssertionError(f"the tabulator does not reach {wanted}")

    def complaints(self):
        """What the browser has logged as an error since the last call."""
        return [entry["message"] for entry in self.driver.get_log("browser")]
