"""The accessory's whole way on the host's page: turned away, let in, supplied, installed, back again."""

from browser import Browser, Served, assert_looks_right
from pair_support import CART, PALM, SERIAL, VERSION, PairCase, installed, let_in, other, until, until_connected
from simulation import gateway


class AccessoryPage(PairCase):
    def setUp(self) -> None:
        self.browser = Browser(CART.words())
        self.addCleanup(self.browser.close)
        self.served = Served(CART.words())
        self.addCleanup(self.served.close)
        self.browser.run("await page.goto(address)", address=self.served.address)
        self.browser.run("await page.getByRole('navigation').getByRole('link', {name: 'Accessory'}).click()")

    def test_accessory_is_let_in_supplied_updated_and_comes_back(self) -> None:
        browser = self.browser
        browser.see("No other device is paired with this one.", "Nobody was turned away lately.")
        let_in(PALM, CART)
        until(lambda: other(CART).get("publicKey"), "the host has turned the accessory away")
        browser.see("Turned away")
        browser.press("Let in")
        for key in (PALM.peers()["publicKey"], CART.peers()["publicKey"]):
            told = browser.run("return page.locator('dialog .key').allInnerTexts()")
            self.assertIn(key, ["".join(text.split()) for text in told])
        self.assertEqual([], browser.run("return accessibility()"))
        browser.run("await page.getByLabel('Name').fill('palm')")
        browser.press("They are the same: let it in")
        until_connected()
        browser.see("palm", "connected", SERIAL, "3.044", f"Its software does not fit: {VERSION} is needed.")
        browser.press("Build package")
        browser.see(f"A package of {VERSION} for its board is there.")
        assert_looks_right(self, "the accessory view")

        browser.press("Carry over")
        until(lambda: [job["state"] for job in _jobs("transfer")] == ["Succeeded"], "the package is carried over")
        browser.press("Install there")
        browser.see(f"Install {VERSION} on palm?", "the accessory restarts")
        browser.press("Install there", within="dialog")
        browser.see(f"palm is connected again and runs {VERSION}.", "Its software fits.")
        self.assertEqual(VERSION, installed(PALM))
        self.assertEqual(["Succeeded"], [job["state"] for job in _jobs("remoteinstall")])

        browser.press("Remove palm")
        browser.see("Remove palm?")
        browser.press("Remove", within="dialog")
        browser.see("No other device is paired with this one.")
        until(lambda: not other(CART).get("pinned"), "the accessory's key is not pinned any more")
        self.assertEqual([], browser.run("return troubles"))


def _jobs(kind: str) -> list[dict]:
    return gateway.jobs(kind, CART.gateway)
