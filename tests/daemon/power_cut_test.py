"""The power fails at every step of a run of volornd: whatever the disk then holds, the next run makes the best of it.

Real runs are recorded, call by call, and images of what the disk may hold after each are opened by a run of the real
daemon.

VOLORN_POWER_CUT_IMAGES says how many for each call; 40 take some minutes.
"""

import dataclasses
import os

import host
import power_cut

IMAGES = int(os.environ.get("VOLORN_POWER_CUT_IMAGES", "3"))


@dataclasses.dataclass
class Recording:
    what: str
    files: dict  # that the run found
    calls: list
    before: host.State
    after: host.State
    spoilt: bytes = None  # the state file, when it is one to be set aside

    def images(self, syncs, seed):
        """Each as (what was cut where, files, whether the run was committed)."""
        attempts = IMAGES if syncs else IMAGES // 10 + 1
        for where, image, committed in power_cut.images(
            self.calls, self.files, attempts, f"{seed} {self.what}", syncs
        ):
            yield f"{self.what}, {where}", image, committed


def record(test, what, files, spoilt=None):
    host.restore(files)
    before = host.State() if spoilt else host.readState()
    host.restore(files)  # as it was before what reading it may have rolled back
    test.runDaemon(host.traced([*power_cut.TRACING, host.VOLORND]))
    return Recording(what, files, power_cut.tracedCalls(), before, host.readState(), spoilt)


def openImage(where, image, recording, committed):
    """The next run on it."""
    test = host.Test()
    host.restore(image)
    log = test.runDaemon()
    state = host.readState()
    if state.snapshots == recording.after.snapshots:
        for name in ("nextPlannedWakeupTime", "lastLogDumpedDaySince1970"):
            test.assertEqual(state.preferences[name], recording.after.preferences[name])
        test.assertEqual(state.jobs, recording.after.jobs)
        test.assertIn(host.HAS_ONE, log)
    else:
        test.assertFalse(committed, "a day that was committed is lost")
        test.checkRun(recording.before, state)
    if recording.spoilt:
        test.assertIn(recording.spoilt, host.save().values())
    else:
        test.assertNotIn("state file", " ".join(log))
        test.assertEqual(list(host.STATE.glob("*damaged*")), [])


class PowerCutTest(host.Test):
    def recordings(self):
        yesterday = self.makeStateOf(2)
        host.restore(yesterday)
        self.runDaemon()
        host.age(2)
        host.editState(*host.TO_FIRST_VERSION)
        older = host.save()
        spoilt = yesterday["volorn.db"][:4096] + os.urandom(len(yesterday["volorn.db"]) - 4096)
        first = [
            record(self, "no folder", None),
            record(self, "empty folder", {}),
            record(self, "one day", yesterday),
            record(self, "upgrade", older),
            record(self, "damaged", {**yesterday, "volorn.db": spoilt}, spoilt),
        ]
        # A run that was cut off when all of it but the end of the transaction was on the disk, and is taken back.
        cut_off = power_cut.Folder(older)
        calls = first[3].calls
        last_write = max(number for number, call in enumerate(calls) if call[0] == "pwrite64")
        for call in calls[:last_write]:
            cut_off.take(*call)
        files = {name: inode.versions[-1] for name, inode in cut_off.entries.items()}
        self.assertNotEqual(files["volorn.db-journal"][:8], bytes(8), "a journal to be rolled back")
        return [*first, record(self, "after a cut", files)]

    def testEveryImageACutMayLeave(self):
        recordings = self.recordings()
        for syncs in (True, False):
            tries = [
                (where, image, recording, committed)
                for recording in recordings
                for where, image, committed in recording.images(syncs, host.today())
            ]
            failures = [failure for _, failure in host.tryAll(openImage, tries) if failure]
            print(f"{len(tries)} images, {len(failures)} failures{'' if syncs else ' without syncs'}")
            if syncs:
                self.assertEqual(len(failures), 0, "\n".join(failures[:5]))
                self.assertGreater(len(tries), 50 * IMAGES)
            else:
                self.assertGreater(len(failures), len(tries) // 20, "a simulator that proves nothing")


if __name__ == "__main__":
    host.main()
