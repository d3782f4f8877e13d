#!/usr/bin/env python3
"""Makes the pictures of the page that are kept in docs/page: one of each step of an update, and some of other sizes.

    PYTHONPATH=examples/instrument:tests/endtoend ARBOR_TEST_LOGS=build examples/instrument/instrument run --host -- tests/page/screenshots.py [trial]
    PYTHONPATH=examples/instrument:examples/two-instruments:tests/endtoend ARBOR_TEST_LOGS=build \\
        examples/two-instruments/two-instruments run -- tests/page/screenshots.py accessory

Look at each of them before they are kept.
"""

import json
import os
import sys
from pathlib import Path

os.environ.setdefault("ARBOR_PAGE_SHOTS", str(Path(__file__).resolve().parent.parent.parent / "docs" / "page"))

from browser import Browser, Served
from simulation import furnish, paths, sticks

USUAL, BENCH, PHONE = (1100, 700), (800, 480), (320, 640)
HOLD = paths.RUNTIME / "hold"


def shot(browser: Browser, name: str, size: tuple[int, int] = USUAL, scheme: str = "light") -> None:
    browser.run("await page.setViewportSize({width, height}); await page.emulateMedia({colorScheme})", width=size[0], height=size[1],
                colorScheme=scheme)
    browser.shot(name)
    browser.run("await page.setViewportSize({width: 1100, height: 700}); await page.emulateMedia({colorScheme: 'light'})")


def begin(browser: Browser, served: Served, words: str) -> None:
    browser.run("await page.setViewportSize({width: 1100, height: 700}); await page.goto(address)", address=served.address)
    browser.see(words)


def update(browser: Browser, served: Served) -> None:
    from installs import HALFWAY, stand_still_at, stepped_package
    from page_support import OrderedInstall
    from support import FIXTURES
    settings = json.loads((paths.CONFIG / "installer.json").read_text())
    wait = f"kill -TERM $(cat {paths.HOST_PID}); while [ -e {HOLD} ]; do sleep 0.1; done; exec {paths.INSTRUMENT}/reboot"
    settings["rebootCommand"] = [*settings["rebootCommand"][:-1], "sh", "-c", wait]
    furnish.write_json(paths.CONFIG / "installer.json", settings)
    begin(browser, served, "Plug a stick in")
    packages = [stepped_package("3.046", FIXTURES), *(file for file in sticks.signed_packages() if "3.046" not in file.name)]
    sticks.attach(packages)
    browser.see("it is older than", "the image in the package is damaged", "3.046")
    shot(browser, "1-stick")
    shot(browser, "phone", PHONE)
    browser.press("Install 3.046")
    browser.see("is written anew")
    shot(browser, "2-confirm")
    stand_still_at(HALFWAY)
    browser.press("Install 3.046", within="dialog")
    install = OrderedInstall(HALFWAY)
    browser.see("40 %")
    shot(browser, "3-install")
    shot(browser, "bench", BENCH)
    HOLD.touch()
    install.go_on()
    browser.await_outcome("restarting")
    shot(browser, "4-restart")
    HOLD.unlink()
    browser.await_outcome("proven")
    browser.see("3.046, slot B")
    shot(browser, "5-proven")
    shot(browser, "dark", BENCH, "dark")
    browser.run("""await page.getByRole('link', {name: 'History'}).click();
        await page.locator('.entry-head', {hasText: 'Install 3.046'}).click()""")
    browser.see("Its log lines")
    browser.run("await page.evaluate(() => scrollTo(0, 0))")
    shot(browser, "history")
    browser.run("await page.getByRole('link', {name: 'Log'}).click()")
    browser.see("Graph is running")
    shot(browser, "log", BENCH, "dark")


def trial(browser: Browser, served: Served) -> None:
    from support import configure, stick_package
    configure("Trial", confirmByPerson=True, deadlineSeconds=15)  # from the first restart on
    begin(browser, served, "Plug a stick in")
    sticks.attach([stick_package(version) for version in ("3.045", "3.046")])
    paths.FAULTS.write_text("3.045 no signal on channel 2\n")
    for version, seen in (("3.045", "was taken back"), ("3.046", "has to prove itself")):
        browser.see(version, within="[aria-labelledby=offers]")
        browser.press(f"Install {version}")
        browser.press(f"Install {version}", within="dialog")
        browser.see(seen, within="[aria-labelledby=trial]")
    shot(browser, "trial")


def accessory(browser: Browser, served: Served) -> None:
    from pair_support import CART, PALM, let_in, other, until, until_connected
    begin(browser, served, "CT-240101")
    browser.run("await page.getByRole('link', {name: 'Accessory'}).click()")
    let_in(PALM, CART)
    browser.see("Turned away")
    browser.press("Let in")
    browser.see("Compare both keys")
    shot(browser, "pair")
    browser.run("await page.getByLabel('Name').fill('palm')")
    browser.press("They are the same: let it in")
    until_connected()
    until(lambda: other(CART).get("version"), "the accessory has told its version")
    browser.see("Its software does not fit", "A package of 3.046 for its board is there.", "Nothing is under way.")
    shot(browser, "accessory")


def main(arguments: list[str]) -> None:
    enter, story = [], trial if arguments == ["trial"] else update
    if arguments == ["accessory"]:
        from pair_support import CART
        enter, story = CART.words(), accessory
    served, browser = Served(enter), Browser(enter)
    try:
        story(browser, served)
    finally:
        browser.close()
        served.close()


if __name__ == "__main__":
    main(sys.argv[1:])
