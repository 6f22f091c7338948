"""volorn.timer is set anew again and again while everything that may be in the way is."""

import pathlib
import subprocess
import threading

import host
import systemd_host
import volorn_units as units
from volorn_units import shows, systemctl

ROUNDS = 25
REGISTERED = host.STATE / "registered"

# In the daemon's place, and as its user: registers a job that opens half a second from now. It waits for those who
# read, as the daemon does.
REGISTERS = (
    f'/bin/sh -c \'sqlite3 -cmd ".timeout 30000" {host.FILE} '
    '"UPDATE job SET window_start = (julianday() - 2451910.5) * 86400 + 0.5" '
    f"&& echo >> {REGISTERED}'"
)

# The guard has read the row and noted it, and is stopped before it sets the timer.
STOPPED = "/usr/bin/strace -qq -o /dev/null -e inject=rename:signal=STOP:when=1 /usr/sbin/waketide arm"


class RearmTest(units.Test):
    def setUp(self):
        host.keepOffMidnight(300)
        units.reset({})
        systemctl("start volorn.service")
        self.assertTimerAt(units.row)

    def testManyInARowAndTwoAtOnce(self):
        """The timer that is stopped may be there still when the next one is to be made."""
        loop = "for i in $(seq 50); do waketide arm 2>/dev/null || echo failed; done"
        loops = [subprocess.Popen(["sh", "-c", loop], stdout=subprocess.PIPE, text=True) for _ in range(2)]
        self.assertEqual([loop.communicate(timeout=1200)[0] for loop in loops], ["", ""])
        self.assertTimerAt(units.row)

    def testFromTheServiceThatTheTimerStarted(self):
        """And with the service manager reloaded all the time. A chain that is broken stays so."""
        # The export may take half a second.
        units.dropIn("volorn.service", *units.instead(REGISTERS), "ExecStopPost=")
        done = threading.Event()

        def reload():
            while not done.wait(0.4):
                systemctl("daemon-reload")

        reloads = threading.Thread(target=reload)
        reloads.start()
        try:
            systemctl("start volorn.service")
            self.assertComesTrue(lambda: REGISTERED.stat().st_size > ROUNDS)
        finally:
            done.set()
            reloads.join()
            units.stopTimer()
        self.assertEqual(shows("volorn-arm.service", "NRestarts"), "0")

    def testDaemonEndsWhileTheGuardHoldsAnOlderRow(self):
        fresh = host.save()
        units.dropIn("volorn-guard.service", *units.instead(STOPPED), "SystemCallFilter=")
        for number in range(ROUNDS):
            with self.subTest(number):
                host.restore(fresh, owner="volorn")
                host.age(2 + number)
                noted = units.RECORD.stat()
                systemctl("start --no-block volorn-guard.service")
                self.assertComesTrue(lambda: units.RECORD.stat().st_ino != noted.st_ino)
                systemctl("start volorn.service")
                # It waits for the lock, behind the guard.
                self.assertComesTrue(lambda: "-> FLOCK" in pathlib.Path("/proc/locks").read_text())
                systemctl("kill --signal=CONT volorn-guard.service")
                self.assertTimerAt(units.row)


if __name__ == "__main__":
    systemd_host.main(units.install)
