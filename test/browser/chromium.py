"""Headless Chromium, driven by its DevTools protocol through a pipe."""

import base64
import json
import os
import pathlib
import subprocess
import tempfile
import time


class Page:
    """One empty page of a browser of its own. What goes wrong in it is in `errors`."""

    PATIENCE = 60  # seconds

    def __init__(self, width, height, log):
        self.errors, self._log = [], pathlib.Path(log)
        self._profile = tempfile.TemporaryDirectory(prefix="keltask-browser-", ignore_cleanup_errors=True)
        # The browser reads commands from descriptor 3 and writes to 4. Its sandbox does not start as root.
        self._browser = subprocess.Popen(
            ["sh", "-c", 'exec chromium "$@" 3<&0 4>&1 0</dev/null 1>&2', "sh", "--headless", "--no-sandbox",
             "--remote-debugging-pipe", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
             f"--user-data-dir={self._profile.name}", f"--window-size={width},{height}", "about:blank"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self._log.open("wb"), bufsize=0,
            env={**os.environ, "HOME": self._profile.name})
        self._input, self._calls, self._session = b"", 0, None
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self._session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log"):
            self.call(f"{domain}.enable")

    def close(self):
        self._browser.kill()
        self._browser.wait()
        self._profile.cleanup()

    def call(self, method, **params):
        self._calls += 1
        message = {"id": self._calls, "method": method, "params": params}
        if self._session:
            message["sessionId"] = self._session
        self._browser.stdin.write(json.dumps(message).encode() + b"\0")
        while True:
            answer = self._receive()
            if answer.get("id") == self._calls:
                assert "error" not in answer, (method, answer)
                return answer["result"]
            self._note(answer)

    def evaluate(self, expression):
        answer = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        assert "exceptionDetails" not in answer, (expression, answer["exceptionDetails"])
        return answer["result"].get("value")

    def wait(self, expression):
        """Until the expression is true, and its value."""
        end = time.monotonic() + self.PATIENCE
        while time.monotonic() < end:
            if value := self.evaluate(expression):
                return value
            time.sleep(0.1)
        raise AssertionError(f"not so within {self.PATIENCE} s: {expression}; {self.errors}")

    def mouse(self, kind, x, y, **params):
        self.call("Input.dispatchMouseEvent", type=kind, x=x, y=y, **params)

    def screenshot(self, path):
        image = self.call("Page.captureScreenshot", format="png", captureBeyondViewport=True)["data"]
        pathlib.Path(path).write_bytes(base64.b64decode(image))

    def _receive(self):
        while b"\0" not in self._input:
            chunk = self._browser.stdout.read(1 << 16)
            assert chunk, "the browser has gone: " + self._log.read_text(errors="replace")[-2000:]
            self._input += chunk
        message, _, self._input = self._input.partition(b"\0")
        return json.loads(message)

    def _note(self, event):
        params = event.get("params", {})
        kind = params.get("entry", {}).get("level") or params.get("type")
        if event.get("method") == "Runtime.exceptionThrown" or kind in ("error", "warning", "assert"):
            self.errors.append(json.dumps(params))
