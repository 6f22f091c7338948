"""volorn.service and the units around it on a booted host: how tests install, ask, change and reset them."""

import pathlib
import subprocess
import unittest

import host
import systemd_host
from host import waitFor
from systemd_host import run

DROP_INS = pathlib.Path("/run/systemd/system")
RECORD = pathlib.Path("/run/waketide/arm.record")
SERVICES = ("volorn.service", "volorn-arm.service", "volorn-guard.service")

MANAGER = "org.freedesktop.systemd1"


def install():
    """As `cmake --install` and an administrator do."""
    run("cmake", "--install", str(systemd_host.BUILD))
    run("systemd-sysusers", "volorn.conf", stderr=subprocess.DEVNULL)
    systemctl(
        "enable volorn.service volorn-guard.timer volorn-note-boot.service volorn-note-sleep.service",
        stderr=subprocess.DEVNULL,
    )


def timeOf(unit, interface, name):
    """Microseconds since 1970; 0 for never."""
    path = "/org/freedesktop/systemd1/unit/" + unit.replace("-", "_2d").replace(".", "_2e")
    value = int(run("busctl", "get-property", MANAGER, path, f"{MANAGER}.{interface}", name).split()[1])
    return 0 if value == 2**64 - 1 else value


def elapse():
    """When volorn.timer starts the daemon next."""
    return timeOf("volorn.timer", "Timer", "NextElapseUSecRealtime")


def started():
    """When the daemon's service was started last."""
    return timeOf("volorn.service", "Unit", "InactiveExitTimestamp")


def microseconds(date):
    return round((date + host.REFERENCE_DATE) * 1e6)


def row():
    """When the window in the job table opens; nothing while there is no row."""
    window = host.readState().jobs.get(host.JOB)
    return window and microseconds(window[0])


def nextMidnight(time_us):
    day_us = host.DAY_SECONDS * 1_000_000
    return (time_us // day_us + 1) * day_us


def active():
    """Those of the services that are at work, or wait to be."""
    at_work = "list-units --plain --no-legend --state=activating,deactivating,active"
    return systemctl(f"{at_work} {' '.join(SERVICES)}") + systemctl("list-jobs --no-legend")


def shows(unit, name):
    return run("systemctl", "show", f"-P{name}", unit).strip()


def systemctl(words, **options):
    """The words of a command, which is to succeed."""
    return run("systemctl", *words.split(), **options)


def stopTimer():
    systemctl("stop volorn.timer", check=False, stderr=subprocess.DEVNULL)


def dropIn(unit, *lines):
    folder = DROP_INS / f"{unit}.d"
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "test.conf").write_text("\n".join(["[Service]", *lines, ""]))
    systemctl("daemon-reload")


def instead(command):
    return ("ExecStart=", f"ExecStart={command}")


def journal(identifier, since_us=0):
    since = f"--since=@{since_us / 1e6:.6f}"
    return run("journalctl", "--quiet", "--output=cat", f"--identifier={identifier}", since).splitlines()


def reset(files):
    """The state file with these files, the units as installed, the timer at the row, and nothing at work."""
    systemctl("stop --quiet volorn.service volorn-guard.service")
    systemctl("stop --quiet volorn-arm.service")
    for folder in DROP_INS.glob("volorn*.d"):
        (folder / "test.conf").unlink()
        folder.rmdir()
    systemctl("daemon-reload")
    systemctl("reset-failed")
    host.restore(files, owner="volorn")
    for path in host.STATE.iterdir():
        path.chmod(0o600 if path.name == "volorn.lock" else 0o640)
    systemctl("start volorn-guard.service")


class Test(unittest.TestCase):
    maxDiff = None
    checkRun = host.Test.checkRun

    def assertComesTrue(self, condition):
        self.assertTrue(
            waitFor(condition),
            f"{elapse()} is when the timer elapses; at work: {active()!r}\n"
            + run("journalctl", "--quiet", "--output=short-precise", "--lines=40"),
        )

    def assertTimerAt(self, time_us):
        """What `time_us` gives, once nothing is at work any more: until then there may be no row, or no file."""
        self.assertComesTrue(lambda: not active() and elapse() == time_us())
