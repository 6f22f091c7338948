"""volornd killed at every one of its system calls that change anything: the file holds the whole run or nothing of it."""

import fcntl

import host

# Who owns the folder that root's run finds, and carries on in it afterwards.
OWNERS = [0, host.OTHER_USER] if host.HAS_OTHER_USERS else [0]


def tryKill(start, files, owner, name, ordinal):
    """Whether the run was killed, which how often memory is asked for decides, and whether it was kept whole."""
    test = host.Test()
    host.restore(files, owner)
    before = host.readState()
    killed = host.killedAt([host.VOLORND], name, ordinal)
    kept = host.readCopy(host.save())
    whole = test.isWholeRun(before, kept)
    log = test.runAs(owner)
    test.assertNotIn("state file", " ".join(log))
    after = host.readState()
    if whole:
        test.assertEqual(after.snapshots, kept.snapshots)
        test.assertIn(host.HAS_ONE, log)
    else:
        test.checkRun(before, after)
    test.assertEqual(host.owners(), {(owner, owner)})
    test.assertLessEqual(set(host.save()), {"volorn.db", "volorn.db-journal", "volorn.lock"})
    return start, killed, whole


class KillTest(host.Test):
    def testKilledAtEveryCall(self):
        starts = [("no folder", None, 0)]
        yesterday = self.makeStateOf(2)
        for owner in OWNERS:
            starts.append((f"empty folder of {owner}", {}, owner))
            starts.append((f"state of yesterday of {owner}", yesterday, owner))
        host.restore(yesterday)
        host.editState(*host.TO_FIRST_VERSION)
        starts.append(("state of the first version", host.save(), 0))
        kills = []
        for start in starts:
            host.restore(*start[1:])
            self.runDaemon(host.traced([host.VOLORND]))
            calls = list(host.tracedCalls(host.CHANGING))
            self.assertGreater(len(calls), 50, "a trace of a whole run")
            kills += [(*start, *call) for call in calls]
        results = host.tryAll(tryKill, kills)
        failures = [failure for _, failure in results if failure]
        self.assertEqual(len(failures), 0, "\n".join(failures[:5]))
        # Nearly every kill met its call, and there were kills before the commit and after it.
        met = [(start, whole) for (start, killed, whole), _ in results if killed]
        self.assertGreater(len(met), 0.9 * len(results))
        self.assertEqual(set(met), {(start[0], whole) for start in starts for whole in (False, True)})

    def runHurried(self):
        """A thousand times as fast, so that waiting costs nothing."""
        return self.runDaemon(["faketime", "-f", "+0 x1000", host.VOLORND])

    def testPatienceEnds(self):
        """With a run that does not end, and with a reader that does not."""
        yesterday = self.makeStateOf(2)
        with self.subTest("lock"), open(host.STATE / "volorn.lock") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            reason = f"{host.STATE}/volorn.lock: another run holds it: Connection timed out"
            self.assertEqual(self.runHurried(), [host.lossOf(reason), *host.NEW])
            self.assertEqual(host.save(), yesterday)
        with self.subTest("reader"), host.opened() as reader:
            before = host.readState()
            reader.execute("BEGIN")
            reader.execute("SELECT * FROM preference").fetchone()
            self.assertEqual(self.runHurried(), [*host.LATE, host.lossOf("database is locked")])
            reader.execute("ROLLBACK")
            self.assertEqual(host.readState(), before)
            self.runDaemon()
            self.checkRun(before, host.readState())


if __name__ == "__main__":
    host.main()
