"""A host that boots 50 seconds before its plan: the whole of a day's chain, waited for."""

import pathlib
import shutil
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host
import systemd_host
import volorn_units as units
from systemd_host import run, waitFor


HALF_MINUTE_US = 30_000_000  # up to which before its plan a start counts as on time


def planAhead(seconds):
    """With yesterday's snapshot, and no job yet."""
    date = float(int(time.time()) + seconds - host.REFERENCE_DATE)
    host.editState("UPDATE preference SET value = value - 1 WHERE key = 'lastLogDumpedDaySince1970'",
                   f"UPDATE preference SET value = {date} WHERE key = 'nextPlannedWakeupTime'",
                   "DELETE FROM job")
    for path in (host.STATE, *host.STATE.iterdir()):
        shutil.chown(path, "volorn", "volorn")


def prepare():
    units.install()
    run(host.VOLORND)
    planAhead(50)


class PlanTest(units.Test):
    def beforeThePlan(self):
        """The state that a start has left which came too early for its plan: that of the boot, but on a machine that
        is slow to boot one of ours."""
        for seconds_ahead in (60, 120, 240):
            self.assertTrue(waitFor(lambda: units.started() and not units.active()))
            state = host.readState()
            date = units.microseconds(state.preferences["nextPlannedWakeupTime"])
            if units.started() < date - HALF_MINUTE_US and len(state.snapshots) == 1:
                return state
            run("systemctl", "stop", "volorn.timer", check=False, stderr=subprocess.DEVNULL)
            host.restore({})
            run(host.VOLORND)
            planAhead(seconds_ahead)
            run("systemctl", "start", "volorn.service")
        return self.fail("no start came in time")

    def testStartsAtThePlan(self):
        before = self.beforeThePlan()
        plan = before.preferences["nextPlannedWakeupTime"]
        self.assertEqual(before.jobs, {host.JOB: (plan, plan + 7 * host.DAY_SECONDS)})
        self.assertTimerAt(lambda: units.microseconds(plan))
        self.assertIn("wakeupstatus was wakeupstatus too early", units.journal("volornd"))
        self.assertEqual(len(before.snapshots), 1)

        self.assertTrue(waitFor(lambda: units.started() >= units.microseconds(plan)))
        late_us = units.started() - units.microseconds(plan)
        self.assertLess(late_us, HALF_MINUTE_US)
        print(f"started {late_us} microseconds after the plan")
        self.assertTrue(units.settled())
        self.assertEqual(units.journal("volornd", units.microseconds(plan)), ["WTD job already exists"])
        host.Test.checkRun(self, before, host.readState())
        self.assertTimerAt(units.row)


if __name__ == "__main__":
    systemd_host.main(prepare)
