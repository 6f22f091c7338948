"""A host that boots 40 seconds before its plan: the whole of a day's chain, waited for."""

import pathlib
import shutil
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host
import systemd_host
import volorn_units as units
from systemd_host import run, waitFor


def prepare():
    """Yesterday's snapshot, and a plan that is more than the half minute ahead which counts as on time."""
    units.install()
    run(host.VOLORND)
    plan = float(int(time.time()) + 40 - host.REFERENCE_DATE)
    host.editState("UPDATE preference SET value = value - 1 WHERE key = 'lastLogDumpedDaySince1970'",
                   f"UPDATE preference SET value = {plan} WHERE key = 'nextPlannedWakeupTime'",
                   "DELETE FROM job")
    for path in (host.STATE, *host.STATE.iterdir()):
        shutil.chown(path, "volorn", "volorn")


class PlanTest(units.Test):
    def testStartsAtThePlan(self):
        self.assertTrue(waitFor(units.elapse))
        before = host.readState()
        plan = before.preferences["nextPlannedWakeupTime"]
        self.assertEqual(before.jobs, {host.JOB: (plan, plan + 7 * host.DAY_SECONDS)})
        self.assertTimerAt(lambda: units.microseconds(plan))
        self.assertIn("wakeupstatus was wakeupstatus too early", units.journal("volornd"))
        self.assertEqual(len(before.snapshots), 1)

        self.assertTrue(waitFor(lambda: units.started() >= units.microseconds(plan), seconds=120))
        late_us = units.started() - units.microseconds(plan)
        self.assertLess(late_us, 1_000_000)
        print(f"started {late_us} microseconds after the plan")
        self.assertTrue(units.settled())
        self.assertEqual(units.journal("volornd", units.microseconds(plan)), ["WTD job already exists"])
        host.Test.checkRun(self, before, host.readState())
        self.assertTimerAt(units.row)


if __name__ == "__main__":
    systemd_host.main(prepare)
