"""The Debian package over its whole life on a booted host."""

import os
import pathlib
import subprocess

import host
import systemd_host
import volorn_units as units
from systemd_host import run
from volorn_units import systemctl

PACKAGES = pathlib.Path("/var/tmp/volorn-package")
ENABLED = {
    "/etc/systemd/system/multi-user.target.wants/volorn.service",
    "/etc/systemd/system/multi-user.target.wants/volorn-note-boot.service",
    "/etc/systemd/system/sleep.target.wants/volorn-note-sleep.service",
    "/etc/systemd/system/timers.target.wants/volorn-guard.timer",
}
# Of dpkg, of its triggers, and of those who are at work all the time, on the machine itself as well.
OTHERS = "/var/tmp/ /var/lib/dpkg/ /var/log/ /var/cache/ /run/log/ /run/systemd/ /etc/.pwd.lock".split()
# A user's number is never given to another, so the user stays.
USERS = {f"/etc/{name}{old}" for name in ("passwd", "group", "shadow", "gshadow") for old in ("", "-")}


# Of node exporter, with the link to the export.
TEXTFILES = pathlib.Path("/var/lib/prometheus/node-exporter")
LINK = TEXTFILES / "volorn.prom"


def prepare():
    TEXTFILES.mkdir(parents=True, exist_ok=True)
    configuration = f"{systemd_host.BUILD}/CPackConfig.cmake"
    run("cpack", "--config", configuration, "-B", str(PACKAGES), stderr=subprocess.DEVNULL)


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
                try:
                    status = os.lstat(path)
                except FileNotFoundError:  # gone since it was listed
                    continue
                size = 0 if os.path.isdir(path) else status.st_size
                found[path] = (status.st_mode, status.st_uid, status.st_gid, size)
    return {path: what for path, what in found.items() if not path.startswith(tuple(OTHERS))}


def enabled():
    return {path for path in ENABLED if os.path.lexists(path)}


class PackageTest(units.Test):
    def assertChainGoesOn(self):
        self.assertComesTrue(host.FILE.exists)
        self.assertTimerAt(units.row)

    def assertNothingStarts(self):
        self.assertEqual(systemctl("list-units --plain --no-legend volorn*"), "")
        self.assertEqual(units.active(), "")

    def testWholeLife(self):
        before = files()
        install()
        self.assertChainGoesOn()
        first = host.readState()
        self.checkRun(host.State(), first)
        self.assertEqual(units.journal("volornd")[:2], host.NEW)
        self.assertEqual(enabled(), ENABLED)
        self.assertTrue(LINK.read_text().endswith("# EOF\n"))

        with self.subTest("node exporter is installed later"):
            LINK.unlink()
            run("dpkg-trigger", "--by-package=prometheus-node-exporter", str(TEXTFILES))
            dpkg("--triggers-only", "volorn")
            self.assertTrue(LINK.is_file())
        with self.subTest("upgraded"):
            systemctl("stop volorn.timer")
            install()
            self.assertChainGoesOn()
            self.assertEqual(host.readState().snapshots, first.snapshots)
        with self.subTest("upgraded where somebody has disabled it"):
            systemctl("disable volorn.service", stderr=subprocess.DEVNULL)
            install()
            self.assertEqual(enabled(), {path for path in ENABLED if not path.endswith("/volorn.service")})
            systemctl("enable volorn.service", stderr=subprocess.DEVNULL)
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
