"""A host brings its accessory to its own version: the whole way once, and every step of it failing."""

import os
import shutil
import tempfile
from pathlib import Path

from pair import stock
from pair.devices import LED
from pair_support import (BUILT, CARRIED, CART, PALM, REMOTE_INSTALL, SERIAL, TRANSFER, VERSION, PairCase, arborctl,
                          build_package, ended, folder_in_the_way, installed, led_broken, let_in, locked_out_after_the_copy,
                          other, running, slots_in_use, stuck_copy, until, until_connected)
from signing import arbor_pkg, new_keys
from simulation import gateway, paths


class Journey(PairCase):
    def test_accessory_is_let_in_supplied_updated_and_comes_back_by_itself(self) -> None:
        let_in(PALM, CART)
        until(lambda: PALM.peers()["publicKey"] in arborctl(CART, "pair").stdout, "the host names the key that it refused")
        self.assertIn(PALM.peers()["publicKey"], CART.log)
        self.assertFalse(other(CART)["pinned"] or other(CART)["connected"] or other(PALM)["connected"])
        let_in(CART, PALM)
        until_connected()
        until(lambda: other(PALM)["targetVersion"] == VERSION, "the accessory knows what it needs")
        self.assertEqual((True, True), (other(PALM)["compatible"], other(PALM)["requiresUpdate"]))
        self.assertEqual(["palm", "QMD", SERIAL, "DEVICE_PALM", "verdin-imx8mm", "3.044"],
                         [other(CART)[key] for key in ("name", "deviceModel", "serialNumber", "deviceType", "board", "version")])
        until(lambda: f"OK: built version {VERSION}" in CART.log, "the host has built the accessory's package")

        with gateway.Events(PALM.gateway) as events:
            self.assert_ended(0, "done", arborctl(CART, *TRANSFER))
            announced = events.next("updateavailable")
        self.assertEqual([VERSION], [message["version"] for message in announced["messages"]])
        self.assertEqual(BUILT.read_bytes(), CARRIED.read_bytes())

        self.assert_remote_install_works()
        self.assertEqual(["-y -f 1 48 4 0x62", "-y -f 1 48 2 0x81"], PALM.path(LED).read_text().splitlines())
        until_connected()
        until(lambda: other(CART)["version"] == VERSION and other(PALM)["compatible"] and not other(PALM)["requiresUpdate"],
              "the accessory's software fits")
        for on in (False, True):
            PALM.switch_link(on)
            until(lambda wanted=on: other(CART)["connected"] == wanted, f"the link is {'up' if on else 'down'}")


class Troubles(PairCase):
    def test_step_of_a_remote_install_that_fails_is_told_and_the_next_one_works(self) -> None:
        build_package()
        begin = len(CART.log)
        nobody = gateway.post("remoteinstall", {"serialNumber": "PM-999999", "deviceModel": "QMD"}, CART.gateway)[1]
        self.assertFalse(nobody["messages"][0]["bSuccess"])
        self.assertIn("Unable to find the QM host name", CART.log[begin:])
        self.assertNotIn("Execute: ", CART.log[begin:])
        for trouble, told, logged in (
                (led_broken, "its LED can't be set: Error: Could not write", "Unable to set LED on remote machine"),
                (folder_in_the_way, "the package could not be copied", "Make directory result FAILURE"),
                (locked_out_after_the_copy, "the installer could not be started on the accessory", "Progress copy 100 %"),
                (slots_in_use, "another install is running", "Install ERROR exit progress loop")):
            with self.subTest(trouble.__name__):
                begin = len(CART.log)
                with trouble():
                    self.assert_ended(1, told, arborctl(CART, *REMOTE_INSTALL))
                self.assertIn(logged, CART.log[begin:])
        self.assert_remote_install_works()

    def test_copy_that_breaks_off_with_the_cable_ends_and_the_next_one_works(self) -> None:
        build_package()
        with stuck_copy() as process:
            PALM.switch_link(False)
            done = ended(process)
            PALM.switch_link(True)
        self.assert_ended(1, "the package could not be copied", done)
        # The copying program may keep what it had got, under the package's own name.
        self.assertFalse(CARRIED.exists() and CARRIED.read_bytes() == BUILT.read_bytes(), "a part was carried")
        until(lambda: CART.run("ssh", f"root@{PALM.station.address}", "true").returncode == 0, "the accessory is reached again")
        self.assert_remote_install_works()

    def test_accessory_that_vanishes_mid_transfer_is_told_and_the_next_transfer_works(self) -> None:
        let_in(PALM, CART)
        let_in(CART, PALM)
        until_connected()
        build_package()
        begin, size = len(CART.log), BUILT.stat().st_size
        os.truncate(BUILT, 1 << 30)  # long enough to be under way for a while
        with running(*TRANSFER) as process:
            until(lambda: "Install File Transfer" in CART.log[begin:], "the transfer is under way")
            PALM.run("kill", "-KILL", PALM.path(paths.HOST_PID).read_text()).check_returncode()
            self.assert_ended(1, SERIAL, ended(process))
        self.assertFalse(other(CART)["connected"])
        os.truncate(BUILT, size)
        PALM.run("reboot").check_returncode()
        until_connected()
        self.assert_ended(0, "done", arborctl(CART, *TRANSFER))
        self.assertEqual(BUILT.read_bytes(), CARRIED.read_bytes())
        self.assertEqual("", "".join(path.name for path in CARRIED.parent.iterdir() if path != CARRIED))


class Trust(PairCase):
    def test_leaked_key_is_withdrawn_on_both_by_plugging_in_a_stick(self) -> None:
        let_in(PALM, CART)
        let_in(CART, PALM)
        office = Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, office)
        keys, document, officer = stock.ensure() / "keys", office / "arbor-trust.json", new_keys("officer", office)
        arbor_pkg("trust", "init", document)
        arbor_pkg("trust", "add-key", document, "--key", officer / "cert.pem", "--role", "trust")
        arbor_pkg("trust", "add-key", document, "--key", keys / "cert.pem", "--role", "release")
        arbor_pkg("trust", "sign", document, "--key", officer / "key.pem")
        for device in (CART, PALM):
            shutil.copy(document, device.path(paths.TRUST))
        build_package()
        until_connected()
        self.assert_ended(0, "done", arborctl(CART, *TRANSFER))
        until(lambda: VERSION in gateway.updates(PALM.gateway), "the accessory offers what was carried")

        arbor_pkg("trust", "remove-key", document, keys / "cert.pem")
        arbor_pkg("trust", "add-key", document, "--key", new_keys("new", office) / "cert.pem", "--role", "release")
        arbor_pkg("trust", "sign", document, "--key", officer / "key.pem")
        PALM.plug(document)
        until(lambda: gateway.updates(PALM.gateway) == [], "the accessory withdraws it")
        done = arborctl(PALM, "install", VERSION, "--wait")
        self.assertEqual(1, done.returncode, done.stdout)
        # What gets there by another way is refused by the installer itself: it asks the same documents.
        carried = PALM.run(str(shutil.copy(BUILT, office)), f"--dir={paths.ARCHIVE}", "--no-reboot")
        self.assertEqual(1, carried.returncode, carried.stdout)
        self.assertIn("not trusted", carried.stdout)
        CART.plug(document)
        until(lambda: gateway.post("trust", at=CART.gateway)[1]["number"] == 2, "the host follows it too")
        self.assertEqual("3.044", installed(PALM))
