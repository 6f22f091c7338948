"""volornd on a disk that others have filled to the last byte, day after day.

VOLORN_FULL_DISK_DAYS says how many days, on a disk of ext4 then and no other; a year takes a minute.
"""

import contextlib
import os
import subprocess
import sys

import host

DAYS = int(os.environ.get("VOLORN_FULL_DISK_DAYS", "20"))
NOON = 794059200.0  # 1 March 2026, in seconds since the reference date
DISK_BYTES = 8 << 20
DISK = host.LIB / "disk"
SNAPSHOTS_KEPT = 4000


class FullDiskTest(host.Test):
    def setUp(self):
        super().setUp()
        with open(DISK, "wb") as file:
            file.truncate(DISK_BYTES)
        subprocess.run(["/sbin/mkfs.ext4", "-q", "-m", "0", str(DISK)], check=True)
        try:
            self.enterContext(host.mounted("-o", "loop", str(DISK), str(host.LIB)))
        except (
            subprocess.CalledProcessError
        ):  # no loop devices, or no right to them: memory is such a disk, too
            if "VOLORN_FULL_DISK_DAYS" in os.environ:
                raise
            print("on tmpfs: an ext4 cannot be mounted", file=sys.stderr)
            self.enterContext(host.mounted("-t", "tmpfs", "-o", f"size={DISK_BYTES}", "disk", str(host.LIB)))
        self.runAt(NOON)

    def fillDisk(self):
        with open(host.LIB / "others", "wb", buffering=0) as file:
            for size in (1 << 20, 4096, 1):
                with contextlib.suppress(OSError):
                    while file.write(b"\xff" * size) == size:
                        pass
            os.fsync(file.fileno())
        with self.assertRaises(OSError):
            (host.LIB / "more").write_bytes(b"x")
        (host.LIB / "more").unlink(missing_ok=True)

    def checkDays(self, days):
        """The state after that many on a full disk."""
        self.fillDisk()
        before = host.readState()
        for day in range(days):
            plan = before.preferences["nextPlannedWakeupTime"]
            log = self.runAt(plan)
            after = host.readState()
            with self.subTest(day=day, plan=plan):
                self.assertNotIn("state file", " ".join(log))
                before.snapshots = before.snapshots[max(0, len(before.snapshots) + 1 - SNAPSHOTS_KEPT) :]
                self.checkRun(before, after)
            before = after
        return before

    def testEveryDayIsKept(self):
        last = self.checkDays(DAYS)
        with self.subTest("a file that is set aside makes room for the next"):
            spoilt = os.urandom(host.FILE.stat().st_size)
            with open(host.FILE, "r+b") as file:
                file.write(spoilt)
            self.assertIn("set aside", " ".join(self.runAt(last.preferences["nextPlannedWakeupTime"])))
            self.checkRun(host.State(), host.readState())
            self.assertEqual(host.setAside(), [spoilt])

    def testTheOldestMakeRoom(self):
        held_bytes = host.FILE.stat().st_blocks * 512
        host.editState(
            f"INSERT INTO snapshot WITH RECURSIVE n(i) AS (VALUES (2) UNION ALL SELECT i + 1 FROM n "
            f"WHERE i < {SNAPSHOTS_KEPT - 3}) SELECT i, {NOON} - 4e8 + i * 86400 FROM n",
            "INSERT INTO metric SELECT id, position, key_id, value FROM snapshot, metric "
            "WHERE id > 1 AND snapshot_id = 1",
        )
        # The first run after those that came by hand gives the files their space again.
        self.runAt(host.readState().preferences["nextPlannedWakeupTime"])
        self.assertEqual(len(self.checkDays(8).snapshots), SNAPSHOTS_KEPT)
        self.assertGreaterEqual(held_bytes, host.FILE.stat().st_size, "held from the first day on")


if __name__ == "__main__":
    host.main()
