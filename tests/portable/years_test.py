"""volornd and volornctl in years that times of 32 bits do not reach."""

import datetime
import json
import os

import host

STARTS = ("2038-01-17T12:00:00", "2038-01-19T03:14:08", "2038-01-21T00:00:00", "2100-03-01T23:59:59")


def at(second, program, *arguments):
    """Status, standard output and standard error of a program whose clock stands there."""
    clock = {**os.environ, "VOLORN_TEST_CLOCK": str(second), "TZ": "UTC0"}
    return host.run(str(host.PROGRAMS / f"{program}_in_any_year"), *arguments, env=clock)


class YearsTest(host.Test):
    def testEachStartTakesASnapshotAndAllAreShown(self):
        taken = []
        for text in STARTS:
            second = int(datetime.datetime.fromisoformat(text + "+00:00").timestamp())
            status, _, log = at(second, "volornd")
            self.assertEqual((status, log.splitlines()), (0, host.LATE if taken else host.NEW), text)
            taken.append(text + "Z")
            self.assertEqual(host.readState().snapshots[-1][0] + host.REFERENCE_DATE, second)
            plan = host.readState().preferences["nextPlannedWakeupTime"] + host.REFERENCE_DATE
            next_day = (second // host.DAY_SECONDS + 1) * host.DAY_SECONDS
            self.assertLess((plan - next_day) % 2**32, host.DAY_SECONDS, text)  # 32 bits that wrap
            self.assertTrue(-(2**31) <= plan < 2**31, text)
            for path in (host.STATE, *host.STATE.iterdir()):  # as the kernel would have it in that year
                os.utime(path, (second, second))
            status, output, errors = at(second, "volornctl", "status", "--json")
            self.assertEqual((status, errors), (0, ""), text)
            self.assertEqual(json.loads(output)["lastSnapshotAt"], taken[-1])
            self.assertEqual(json.loads(output)["verdict"], "fine", text)
        shown = json.loads(at(second, "volornctl", "history", "--json")[1])["snapshots"]
        self.assertEqual([snapshot["takenAt"] for snapshot in shown], taken)


if __name__ == "__main__":
    host.main()
