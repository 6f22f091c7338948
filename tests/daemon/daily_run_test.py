"""One start of volornd after the other, and many at once."""

import json
import os
import subprocess
import time

import host


class DailyRunTest(host.Test):
    def testFirstRunAndLaterRun(self):
        before = time.clock_gettime(time.CLOCK_BOOTTIME)
        self.assertEqual(self.runDaemon(), host.NEW)
        after = time.clock_gettime(time.CLOCK_BOOTTIME)
        self.assertEqual(sorted(host.save()), ["volorn.db", "volorn.db-journal", "volorn.lock"])
        state = host.readState()
        self.checkRun(host.State(), state)
        metrics = state.metrics()
        self.assertEqual(metrics, {**metrics, **host.WITHOUT_DEVICES})
        self.assertTrue(min(before * 100 - 1, 2**31 - 1) <= metrics["uptime.Secs100x"] <= after * 100)
        self.assertIn(metrics["jetsamLevel"], range(101))
        _, shown, _ = host.run(host.VOLORNCTL, "metrics", "--json")
        self.assertEqual(json.loads(shown)["unknown"], [host.PREFIX + key for key in host.WITHOUT_DEVICES])
        host.age(2)
        earlier = host.readState()
        self.assertEqual(self.runDaemon(), host.LATE)
        self.checkRun(earlier, host.readState())

    def testNeitherArgumentsNorEnvironmentMatter(self):
        elsewhere = host.LIB / "elsewhere"
        elsewhere.mkdir()
        names = (
            "HOME XDG_STATE_HOME XDG_DATA_HOME STATE_DIRECTORY VOLORN_STATE_DIR VOLORN_STATE_DIRECTORY "
            "TMPDIR SQLITE_TMPDIR PWD"
        ).split()
        misleading = {**dict.fromkeys(names, str(elsewhere)), "LC_ALL": "C.UTF-8", "NOTIFY_SOCKET": "/none"}
        command = [host.VOLORND, "--state-dir", str(elsewhere), "--help", "-v", "", "--", "stop"]
        self.assertEqual(self.runDaemon(command, env=misleading, cwd=elsewhere), host.NEW)
        self.checkRun(host.State(), host.readState())
        self.assertEqual(list(elsewhere.iterdir()), [])

    def testManyAtOnce(self):
        yesterday = self.makeStateOf(2)
        spoilt = {"volorn.db": os.urandom(20000)}
        for name, files in (
            ("no folder", None),
            ("empty folder", {}),
            ("state of yesterday", yesterday),
            ("random bytes", spoilt),
            ("random bytes with a journal", {**yesterday, **spoilt}),
        ):
            with self.subTest(name):
                host.restore(files)
                damaged = "random" in name
                before = host.State() if damaged else host.readState()
                daemons = [
                    subprocess.Popen([host.VOLORND], stderr=subprocess.PIPE, text=True) for _ in range(32)
                ]
                logs = "".join(daemon.communicate(timeout=600)[1] for daemon in daemons)
                self.assertEqual([daemon.returncode for daemon in daemons], [0] * 32)
                self.checkRun(before, host.readState())
                self.assertEqual(logs.count(host.HAS_ONE), 31)
                self.assertEqual(logs.count("set aside"), int(damaged))
                self.assertEqual(host.setAside(), list(spoilt.values()) if damaged else [])


if __name__ == "__main__":
    host.main()
