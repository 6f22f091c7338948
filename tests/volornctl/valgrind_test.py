"""The built programs under valgrind: daily runs without a state, on one and on a spoilt one, and every look at
processes."""

import pathlib
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host

# Memory that is still at hand at the end is none that was lost: the C++ library keeps some for exceptions.
LOST = "definite,indirect,possible"
VALGRIND = ["valgrind", "--quiet", "--error-exitcode=9", "--leak-check=full", f"--show-leak-kinds={LOST}",
            f"--errors-for-leak-kinds={LOST}"]


class ValgrindTest(host.Test):
    def testDailyRuns(self):
        self.assertEqual(self.runDaemon([*VALGRIND, host.VOLORND]), host.NEW)
        self.checkRun(host.State(), host.readState())
        host.age(2)
        before = host.readState()
        self.assertEqual(self.runDaemon([*VALGRIND, host.VOLORND]), host.LATE)
        self.checkRun(before, host.readState())
        host.FILE.write_bytes(b"no database" * 1000)
        self.runDaemon([*VALGRIND, host.VOLORND])
        self.checkRun(host.State(), host.readState())

    def testReaders(self):
        self.runDaemon()
        for arguments in (["summary"], ["memory"], ["top", "--json", "--count", "2", "--interval", "0.1"]):
            done = subprocess.run([*VALGRIND, host.VOLORNCTL, *arguments], stdin=subprocess.DEVNULL, text=True,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=600, check=False)
            self.assertEqual((done.returncode, done.stderr), (0, ""), arguments)


if __name__ == "__main__":
    # Of the few processes of a namespace of its own: each is read many times as slowly.
    host.main("--pid", "--fork", "--kill-child=KILL", "--mount-proc")
