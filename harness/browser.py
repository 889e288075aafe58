# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Chromium without a screen, told what to do over WebDriver."""

import base64
import json
import re
import tempfile
import urllib.request

from harness.processes import HANG_GUARD_SECONDS, Process, wait_until

ENTER, TAB = "\ue007", "\ue004"


class Browser(Process):
    """A browser with one window and a profile of its own, through its driver."""

    def __init__(self):
        self._profile = tempfile.TemporaryDirectory(ignore_cleanup_errors=True)
        super().__init__(["chromedriver", "--port=0"])
        self._session = ""
        try:
            wait_until(lambda: re.search(r"successfully on port \d+", self.output()), "chromedriver")
            port = re.search(r"successfully on port (\d+)", self.output())[1]
            self._url = f"http://127.0.0.1:{port}/session"
            # No sandbox: as root it does not work, and only pages of our own are shown.
            options = {"args": ["--headless=new", "--no-sandbox", "--disable-dev-shm-usage",
                                f"--user-data-dir={self._profile.name}"]}
            self._session = "/" + self._ask("", {"capabilities": {"alwaysMatch": {
                "goog:chromeOptions": options,
                "goog:loggingPrefs": {"browser": "ALL", "performance": "ALL"}}}})["sessionId"]
        except BaseException:
            self.kill()
            raise

    def kill(self):
        if self._session and self.popen.poll() is None:
            self._ask("", method="DELETE")
            self._session = ""
        super().kill()
        self._profile.cleanup()

    def _ask(self, path, content=None, method="POST"):
        body = None if content is None else json.dumps(content).encode()
        request = urllib.request.Request(self._url + self._session + path, body, method=method)
        with urllib.request.urlopen(request, timeout=HANG_GUARD_SECONDS) as answer:
            return json.load(answer)["value"]

    def open(self, url):
        self._ask("/url", {"url": url})

    def run(self, script, *arguments):
        """Runs the body of a function in the page, and returns what it returns."""
        return self._ask("/execute/sync", {"script": script, "args": arguments})

    def press(self, key):
        self._ask("/actions", {"actions": [{"type": "key", "id": "keyboard", "actions": [
            {"type": "keyDown", "value": key}, {"type": "keyUp", "value": key}]}]})

    def log(self, kind):
        """Takes the entries of a log, "browser" or "performance"."""
        return self._ask("/se/log", {"type": kind})

    def command(self, name, **parameters):
        """A command of the browser's own protocol."""
        return self._ask("/goog/cdp/execute", {"cmd": name, "params": parameters})

    def resize(self, width, height):
        self.command("Emulation.setDeviceMetricsOverride", width=width, height=height,
                     deviceScaleFactor=1, mobile=False)

    def prefer(self, scheme):
        """scheme: "dark" or "light"."""
        self.command("Emulation.setEmulatedMedia",
                     features=[{"name": "prefers-color-scheme", "value": scheme}])

    def picture(self):
        """Returns what is seen, as PNG."""
        return base64.b64decode(self.command("Page.captureScreenshot")["data"])
