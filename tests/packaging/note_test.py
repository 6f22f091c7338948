"""The marks that systemd and a real udev have taken, with a device that is there in the place of the supplies."""

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


def prepare():
    units.install()
    text = RULE.read_text().replace('SUBSYSTEM!="power_supply"', 'KERNEL!="null"')
    stand_in = f'KERNEL=="null", IMPORT{{file}}="{SEEN}"\n'
    pathlib.Path("/etc/udev/rules.d").mkdir(exist_ok=True)
    pathlib.Path("/etc/udev/rules.d/60-volorn.rules").write_text(stand_in + text)


def change(online):
    SEEN.write_text(f"POWER_SUPPLY_ONLINE={online}\n")
    UEVENT.write_text("change")


def starts():
    return len([line for line in units.journal("systemd") if "Starting volorn-note.service" in line])


class NoteTest(units.Test):
    @classmethod
    def setUpClass(cls):
        # systemd leaves /sys alone where it cannot write it, and so would udev.
        run("mount", "-o", "remount,rw", "/sys")
        cls.udev = subprocess.Popen(["/lib/systemd/systemd-udevd"])
        cls.addClassCleanup(lambda: (cls.udev.kill(), cls.udev.wait()))

    def testShippedRule(self):
        self.assertIn(
            "60-volorn.rules", run("udevadm", "test", "/sys/class/mem/null", stderr=subprocess.STDOUT)
        )

    def testOnlyAChangeStartsAMark(self):
        self.assertEqual(shows("volorn-note-boot.service", "ActiveState"), "active")
        before = starts()
        self.assertTrue(waitFor(lambda: [change(1), time.sleep(0.1), starts() > before][-1], 60))
        for _ in range(50):
            change(1)
        run("udevadm", "settle")
        self.assertEqual(starts(), before + 1)
        began = time.monotonic()
        for number in range(50):
            change(number % 2)
            time.sleep(0.2)
        change(0)
        self.assertComesTrue(lambda: not systemctl("list-jobs --no-legend volorn-note.service"))
        self.assertComesTrue(lambda: shows("volorn-note.service", "ActiveState") == "inactive")
        self.assertLessEqual(starts() - before - 1, (time.monotonic() - began) / 10 + 1)
        self.assertEqual(shows("volorn-note.service", "Result"), "success")
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

    def testShutdown(self):
        systemctl("stop volorn-note-boot.service")
        self.assertEqual(shows("volorn-note-boot.service", "Result"), "success")


if __name__ == "__main__":
    systemd_host.main(prepare)
