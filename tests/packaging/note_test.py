"""The marks that systemd and a real udev have taken, with a device that is there in the place of the supplies."""

import os
import pathlib
import subprocess
import time

import host
import systemd_host
import volorn_units as units
from host import waitFor
from systemd_host import run
from volorn_units import shows, systemctl

RULE = pathlib.Path("/lib/udev/rules.d/60-volorn.rules")
UEVENT = pathlib.Path("/sys/class/mem/null/uevent")
HEARS = pathlib.Path("/run/hears.py")
SEEN = pathlib.Path("/run/seen")
SUPPLIES = pathlib.Path("/sys/class/power_supply")
FLAPS = int(os.environ.get("VOLORN_FLAPS", "50"))


def prepare():
    units.install()
    text = RULE.read_text().replace('SUBSYSTEM!="power_supply"', 'KERNEL!="null"')
    stand_in = f'KERNEL=="null", IMPORT{{file}}="{SEEN}"\n'
    pathlib.Path("/etc/udev/rules.d").mkdir(exist_ok=True)
    pathlib.Path("/etc/udev/rules.d/61-stand-in.rules").write_text(stand_in + text)


def put(file, text):
    """No reader meets half of it."""
    draft = SUPPLIES / f"{file}.new"
    draft.write_text(text)
    draft.rename(SUPPLIES / file)


def change(online, status=None):
    put("AC/online", str(online))
    put("BAT0/status", status or ("Charging" if online else "Discharging"))
    SEEN.write_text(f"POWER_SUPPLY_ONLINE={online}\n")
    UEVENT.write_text("change")


def starts():
    return len([line for line in units.journal("systemd") if "Starting volorn-note.service" in line])


class NoteTest(units.Test):
    @classmethod
    def setUpClass(cls):
        # systemd leaves /sys alone where it cannot write it, and so would udev.
        run("mount", "-o", "remount,rw", "/sys")
        run("mount", "-t", "tmpfs", "supplies", str(SUPPLIES))
        for name, kind in (("AC", "Mains"), ("BAT0", "Battery")):
            (SUPPLIES / name).mkdir()
            (SUPPLIES / name / "type").write_text(kind)
        cls.udev = subprocess.Popen(["/lib/systemd/systemd-udevd"])
        cls.addClassCleanup(lambda: (cls.udev.kill(), cls.udev.wait()))

    def assertCalm(self):
        run("udevadm", "settle")
        self.assertComesTrue(lambda: not systemctl("list-jobs --no-legend volorn-note.service"))
        self.assertComesTrue(lambda: shows("volorn-note.service", "ActiveState") == "inactive")
        self.assertEqual(shows("volorn-note.service", "Result"), "success")

    def testShippedRule(self):
        told = run("udevadm", "test", "/sys/class/mem/null", stderr=subprocess.STDOUT)
        self.assertEqual(
            [line for line in told.splitlines() if RULE.name in line], [f"Reading rules file: /usr{RULE}"]
        )

    def testOnlyAChangeStartsAMark(self):
        self.assertEqual(shows("volorn-note-boot.service", "ActiveState"), "active")
        before = starts()
        self.assertTrue(waitFor(lambda: [change(1, "Full"), time.sleep(0.1), starts() > before][-1], 60))
        for _ in range(50):
            change(1, "Full")
        run("udevadm", "settle")
        self.assertEqual(starts(), before + 1)
        self.assertComesTrue(lambda: (books := host.books()) and books.fully_charged_once)
        began = time.monotonic()
        for number in range(FLAPS):
            change(number % 2)
            time.sleep(0.2)
        change(0)
        self.assertCalm()
        calm = time.monotonic()
        self.assertLessEqual(starts() - before - 1, (calm - began) / 10 + 1)
        flapped = host.books()
        self.assertEqual((flapped.plugged_in, flapped.standby), (0, 0), units.journal("waketide"))
        self.assertLessEqual(flapped.usage / 1e9, calm - began)
        time.sleep(2)
        change(1)
        self.assertCalm()
        pulled = host.books()
        self.assertEqual((pulled.plugged_in, pulled.standby), (1, 0))
        self.assertEqual(pulled.usage - flapped.usage, pulled.monotonic - flapped.monotonic)
        self.assertGreaterEqual(pulled.usage / 1e9, 2)
        before = starts()
        UEVENT.write_text("remove")
        self.assertComesTrue(lambda: starts() == before + 1)
        self.assertNotIn("lost", "".join(units.journal("waketide")))

    def testHearsTheKernelInItsSandbox(self):
        HEARS.write_text(
            "import socket\n"
            "kernel = socket.socket(socket.AF_NETLINK, socket.SOCK_DGRAM, 15)\n"
            "kernel.bind((0, 1))\n"
            "while b'SUBSYSTEM=mem' not in kernel.recv(8192): pass\n"
        )
        self.addCleanup(units.reset, {})
        units.dropIn(
            "volorn-note.service", *units.instead(f"/usr/bin/python3 {HEARS}"), "TimeoutStartSec=60s"
        )
        systemctl("start --no-block volorn-note.service")
        self.assertTrue(waitFor(lambda: shows("volorn-note.service", "MainPID") != "0", 60))
        self.assertTrue(
            waitFor(
                lambda: [change(0), time.sleep(0.5), shows("volorn-note.service", "ActiveState")][-1]
                == "inactive",
                90,
            )
        )
        self.assertEqual(shows("volorn-note.service", "Result"), "success")

    def testSlowBoot(self):
        """Which takes longer than the mark."""
        self.addCleanup(units.reset, {})
        units.dropIn("volorn-note-boot.service", "ExecStartPre=/bin/sleep 7")
        systemctl("restart volorn-note-boot.service")

    def testShutdown(self):
        systemctl("stop volorn-note-boot.service")
        self.assertEqual(shows("volorn-note-boot.service", "Result"), "success")


if __name__ == "__main__":
    systemd_host.main(prepare)
