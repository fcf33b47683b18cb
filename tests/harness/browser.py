"""A browser for the desk's pages."""

import base64
import os
from pathlib import Path

from selenium import webdriver
from selenium.common.exceptions import StaleElementReferenceException, WebDriverException
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from harness.wait import wait_until


class Browser:
    """Chromium without a window. CSS selectors name the elements."""

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
            # No request of the browser leaves this machine.
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
        """Writes a screenshot of the page, or of its top, to VOCASTRA_SCREENSHOTS."""
        self.shots.mkdir(exist_ok=True)
        clip = self.driver.execute_cdp_cmd("Page.getLayoutMetrics", {})["cssContentSize"]
        clip.update(scale=scale, height=height or clip["height"])
        shot = self.driver.execute_cdp_cmd(
            "Page.captureScreenshot", {"captureBeyondViewport": True, "clip": clip}
        )
        (self.shots / f"{name}.png").write_bytes(base64.b64decode(shot["data"]))

    def prefer(self, scheme):
        """Sets the preference for light or dark colours."""
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
        """Presses the Tab key until that element has the focus."""
        for _ in range(80):
            if self.focused() == wanted:
                return
            self.press(Keys.TAB)
        raise AssertionError(f"the tabulator does not reach {wanted}")

    def logged_errors(self):
        """The errors that the browser has logged since the last call."""
        return [entry["message"] for entry in self.driver.get_log("browser")]
