"""The page in a real browser: what a person at the bench sees and does."""

import contextlib
import json
import os
import signal
import subprocess
import unittest
from pathlib import Path

from browser import Browser
from common import wait_until
from installs import HALFWAY, is_alive, job, jobs, stand_still_at, stepped_package
from page_support import OrderedInstall, PageCase, offered
from simulation import furnish, gateway, paths, sticks
from support import FIXTURES, configure, installed, stick_package

VERSION = "3.048"


class Sticks(PageCase):
    def test_versions_of_a_stick_appear_and_what_is_refused_says_why(self) -> None:
        browser = self.browser
        browser.see("KQ-240117", "verdin-imx8mm", "3.044, slot A", "Nothing has been installed yet")
        browser.see("Plug a stick in", within="[aria-labelledby=offers]")
        self.assertEqual(1, browser.run("return requests.filter((url) => url.endsWith('/v1/status')).length > 0 ? 1 : 0"))
        sticks.attach(sticks.signed_packages())
        browser.see("3.046", "3.045", "newer", "from /media/usb1", "signed by Simulated Instrument Release", within="[aria-labelledby=offers]")
        browser.see("arbor-3.047.pkg", "the image in the package is damaged", "copy the file to the stick again", "it is older than",
                    within="[aria-labelledby=refused]")
        self.assert_looks_right("the update view")
        sticks.detach()
        browser.see("Plug a stick in", within="[aria-labelledby=offers]")
        browser.gone("Refused")

    def test_what_is_checked_is_counted_and_names_of_files_are_only_text(self) -> None:
        scripts = []
        for name in ("<img src=x onerror=alert(1)>.pkg", "waits.pkg"):
            path = paths.STATE / name
            path.write_text("#!/bin/sh\nexit 1\n")
            scripts.append(path)
        seen = self.browser.run("""
            await page.evaluate(() => { window.said = new Set();
                new MutationObserver(() => window.said.add(document.querySelector('.checking')?.innerText)).observe(document.body, {subtree: true, childList: true, characterData: true}); });""")
        self.assertIsNone(seen)
        sticks.attach([*scripts, *(stick_package(version) for version in ("3.045", "3.046", "3.047"))])
        self.browser.see("<img src=x", within="[aria-labelledby=refused]")
        self.browser.see("3.046", within="[aria-labelledby=offers]")
        self.assertIn("checking", " ".join(filter(None, self.browser.run("return [...await page.evaluate(() => [...window.said])]"))))

    def test_version_that_proves_nothing_is_taken_back_and_offered_again_when_somebody_wants_that(self) -> None:
        browser = self.browser
        paths.FAULTS.write_text("3.045 no signal on channel 2\n")
        sticks.attach([stick_package("3.045")])
        browser.see("3.045", within="[aria-labelledby=offers]")
        self.install("3.045")
        browser.await_outcome("returned")
        browser.see("3.044 runs, and not 3.045.", "It was taken back: measures: no signal on channel 2")
        browser.see("3.045 was taken back", within="[aria-labelledby=trial]")
        browser.see("it is offered again once somebody allows it", within="[aria-labelledby=refused]")
        self.assert_looks_right("a version that was taken back")
        browser.press("Offer again: 3.045")
        browser.see("3.045", within="[aria-labelledby=offers]")
        browser.gone("was taken back", within="[aria-labelledby=refused]")

    def test_version_that_waits_for_a_person_is_taken_back_or_kept(self) -> None:
        browser = self.browser
        configure("Trial", confirmByPerson=True, deadlineSeconds=0)
        self.restart()
        sticks.attach([stick_package(version) for version in ("3.045", "3.046")])
        browser.see("3.045", within="[aria-labelledby=offers]")
        self.install("3.045")
        browser.see("3.045 has to prove itself: start 1 of 3. It waits for somebody who confirms it.", within="[aria-labelledby=trial]")
        self.assert_looks_right("a version on trial")
        browser.press("Go back")
        browser.see("Go back to 3.044?", "3.045 is taken back", within="dialog")
        browser.press("Not now", within="dialog")
        browser.press("Go back")
        browser.press("Go back", within="dialog")
        browser.await_outcome("returned")
        browser.see("3.045 was taken back", "taken back by", within="[aria-labelledby=trial]")

        browser.see("3.046", within="[aria-labelledby=offers]")
        self.install("3.046")
        browser.see("3.046 has to prove itself", within="[aria-labelledby=trial]")
        browser.press("It works: keep it")
        browser.gone("has to prove itself")
        browser.see("confirmed", within="[aria-labelledby=instrument]")
        self.assertEqual(("3.046", "confirmed"), (installed(), gateway.post("slots")[1]["state"]))

    def test_page_of_which_a_part_could_not_be_had_is_loaded_anew(self) -> None:
        for part in ("main.js", "log.js"):
            self.browser.run("""
                await page.goto('about:blank');
                await page.route(`**/${part}`, (route) => route.abort('connectionreset'), { times: 1 });
                await page.goto(address)""", part=part, address=self.served.address)
            self.browser.see("Plug a stick in", within="[aria-labelledby=offers]")

    def test_keyboard_alone_installs(self) -> None:
        sticks.attach([stepped_package(VERSION, FIXTURES)])
        browser = self.browser
        browser.see(VERSION, within="[aria-labelledby=offers]")
        stand_still_at(HALFWAY)
        focused = "return page.evaluate(() => document.activeElement.getAttribute('aria-label') ?? document.activeElement.innerText)"
        for _ in range(20):
            browser.run("await page.keyboard.press('Tab')")
            if browser.run(focused) == f"Install {VERSION}":
                break
        browser.run("await page.keyboard.press('Enter')")
        browser.see(f"Install {VERSION}?", "If the new version does not start, 3.044 is still there")
        self.assertEqual([], browser.run("return accessibility()"))
        browser.run("await page.keyboard.press('Escape')")
        browser.gone(f"Install {VERSION}?")
        self.assertEqual(f"Install {VERSION}", browser.run(focused), "the keyboard is where it was")
        self.assertEqual([], jobs("Install"))
        browser.run("await page.keyboard.press('Enter')")
        browser.see(f"Install {VERSION}?")
        self.assertEqual(f"Install {VERSION}", browser.run(focused))
        browser.run("await page.keyboard.press('Enter')")
        browser.await_outcome("running")
        install = OrderedInstall(HALFWAY)
        browser.press("Cancel")
        with contextlib.suppress(ProcessLookupError):  # it may have been ended as it stood
            os.kill(install.worker, signal.SIGCONT)
        browser.see(f"Installing {VERSION} was cancelled.", "3.044 stays, unchanged.")
        self.assertEqual("Cancelled", job(install.id)["state"])


class Installs(PageCase):
    def setUp(self) -> None:
        super().setUp()
        sticks.attach([stepped_package(VERSION, FIXTURES)])
        self.browser.see(VERSION, within="[aria-labelledby=offers]")

    def begin(self) -> OrderedInstall:
        stand_still_at(HALFWAY)
        self.install(VERSION)
        install = OrderedInstall(HALFWAY)
        self.browser.see("40 %", "Writing the image", "Do not switch off.")
        return install

    def reboot_by(self, script: str) -> None:
        """What the installer runs in place of the reboot."""
        settings = json.loads((paths.CONFIG / "installer.json").read_text())
        settings["rebootCommand"] = [*settings["rebootCommand"][:-1], "sh", "-c", script]
        furnish.write_json(paths.CONFIG / "installer.json", settings)

    def test_install_is_proven_after_a_reload_a_second_tab_and_a_host_that_was_killed(self) -> None:
        browser = self.browser
        install = self.begin()
        self.assert_looks_right("an install")
        browser.run("await page.reload()")
        browser.see("40 %", "Do not switch off.")
        browser.run("""memory.tab = await context.newPage(); await memory.tab.goto(address);
                       await memory.tab.getByText('40 %').first().waitFor()""", address=self.served.address)
        self.kill_host()
        browser.see("The instrument has not answered for", "The installer goes on by itself.")
        self.assertTrue(is_alive(install.worker))
        self.start_host()
        browser.gone("The instrument has not answered for")
        browser.see("40 %", "Do not switch off.")
        install.go_on()
        browser.await_outcome("proven")
        browser.see(f"{VERSION} runs. The restart is over.", "Proof: it was installed in boot", f"{VERSION}, slot B")
        browser.gone("Do not switch off.")
        browser.run("await memory.tab.locator('[data-outcome=proven]').waitFor(); await memory.tab.close()")
        first, now = jobs("Install")[0]["bootId"], gateway.get("status")["bootId"]
        self.assertNotEqual(first, now)
        browser.see(f"installed in boot {first[:8]}; this is boot {now[:8]}")
        browser.run("await page.reload()")
        browser.see("The restart is over.")
        wait_until(lambda: gateway.post("slots")[1]["state"] == "confirmed", "it has proved itself")
        browser.press(f"Install {VERSION}")
        browser.see("The last install took", "as the last time", within="dialog")
        hold = paths.RUNTIME / "hold"
        hold.touch()
        self.reboot_by(f"kill -TERM $(cat {paths.HOST_PID}); while [ -e {hold} ]; do sleep 0.1; done; exec {paths.INSTRUMENT}/reboot")
        stand_still_at("")
        browser.press(f"Install {VERSION}", within="dialog")
        browser.await_outcome("restarting")
        browser.see(f"Restarting into {VERSION}.", "Waiting for the instrument (about ", "Do not switch off.")
        hold.unlink()
        browser.await_outcome("proven")
        self.assertNotEqual(now, gateway.get("status")["bootId"])

    def test_reload_while_the_instrument_restarts_finds_it_again(self) -> None:
        self.begin()
        self.kill_host()
        self.browser.run("await page.reload()")
        self.browser.see("This page tries again by itself.")
        self.start_host()
        self.browser.see("40 %", "Do not switch off.")

    def test_version_that_was_ordered_in_other_words_is_proven(self) -> None:
        self.assertTrue(gateway.post("updatesystem", {"version": f"{VERSION}.0"})[1]["bSuccess"])
        self.browser.await_outcome("proven")

    def test_version_that_comes_back_is_told(self) -> None:
        turn_back = f"ln -sfn A {paths.SLOTS}/active; exec {paths.INSTRUMENT}/reboot"
        self.reboot_by(turn_back)
        self.begin().go_on()
        self.browser.await_outcome("returned")
        self.browser.see(f"3.044 runs, and not {VERSION}.", "3.044, slot A")

    def test_install_that_fails_says_why_and_what_stays(self) -> None:
        install = self.begin()
        os.kill(install.worker, signal.SIGKILL)
        self.browser.await_outcome("failed")
        reason = job(install.id)["reason"]
        self.assertNotEqual("", reason)
        self.browser.see(f"Installing {VERSION} did not work.", reason, "3.044 stays, unchanged.")
        self.browser.gone("Do not switch off.")
        second = Browser()  # another one, which has seen nothing of it
        self.addCleanup(second.close)
        second.run("await page.goto(address)", address=self.served.address)
        second.see(reason)

    def test_order_that_is_refused_says_why(self) -> None:
        install = self.begin()
        status, answer = gateway.post("updatesystem", {"version": VERSION})
        self.assertEqual((200, False), (status, answer["bSuccess"]))
        self.assertTrue(self.browser.run("return page.getByRole('button', {name: `Install ${VERSION}`}).isDisabled()", VERSION=VERSION))
        os.kill(install.worker, signal.SIGKILL)
        self.browser.await_outcome("failed")
        self.browser.press(f"Install {VERSION}")
        sticks.detach()
        wait_until(lambda: gateway.updates() == [], "nothing is offered any more")
        self.browser.press(f"Install {VERSION}", within="dialog")
        self.browser.see(f"Install {VERSION}: ", within="[role=alert]")


class Facts(unittest.TestCase):
    def test_clock_that_was_set_back_changes_neither_what_is_newest_nor_how_long_it_took(self) -> None:
        facts = (paths.PROJECT / "services/NodeGateway/page/js/facts.js").read_text()
        done = subprocess.run(["node", "--input-type=module", "-"], text=True, capture_output=True, check=False, input=facts + """
            const job = (id, year, more) => ({ id, kind: 'Install', createdAt: Date.UTC(year), startedAt: Date.UTC(year), endedAt: Date.UTC(2026), took: 90000, ...more });
            const jobs = [job('1', 2026, { state: 'Succeeded', version: '3.045', bootId: 'a' }), job('2', 1985, { state: 'Failed' })];
            const state = { jobs: new Map(jobs.map((one) => [one.id, one])), status: { bootId: 'b', installedVersion: '3.045' }, link: 'live' };
            console.log(outcome(state).kind, lastInstallTook([...jobs].reverse()), lastRestart([job('3', 1985, { bootId: 'b' }), jobs[0]]));""")
        self.assertEqual(done.stdout, "failed 90000 0\n", done.stderr)


class Files(PageCase):
    def test_file_that_is_dropped_is_carried_over_and_checked(self) -> None:
        browser = self.browser
        browser.see("Drop a package file here")
        good, bad = stick_package("3.046"), stick_package("3.047")
        browser.run("await page.locator('input[type=file]').setInputFiles(path)", path=str(good))
        browser.see("arbor-3.046.pkg is good: version 3.046 can be installed.")
        browser.see("uploaded", within="[aria-labelledby=offers]")
        self.assertEqual(good.read_bytes(), (paths.UPDATES / good.name).read_bytes())
        browser.run("""
            const bytes = Uint8Array.from(atob(data), (letter) => letter.charCodeAt(0));
            const transfer = await page.evaluateHandle(([bytes, name]) => { const data = new DataTransfer();
                data.items.add(new File([Uint8Array.from(bytes)], name)); return data; }, [[...bytes], name]);
            await page.dispatchEvent('body', 'drop', {dataTransfer: transfer});""", name=bad.name, data=_base64(bad, 100_000))
        browser.see("arbor-3.047.pkg was refused:")
        browser.press("Remove arbor-3.046.pkg")
        offered()
        browser.see("Plug a stick in", within="[aria-labelledby=offers]")
        self.assertFalse((paths.UPDATES / good.name).exists())


class Journals(PageCase):
    def test_history_filters_and_opens_and_the_log_is_live(self) -> None:
        browser = self.browser
        sticks.attach([stick_package("3.046"), stick_package("3.047")])
        browser.see("3.046", within="[aria-labelledby=offers]")
        self.tab("History")
        browser.see("Check 3.046", "Check 3.047", "the image in the package is damaged", "Look at /media/usb1")
        browser.run("await page.getByLabel('How it ended').selectOption('Failed')")
        browser.gone("Check 3.046")
        browser.run("await page.locator('.entry-head', {hasText: 'Check 3.047'}).click()")
        browser.see("drive /media/usb1", "Verification failed on", within=".details")
        browser.run("""await page.getByLabel('How it ended').selectOption(''); await page.getByLabel('What').selectOption('Scan');
                       await page.getByText('Check 3.047').waitFor({state: 'hidden'});
                       await page.locator('.entry-head', {hasText: '/media/usb1'}).click()""")
        browser.see("Its parts", "Check 3.046", within=".details")
        self.assert_looks_right("the history")

        self.tab("Log")
        browser.see("Found package file", within="[role=log]")
        browser.run("await page.getByLabel('From level').selectOption('4')")
        browser.gone("Found package file")
        browser.see("Verification failed on")
        browser.run("await page.getByLabel('From level').selectOption('2'); await page.getByLabel('Search').fill('Removing package')")
        sticks.detach()
        browser.see("Removing package /media/usb1/arbor-3.046.pkg", within="[role=log]")
        saved = browser.run("""
            const [download] = await Promise.all([page.waitForEvent('download'), page.getByRole('button', {name: 'Download'}).click()]);
            return download.path()""")
        self.assertRegex(Path(saved).read_text(), r"(?m)^\d{4}-.* 2 \S+ Removing package /media/usb1/arbor-3\.046\.pkg$")
        self.assert_looks_right("the log")

    def test_job_that_ends_before_anybody_listens_does_not_run_for_ever(self) -> None:
        self.browser.run("""
            memory.asked = 0;
            const job = { id: 'feed', kind: 'Transfer', state: 'Running', version: '9.99', device: 'ghost', header: '', message: '', percent: 7,
                          createdAt: Date.now(), startedAt: Date.now(), endedAt: 0, took: 1, bootId: '', reason: '', asker: '', file: '', node: '' };
            await page.route('**/v1/operations/feed', (route) => route.fulfill({ json: { ...job, state: 'Succeeded', endedAt: Date.now() } }));
            await page.route('**/v1/status', async (route) => {
                const response = await route.fetch();
                const status = await response.json();
                await route.fulfill({ response, json: memory.asked++ ? status : { ...status, operations: [job] } });
            });
            await page.reload();
            while (memory.asked < 2) { await new Promise((resolve) => setTimeout(resolve, 20)); }
            await page.locator('body').getByText('9.99').first().waitFor({ state: 'hidden' });
            await page.unrouteAll({ behavior: 'ignoreErrors' });""")

    def test_history_that_is_not_written_is_told(self) -> None:
        self.kill_host()
        configure("Journal", databaseFile="/dev/full/journal.sqlite")
        self.start_host()
        self.tab("History")
        self.browser.see("Nothing is written to the history at present", "/dev/full")

    def test_nothing_moves_under_a_finger(self) -> None:
        browser = self.browser
        sticks.attach([stick_package("3.045")])
        browser.see("3.045", within="[aria-labelledby=offers]")
        browser.run("""memory.box = await page.getByRole('button', {name: 'Install 3.045'}).boundingBox();
            await page.mouse.move(memory.box.x + 10, memory.box.y + 10); await page.mouse.down()""")
        sticks.attach([stick_package("3.046")], "usb2")
        offered("3.046", "3.045")
        told = "return answered.filter((url) => url.endsWith('/v1/status')).length"
        before = browser.run(told)
        # Whatever the page asks from now on is answered with both; a second one that would have to be shown is enough.
        sticks.detach("usb2")
        wait_until(lambda: browser.run(told) > before, "the page has asked again")
        sticks.attach([stick_package("3.046")], "usb2")
        before = browser.run(told)
        wait_until(lambda: browser.run(told) > before, "the page has asked again")
        browser.run("await page.mouse.up()")
        browser.see("Install 3.045?")
        browser.run("await page.keyboard.press('Escape')")
        browser.see("3.046", within="[aria-labelledby=offers]")


def _base64(path: Path, most: int) -> str:
    import base64
    return base64.b64encode(path.read_bytes()[:most]).decode()
