"""volorn.timer is set anew again and again while everything that may be in the way is."""

import pathlib
import subprocess
import sys
import threading

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host
import systemd_host
import volorn_units as units
from systemd_host import run, waitFor

ROUNDS = 50
REGISTERED = host.STATE / "registered"

# In the daemon's place, and as its user: registers a job that opens half a second from now. It waits for those who
# read, as the daemon does.
REGISTERS = (f"/bin/sh -c 'sqlite3 -cmd \".timeout 30000\" {host.FILE} "
             "\"UPDATE job SET window_start = (julianday() - 2451910.5) * 86400 + 0.5\" "
             f"&& echo >> {REGISTERED}'")

# The guard has read the row and noted it, and is stopped before it sets the timer.
STOPPED = "/usr/bin/strace -qq -o /dev/null -e inject=rename:signal=STOP:when=1 /usr/sbin/waketide arm"


def armWaits():
    """For the lock, behind the guard."""
    return "-> FLOCK" in pathlib.Path("/proc/locks").read_text()


class RearmTest(units.Test):
    def setUp(self):
        units.reset({})
        run("systemctl", "start", "volorn.service")
        self.assertTimerAt(units.row)

    def testManyInARowAndTwoAtOnce(self):
        """The timer that is stopped may be there still when the next one is to be made."""
        loop = "for i in $(seq 100); do waketide arm 2>/dev/null || echo failed; done"
        loops = [subprocess.Popen(["sh", "-c", loop], stdout=subprocess.PIPE, text=True) for _ in range(2)]
        self.assertEqual([loop.communicate(timeout=1200)[0] for loop in loops], ["", ""])
        self.assertTimerAt(units.row)

    def testFromTheServiceThatTheTimerStarted(self):
        """And with the service manager reloaded all the time. A chain that is broken stays so."""
        units.dropIn("volorn.service", *units.instead(REGISTERS), "ExecStopPost=")  # which may take half a second
        done = threading.Event()

        def reload():
            while not done.wait(0.4):
                run("systemctl", "daemon-reload")

        reloads = threading.Thread(target=reload)
        reloads.start()
        try:
            run("systemctl", "start", "volorn.service")
            self.assertTrue(waitFor(lambda: REGISTERED.stat().st_size > ROUNDS, seconds=1200),
                            f"{REGISTERED.stat().st_size} rounds\n" + run("journalctl", "--quiet", "--lines=40"))
        finally:
            done.set()
            reloads.join()
            run("systemctl", "stop", "volorn.timer", check=False, stderr=subprocess.DEVNULL)
        self.assertEqual(run("systemctl", "show", "-PNRestarts", "volorn-arm.service"), "0\n")

    def testDaemonEndsWhileTheGuardHoldsAnOlderRow(self):
        fresh = host.save()
        units.dropIn("volorn-guard.service", *units.instead(STOPPED), "SystemCallFilter=")
        for number in range(ROUNDS):
            with self.subTest(number):
                host.restore(fresh, owner="volorn")
                host.age(2 + number)
                noted = units.RECORD.stat()
                run("systemctl", "start", "--no-block", "volorn-guard.service")
                self.assertTrue(waitFor(lambda: units.RECORD.stat().st_ino != noted.st_ino))
                run("systemctl", "start", "volorn.service")
                self.assertTrue(waitFor(armWaits))
                run("systemctl", "kill", "--signal=CONT", "volorn-guard.service")
                self.assertTimerAt(units.row)


if __name__ == "__main__":
    systemd_host.main(units.install)
