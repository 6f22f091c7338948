"""volornd killed at every one of its system calls: the file holds the whole run or nothing of it."""

import collections
import multiprocessing
import os
import pathlib
import re
import shutil
import subprocess
import sys
import traceback

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host

TRACE = host.LIB / "trace"
REACHABLE = str(host.LIB / "volornd")  # by every user, wherever the build folder lies

# Who owns the folder that root's run finds, and carries on in it afterwards.
OWNERS = [None, host.OTHER_USER] if host.HAS_OTHER_USERS else [None]


def tracedCalls(test):
    """Every (name, ordinal) of a run but the start of the program itself."""
    test.runDaemon(["strace", "-o", str(TRACE), host.VOLORND])
    seen = collections.Counter()
    for name in re.findall(r"^(\w+)\(", TRACE.read_text(), re.MULTILINE):
        seen[name] += 1
        yield name, seen[name]


def killAt(test, name, ordinal):
    """False when the run ended before; how often memory is asked for depends on where it lies."""
    daemon = subprocess.run(["strace", "-o", str(TRACE), "-e", f"trace={name}",
                             "-e", f"inject={name}:signal=SIGKILL:when={ordinal}", host.VOLORND],
                            stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, timeout=600)
    test.assertIn(daemon.returncode, (0, -9), daemon.stderr)
    return daemon.returncode != 0


def prepareWorker():
    host.enterOwnLib()
    shutil.copy(host.VOLORND, REACHABLE)


def tryKill(start, files, owner, name, ordinal):
    """What went wrong, as text, and whether the run was killed, and whether it had been kept whole."""
    test = host.Test()
    killed = whole = False
    try:
        host.restore(files, owner)
        before = host.readState()
        killed = killAt(test, name, ordinal)
        left = host.save()
        kept = host.readCopy(left)
        whole = test.isWholeRun(before, kept)

        log = test.runDaemon([REACHABLE], user=owner, group=owner, extra_groups=[] if owner else None)
        test.assertNotIn("state file", " ".join(log))
        after = host.readState()
        if whole:
            test.assertEqual(after.snapshots, kept.snapshots)
            test.assertIn("already dumped today!!", log)
        else:
            test.checkRun(before, after)
        test.assertEqual(host.owners(), {(owner or 0, owner or 0)})
        test.assertLessEqual({path.name for path in host.STATE.iterdir()},
                             {"volorn.db", "volorn.db-journal", "volorn.lock"})
        return None, killed, whole
    except Exception:
        return f"{start}, killed at {name} number {ordinal}:\n{traceback.format_exc()}", killed, whole


class KillTest(host.Test):
    def testKilledAtEveryCall(self):
        yesterday = self.makeStateOf(2)
        starts = []
        for owner in OWNERS:
            whose = "another user's folder" if owner else "root's folder"
            starts.append((f"{whose}, empty", {}, owner))
            starts.append((f"{whose}, state of yesterday", yesterday, owner))
        starts.append(("no folder", None, None))
        kills = []
        for start, files, owner in starts:
            host.restore(files, owner)
            calls = [call for call in tracedCalls(self) if call[0] != "execve"]
            self.assertGreater(len(calls), 100, "a trace of a whole run")
            kills += [(start, files, owner, *call) for call in calls]
        with multiprocessing.Pool(os.cpu_count(), prepareWorker) as pool:
            results = pool.starmap(tryKill, kills, chunksize=4)
        failures = [failure for failure, _, _ in results if failure]
        self.assertEqual(len(failures), 0, "\n".join(failures[:5]))
        # Nearly every kill met its call, and there were kills before the commit and after it.
        self.assertGreater(sum(killed for _, killed, _ in results), 0.9 * len(results))
        for start, _, _ in starts:
            wholes = {whole for kill, (_, killed, whole) in zip(kills, results) if killed and kill[0] == start}
            self.assertEqual(wholes, {False, True}, start)


if __name__ == "__main__":
    host.main()
