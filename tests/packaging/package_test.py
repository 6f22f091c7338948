"""The Debian package over its whole life on a booted host."""

import os
import pathlib
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host
import systemd_host
import volorn_units as units
from systemd_host import run, waitFor

PACKAGES = pathlib.Path("/var/tmp/volorn-package")
ENABLED = {"/etc/systemd/system/multi-user.target.wants/volorn.service",
           "/etc/systemd/system/timers.target.wants/volorn-guard.timer"}
# Of dpkg, of its triggers, and of those who are at work all the time, on the machine itself as well.
OTHERS = ("/var/tmp/", "/var/lib/dpkg/", "/var/log/", "/var/cache/", "/run/log/", "/run/systemd/", "/etc/.pwd.lock")
# A user's number is never given to another, so the user stays.
USERS = {f"/etc/{name}{old}" for name in ("passwd", "group", "shadow", "gshadow") for old in ("", "-")}


# Of node exporter, with the link to the export.
TEXTFILES = pathlib.Path("/var/lib/prometheus/node-exporter")
LINK = TEXTFILES / "volorn.prom"


def prepare():
    TEXTFILES.mkdir(parents=True, exist_ok=True)
    run("cpack", "--config", f"{systemd_host.BUILD}/CPackConfig.cmake", "-B", str(PACKAGES), stderr=subprocess.DEVNULL)


def dpkg(*arguments):
    run("dpkg", *arguments, env={**os.environ, "DEBIAN_FRONTEND": "noninteractive"})


def install():
    dpkg("--install", *map(str, PACKAGES.glob("*.deb")))


def files():
    """Every file and what its name stands for."""
    found = {}
    for top in ("/etc", "/usr", "/var", "/run"):
        for folder, folders, names in os.walk(top):
            for name in folders + names:
                path = os.path.join(folder, name)
                if not path.startswith(OTHERS):
                    try:
                        status = os.lstat(path)
                    except FileNotFoundError:  # gone since it was listed
                        continue
                    found[path] = (status.st_mode, status.st_uid, status.st_gid,
                                   0 if os.path.isdir(path) else status.st_size)
    return found


def enabled():
    return {path for path in ENABLED if os.path.lexists(path)}


class PackageTest(units.Test):
    def assertChainGoesOn(self):
        self.assertTrue(waitFor(host.FILE.exists))
        self.assertTimerAt(units.row)

    def assertNothingStarts(self):
        self.assertEqual(run("systemctl", "list-units", "--plain", "--no-legend", "volorn*"), "")
        self.assertEqual(units.active(), "")

    def testWholeLife(self):
        before = files()
        install()
        self.assertChainGoesOn()
        first = host.readState()
        host.Test.checkRun(self, host.State(), first)
        self.assertEqual(enabled(), ENABLED)
        self.assertTrue(LINK.read_text().endswith("# EOF\n"))

        with self.subTest("node exporter is installed later"):
            LINK.unlink()
            run("dpkg-trigger", "--by-package=prometheus-node-exporter", str(TEXTFILES))
            dpkg("--triggers-only", "volorn")
            self.assertTrue(LINK.is_file())
        with self.subTest("upgraded"):
            run("systemctl", "stop", "volorn.timer")
            install()
            self.assertChainGoesOn()
            self.assertEqual(host.readState().snapshots, first.snapshots)
        with self.subTest("upgraded where somebody has disabled it"):
            run("systemctl", "disable", "volorn.service", stderr=subprocess.DEVNULL)
            install()
            self.assertEqual(enabled(), {path for path in ENABLED if path.endswith(".timer")})
            run("systemctl", "enable", "volorn.service", stderr=subprocess.DEVNULL)
        with self.subTest("removed"):
            dpkg("--remove", "volorn")
            self.assertNothingStarts()
            left = files().keys() - before.keys()
            self.assertEqual([path for path in left if path.startswith(("/usr/", "/run/", str(LINK)))], [])
            self.assertEqual(enabled(), ENABLED)
            self.assertEqual(host.readState().snapshots, first.snapshots)
        with self.subTest("installed again"):
            install()
            self.assertChainGoesOn()
            self.assertEqual(host.readState().snapshots, first.snapshots)
        with self.subTest("purged"):
            dpkg("--purge", "volorn")
            self.assertNothingStarts()
            after = files()
            changed = {path for path in before.keys() | after.keys() if before.get(path) != after.get(path)}
            self.assertEqual(changed - USERS, set())


if __name__ == "__main__":
    systemd_host.main(prepare)
