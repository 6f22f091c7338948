"""volorn.service and the units around it on a booted host: how tests install, ask, change and reset them."""

import pathlib
import subprocess
import time
import unittest

import host
import systemd_host
from systemd_host import run, waitFor

DROP_INS = pathlib.Path("/run/systemd/system")
RECORD = pathlib.Path("/run/waketide/arm.record")
SERVICES = ("volorn.service", "volorn-arm.service", "volorn-guard.service")

MANAGER = "org.freedesktop.systemd1"


def install():
    """As `cmake --install` and an administrator do."""
    run("cmake", "--install", str(systemd_host.BUILD))
    run("systemd-sysusers", "volorn.conf", stderr=subprocess.DEVNULL)
    run("systemctl", "enable", "volorn.service", "volorn-guard.timer", stderr=subprocess.DEVNULL)


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
    """When the window in the job table opens."""
    return microseconds(host.readState().jobs[host.JOB][0])


def nextMidnight(time_us):
    day_us = host.DAY_SECONDS * 1_000_000
    return (time_us // day_us + 1) * day_us


def active():
    """Those of the services that are at work, or wait to be."""
    return run("systemctl", "list-units", "--plain", "--no-legend", "--state=activating,deactivating,active",
               *SERVICES) + run("systemctl", "list-jobs", "--no-legend")


def keepOffMidnight():
    """A row that stays open is started again then."""
    if (left := host.DAY_SECONDS - time.time() % host.DAY_SECONDS) < 300:
        time.sleep(left + 1)


def settled():
    return waitFor(lambda: not active())


def timerStandsAt(time_us):
    """What `time_us` gives, once nothing is at work any more; for messages, False otherwise."""
    return waitFor(lambda: elapse() == time_us() and not active())


def dropIn(unit, *lines):
    folder = DROP_INS / f"{unit}.d"
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "test.conf").write_text("\n".join(["[Service]", *lines, ""]))
    run("systemctl", "daemon-reload")


def instead(command):
    return ("ExecStart=", f"ExecStart={command}")


def journal(identifier, since_us=0):
    return run("journalctl", "--quiet", "--output=cat", f"--identifier={identifier}",
               f"--since=@{since_us / 1e6:.6f}").splitlines()


def reset(files):
    """The state file with these files, the units as installed, the timer at the row, and nothing at work."""
    run("systemctl", "stop", "--quiet", "volorn.service", "volorn-guard.service")
    run("systemctl", "stop", "--quiet", "volorn-arm.service")
    for folder in DROP_INS.glob("volorn*.d"):
        (folder / "test.conf").unlink()
        folder.rmdir()
    run("systemctl", "daemon-reload")
    run("systemctl", "reset-failed")
    host.restore(files, owner="volorn")
    for path in host.STATE.iterdir():
        path.chmod(0o600 if path.name == "volorn.lock" else 0o640)
    run("systemctl", "start", "volorn-guard.service")


class Test(unittest.TestCase):
    maxDiff = None

    def assertTimerAt(self, time_us):
        self.assertTrue(timerStandsAt(time_us), f"{elapse()} is not {time_us()}; at work: {active()!r}\n" +
                        run("journalctl", "--quiet", "--output=short-precise", "--lines=40"))
