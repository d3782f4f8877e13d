"""What the tests of the page share: an instrument with its page open in a browser, and an install that stands still."""

from browser import Browser, Served, assert_looks_right
from common import wait_until
from installs import Install, jobs, stand_still_at
from simulation import gateway, host, paths
from support import InstrumentCase


class PageCase(InstrumentCase):
    """The browser stays for all tests of a class; each has a device of its own, served anew."""

    TRUST = str(paths.TRUST)
    browser: Browser

    @classmethod
    def setUpClass(cls) -> None:
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.close)

    def setUp(self) -> None:
        super().setUp()
        self.addCleanup(stand_still_at, "")
        self.served = Served()
        self.addCleanup(self._end_page)
        self.open(self.served.address)

    def _end_page(self) -> None:
        """Nothing on the page went wrong, and it asked nobody but the instrument."""
        self.browser.run("await page.goto('about:blank')")
        troubles, requests = self.browser.run("return [troubles.splice(0), requests.splice(0)]")
        self.served.close()
        self.assertEqual([], troubles)
        strangers = {url for url in requests if not url.startswith(("http://127.0.0.1:", "about:", "blob:http://127.0.0.1:"))}
        self.assertEqual(set(), strangers, "requests left the instrument")

    def open(self, address: str) -> None:
        self.browser.run("""
            await page.emulateMedia({colorScheme: 'light'});
            await page.setViewportSize({width: 1280, height: 800});
            await page.goto(address)""", address=address)

    def tab(self, name: str) -> None:
        self.browser.run("await page.getByRole('navigation').getByRole('link', {name}).click()", name=name)

    def install(self, version: str) -> None:
        """As a person does: the button, then the confirmation."""
        self.browser.press(f"Install {version}")
        self.browser.press(f"Install {version}", within="dialog")

    def start_host(self) -> None:
        self.process = host.start()

    def assert_looks_right(self, what: str) -> None:
        assert_looks_right(self, what)


class OrderedInstall(Install):
    """The newest install, whoever ordered it; its worker stands still at `until`, which was set before."""

    def __init__(self, until: str) -> None:
        wait_until(lambda: any(job["processId"] for job in jobs("Install")), "an install has begun")
        newest = jobs("Install")[0]
        self.id, self.watcher, self.worker = newest["id"], newest["processId"], 0
        self._await_standstill(until)


def offered(*versions: str) -> None:
    wait_until(lambda: gateway.updates() == list(versions), f"{versions} are offered")
