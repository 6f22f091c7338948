"""volornd killed at every one of its system calls: the file holds the whole run or nothing of it."""

import json

import host

# Who owns the folder that root's run finds, and carries on in it afterwards.
OWNERS = [0, host.OTHER_USER] if host.HAS_OTHER_USERS else [0]


CUT_OFF = f"volornctl: {host.FILE}: a run was cut off; the next start of the daemon will mend it\n"


def whatAReaderSees():
    """How many of the two newest snapshots, or why none."""
    _, output, errors = host.run(host.VOLORNCTL, "history", "--json", "--limit", "2")
    return errors or len(json.loads(output)["snapshots"])


def tryKill(start, files, owner, name, ordinal):
    """Whether the run was killed, which how often memory is asked for decides, and whether it was kept whole."""
    test = host.Test()
    host.restore(files, owner)
    before = host.readState()
    killed = host.killedAt([host.VOLORND], name, ordinal)
    kept = host.readCopy(host.save())
    whole = test.isWholeRun(before, kept)
    if before.snapshots:
        test.assertIn(whatAReaderSees(), (CUT_OFF, min(len(kept.snapshots), 2)))
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
        host.editState(
            "WITH RECURSIVE n(i) AS (VALUES (2) UNION ALL SELECT i + 1 FROM n WHERE i < 4000) "
            "INSERT INTO snapshot SELECT i, i FROM n",
            "INSERT INTO metric SELECT id, position, key_id, value FROM snapshot, metric WHERE id > 1",
            *host.TO_FIRST_VERSION,
        )
        starts.append(("4,000 snapshots of the first version", host.save(), 0))
        kills = []
        for start in starts:
            host.restore(*start[1:])
            self.runDaemon(host.traced([host.VOLORND]))
            calls = [call for call in host.tracedCalls() if call[0] != "execve"]
            self.assertGreater(len(calls), 100, "a trace of a whole run")
            kills += [(*start, *call) for call in calls]
        results = host.tryAll(tryKill, kills)
        failures = [failure for _, failure in results if failure]
        self.assertEqual(len(failures), 0, "\n".join(failures[:5]))
        # Nearly every kill met its call, and there were kills before the commit and after it.
        met = [(start, whole) for (start, killed, whole), _ in results if killed]
        self.assertGreater(len(met), 0.9 * len(results))
        self.assertEqual(set(met), {(start[0], whole) for start in starts for whole in (False, True)})


if __name__ == "__main__":
    host.main()
