"""A real browser that looks at a device's page, and what tests do with it."""

import json
import os
import subprocess
import unittest
from pathlib import Path
from typing import Any

from simulation import paths

HERE = Path(__file__).resolve().parent
WIDTHS = ((320, 640), (800, 480), (1280, 800), (1920, 1080))
TARGET = 48  # pixels that a finger in a glove needs
SHOTS = Path(os.environ.get("ARBOR_PAGE_SHOTS") or paths.build_folder() / "page-shots")


class Served:
    """The page as `arborctl ui` serves it, for as long as it is open. `enter` is put before the command."""

    def __init__(self, enter: list[str] | None = None, *arguments: str) -> None:
        self.process = subprocess.Popen([*(enter or []), str(paths.program("arborctl")), "--json", *arguments, "ui", "--no-open"],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        assert self.process.stdout
        said = self.process.stdout.readline()
        assert said, "arborctl ui did not tell an address"
        self.address: str = json.loads(said)["address"]
        self.origin, _, self.secret = self.address.partition("/#token=")

    def close(self) -> int:
        self.process.terminate()
        code = self.process.wait(60)
        assert self.process.stdout
        self.process.stdout.close()
        return code


class Browser:
    """Chromium in a process of its own. `run` takes the body of an async function; see driver.mjs for what it knows."""

    def __init__(self, enter: list[str] | None = None) -> None:
        environment = {**os.environ, "HOME": "/tmp", "DBUS_SESSION_BUS_ADDRESS": "disabled:"}
        self._process = subprocess.Popen([*(enter or []), "node", str(HERE / "driver.mjs")], stdin=subprocess.PIPE,
                                         stdout=subprocess.PIPE, text=True, env=environment)

    def run(self, code: str, **known: Any) -> Any:
        """Runs it; each of `known` is a constant there. Fails with what the browser says."""
        assert self._process.stdin and self._process.stdout
        constants = "".join(f"const {name} = {json.dumps(value)};\n" for name, value in known.items())
        self._process.stdin.write(json.dumps({"code": constants + code}) + "\n")
        self._process.stdin.flush()
        line = self._process.stdout.readline()
        if not line:
            raise AssertionError(f"the browser ended while it was to do: {code}")
        answer = json.loads(line)
        if "error" in answer:
            raise AssertionError(f"{answer['error']}\nin: {code}\non the page:\n{self._text()}")
        return answer["value"]

    def see(self, *texts: str, within: str = "body") -> None:
        """Waits until each text is shown."""
        for text in texts:
            self.run("await page.locator(within).getByText(text).first().waitFor()", text=text, within=within)

    def gone(self, text: str, within: str = "body") -> None:
        self.run("await page.locator(within).getByText(text).first().waitFor({state: 'hidden'})", text=text, within=within)

    def press(self, name: str, within: str = "body") -> None:
        """Presses the button with that name."""
        self.run("await page.locator(within).getByRole('button', {name, exact: true}).first().click()", name=name, within=within)

    def await_outcome(self, kind: str) -> None:
        self.run("await page.locator(`[data-outcome=${kind}]`).waitFor()", kind=kind)

    def shot(self, name: str) -> None:
        SHOTS.mkdir(parents=True, exist_ok=True)
        self.run("await page.screenshot({path})", path=str(SHOTS / f"{name}.png"))

    def _text(self) -> str:
        assert self._process.stdin and self._process.stdout
        self._process.stdin.write(json.dumps({"code": "return page.url() + ' ' + await page.locator('body').innerText() + JSON.stringify([troubles, refused])"}) + "\n")
        self._process.stdin.flush()
        return str(json.loads(self._process.stdout.readline() or "{}").get("value"))

    def close(self) -> None:
        assert self._process.stdin and self._process.stdout
        self._process.stdin.close()
        self._process.wait(60)
        self._process.stdout.close()


def assert_looks_right(case: unittest.TestCase, what: str) -> None:
    """In light and dark no rule of accessibility is broken; at each width nothing sticks out, and fingers find the buttons."""
    browser: Browser = case.browser  # type: ignore[attr-defined]
    for scheme in ("light", "dark"):
        browser.run("await page.emulateMedia({colorScheme})", colorScheme=scheme)
        case.assertEqual([], browser.run("return accessibility()"), f"{what}, {scheme}")
    browser.run("await page.emulateMedia({colorScheme: 'light'})")
    for width, height in WIDTHS:
        browser.run("await page.setViewportSize({width, height})", width=width, height=height)
        case.assertEqual(0, browser.run("return overflow()"), f"{what} at {width}")
        small = browser.run("""
            return page.locator('button:visible, nav a:visible, select:visible').evaluateAll((all, target) => all
                .map((one) => [one.innerText, Math.round(one.getBoundingClientRect().height)]).filter(([, height]) => height < target), TARGET)""",
            TARGET=TARGET)
        case.assertEqual([], small, f"{what} at {width}")
    browser.run("await page.setViewportSize({width: 1280, height: 800})")
