"""Who gets in: through arborctl ui, and over the network with tokens of three roles."""

import http.client
import socket

from browser import Served
from page_support import PageCase
from simulation import gateway, paths, sticks
from support import arborctl, configure, stick_package

TOKENS = {role: (role[0] * 40) for role in ("look", "operate", "administer")}


def ask(port: int, target: str, method: str = "GET", **headers: str) -> tuple[int, http.client.HTTPResponse]:
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=60)
    connection.putrequest(method, target, skip_host="Host" in headers, skip_accept_encoding=True)
    for name, value in headers.items():
        connection.putheader(name, value)
    connection.endheaders()
    answer = connection.getresponse()
    answer.text = answer.read()  # type: ignore[attr-defined]
    connection.close()
    return answer.status, answer


class Door(PageCase):
    def test_only_who_knows_the_address_asks_through_the_port(self) -> None:
        port = int(self.served.origin.rpartition(":")[2])
        good = {"Authorization": f"Bearer {self.served.secret}"}
        status, answer = ask(port, "/")
        self.assertEqual(200, status)
        self.assertIn("default-src 'self'", answer.headers["Content-Security-Policy"])
        self.assertEqual("nosniff", answer.headers["X-Content-Type-Options"])
        self.assertEqual(304, ask(port, "/", **{"If-None-Match": answer.headers["ETag"]})[0])
        self.assertEqual("gzip", ask(port, "/main.js", **{"Accept-Encoding": "gzip"})[1].headers["Content-Encoding"])
        self.assertEqual(200, ask(port, "/v1/status", **good)[0])
        for expected, target, headers in (
                (401, "/v1/status", {}), (401, "/v1/../v1/status", {}), (401, "/v1/status", {"Authorization": f"Bearer {'0' * 64}"}),
                (421, "/v1/status", {**good, "Host": "device.example"}),
                (403, "/v1/status", {**good, "Origin": "http://elsewhere.example"}), (404, "/passwd", {})):
            with self.subTest(target=target, headers=headers):
                self.assertEqual(expected, ask(port, target, **headers)[0])
        self.assertEqual(401, ask(port, "/v1/cancel", "POST", **{"Content-Length": "0"})[0])
        with socket.create_connection(("127.0.0.1", port), 60) as connection:
            connection.sendall(b"nonsense\r\n\r\n")
            self.assertRegex(connection.recv(4096), rb"^HTTP/1\.1 400 ")

    def test_port_ends_with_the_command_and_idle_connections_keep_nobody_out(self) -> None:
        port = int(self.served.origin.rpartition(":")[2])
        idle = [socket.create_connection(("127.0.0.1", port), 60) for _ in range(40)]
        self.assertEqual(200, ask(port, "/")[0])
        self.assertEqual(0, self.served.close())
        for connection in idle:
            self.assertEqual(b"", connection.recv(1))
            connection.close()
        with self.assertRaises(OSError):
            ask(port, "/")
        self.served = Served()


class Size(PageCase):
    def test_page_is_small_over_the_wire_and_lets_nothing_else_run(self) -> None:
        port = int(self.served.origin.rpartition(":")[2])
        names = sorted(path.name for path in (paths.build_folder() / "share/arbor-install/page").iterdir() if path.suffix != ".gz")
        total = 0
        for name in names:
            status, answer = ask(port, f"/{name}", **{"Accept-Encoding": "gzip"})
            self.assertEqual((200, "gzip"), (status, answer.headers["Content-Encoding"]), name)
            total += len(answer.text) + len(str(answer.headers))  # type: ignore[attr-defined]
            text = (paths.build_folder() / "share/arbor-install/page" / name).read_text()
            self.assertNotRegex(text, r"style=|javascript:|\bon[a-z]+=\"|<style|<script>|\beval\(|https?://(?!www\.w3\.org/)", name)
        self.assertLess(total, 40_000)


class Network(PageCase):
    def setUp(self) -> None:
        super().setUp()
        with socket.create_server(("127.0.0.1", 0)) as free:
            self.port = free.getsockname()[1]
        tokens = paths.CONFIG / "tokens"
        tokens.write_text("".join(f"{role}er {role} {token}\n" for role, token in TOKENS.items()))
        tokens.chmod(0o600)
        configure("Gateway", listen=f"127.0.0.1:{self.port}", tokenFile=str(tokens))
        self.restart()
        sticks.attach([stick_package("3.046")])

    def enter(self, token: str) -> None:
        self.browser.run("""await page.goto('about:blank'); await page.goto(origin); await page.evaluate(() => sessionStorage.clear());
            await page.reload(); await page.getByRole('textbox', {name: 'Token'}).fill(token); await page.keyboard.press('Enter')""",
            origin=f"http://127.0.0.1:{self.port}/", token=token)

    def test_roles_see_what_they_may_do(self) -> None:
        browser = self.browser
        told = arborctl("ui", "--network")
        self.assertEqual(f"http://127.0.0.1:{self.port}/\n", told.stdout)
        self.assertEqual(401, ask(self.port, "/v1/status")[0])
        self.assertEqual(401, ask(self.port, "/v1/status.js")[0])
        self.assertEqual(421, ask(self.port, "/", Host="device.example")[0])
        self.enter("x" * 40)
        browser.see("A token is needed", "This token is not known")
        self.assertEqual([], browser.run("return accessibility()"))
        self.enter(TOKENS["look"])
        browser.see("3.046", "You may look, and change nothing.")
        self.assertEqual([], browser.run("return page.locator('main button').allInnerTexts()"))
        self.enter(TOKENS["operate"])
        browser.see("3.046", "Install", "Choose a file")
        browser.run("await page.reload()")
        browser.see("3.046", "Choose a file")
        self.assertNotIn(TOKENS["operate"], browser.run("return page.url()"))

    def test_without_its_folder_there_is_no_page_and_the_rest_serves(self) -> None:
        configure("Gateway", pagePath="/nowhere")
        self.restart()
        self.assertEqual(401, ask(self.port, "/")[0])
        self.assertIsNone(gateway.get("status")["pageAddress"])
        self.ordered(1, "ui", "--network")
        configure("Gateway", pagePath="")
        self.restart()
