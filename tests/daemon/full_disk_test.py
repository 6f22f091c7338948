"""volornd on a disk that others have filled to the last byte, day after day.

VOLORN_FULL_DISK_DAYS says how many days, on a disk of ext4 then and no other; a year takes a minute.
"""

import contextlib
import datetime
import os
import pathlib
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host

DAYS = int(os.environ.get("VOLORN_FULL_DISK_DAYS", "20"))
NOON = 794059200.0  # 1 March 2026, in seconds since the reference date
DISK_BYTES = 8 << 20
DISK = host.LIB / "disk"
EXPORT = host.LIB / "export" / "volorn.prom"
REALTIME_ALONE = {**os.environ, "FAKETIME_DONT_FAKE_MONOTONIC": "1", "TZ": "UTC0"}
SNAPSHOTS_KEPT = 4000


def fakedTime(date):
    moment = datetime.datetime.fromtimestamp(date + host.REFERENCE_DATE, datetime.timezone.utc)
    return ["faketime", "-f", moment.strftime("%Y-%m-%d %H:%M:%S")]


def fill(path):
    """Takes every byte that the disk has left."""
    with open(path, "wb", buffering=0) as file:
        for size in (1 << 20, 4096, 1):
            with contextlib.suppress(OSError):
                while file.write(b"\xff" * size) == size:
                    pass
        os.fsync(file.fileno())


class FullDiskTest(host.Test):
    def setUp(self):
        super().setUp()
        with open(DISK, "wb") as file:
            file.truncate(DISK_BYTES)
        subprocess.run(["/sbin/mkfs.ext4", "-q", "-m", "0", str(DISK)], check=True)
        try:
            self.enterContext(host.mounted("-o", "loop", str(DISK), str(host.LIB)))
        except subprocess.CalledProcessError:  # no loop devices, or no right to them: memory is such a disk, too
            if "VOLORN_FULL_DISK_DAYS" in os.environ:
                raise
            print("on tmpfs: an ext4 cannot be mounted", file=sys.stderr)
            self.enterContext(host.mounted("-t", "tmpfs", "-o", f"size={DISK_BYTES}", "disk", str(host.LIB)))
        EXPORT.parent.mkdir()

    def runAt(self, date):
        log = self.runDaemon([*fakedTime(date), host.VOLORND], env=REALTIME_ALONE)
        self.assertNotIn("state file", " ".join(log))
        return host.readState()

    def export(self):
        done = subprocess.run([host.VOLORNCTL, "metrics", "--format", "openmetrics", "--output", str(EXPORT)],
                              stderr=subprocess.PIPE, text=True, timeout=120)
        return done.returncode

    def fillDisk(self):
        fill(host.LIB / "others")
        fill(EXPORT.parent / "others")
        with self.assertRaises(OSError):
            (host.LIB / "more").write_bytes(b"x")
        (host.LIB / "more").unlink(missing_ok=True)

    def checkDays(self, before, days, exported):
        for day in range(days):
            plan = before.preferences["nextPlannedWakeupTime"]
            after = self.runAt(plan)
            with self.subTest(day=day, plan=plan):
                before.snapshots = before.snapshots[max(0, len(before.snapshots) + 1 - SNAPSHOTS_KEPT):]
                self.checkRun(before, after)
                self.assertEqual(self.export(), 1)
                self.assertEqual(EXPORT.read_text(), exported)
            before = after
        return before

    def testEveryDayIsKept(self):
        before = self.runAt(NOON)
        self.assertEqual(self.export(), 0)
        exported = EXPORT.read_text()
        self.assertTrue(exported.endswith("\n# EOF\n"))
        self.fillDisk()
        last = self.checkDays(before, DAYS, exported)
        with self.subTest("a file that is set aside makes room for the next"):
            size = host.FILE.stat().st_size
            with open(host.FILE, "r+b") as file:
                file.write(os.urandom(size))
            log = self.runDaemon([*fakedTime(last.preferences["nextPlannedWakeupTime"]), host.VOLORND],
                                 env=REALTIME_ALONE)
            self.assertIn("set aside", " ".join(log))
            self.checkRun(host.State(), host.readState())
            self.assertEqual([path.stat().st_size for path in host.STATE.glob("volorn.db.damaged-*Z")], [size])

    def testTheOldestMakeRoom(self):
        before = self.runAt(NOON)
        metrics = "SELECT id, position, key_id, value FROM snapshot, metric WHERE id > 1 AND snapshot_id = 1"
        host.editState(f"INSERT INTO snapshot WITH RECURSIVE n(i) AS (VALUES (2) UNION ALL SELECT i + 1 FROM n "
                       f"WHERE i < {SNAPSHOTS_KEPT - 3}) SELECT i, {NOON} - 4e8 + i * 86400 FROM n",
                       f"INSERT INTO metric {metrics}")
        # The first run after those that came by hand gives the files their space again.
        before = self.runAt(before.preferences["nextPlannedWakeupTime"])
        self.assertEqual(self.export(), 0)
        exported = EXPORT.read_text()
        self.fillDisk()
        last = self.checkDays(before, 8, exported)
        self.assertEqual(len(last.snapshots), SNAPSHOTS_KEPT)


if __name__ == "__main__":
    host.main()
