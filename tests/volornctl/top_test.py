"""`volornctl top` followed on the real machine, in a network of its own in which nothing moves but what the test moves."""

import json
import os
import pathlib
import signal
import socket
import subprocess
import time

import host

TOP = [host.VOLORNCTL, "top"]
ATTEMPTS = 40  # what is looked for may have come between two looks


def processorSeconds(pid):
    return time.clock_gettime(~pid << 3 | 2)  # CPUCLOCK_SCHED of the whole process


def received():
    return int(pathlib.Path("/proc/net/dev").read_text().split("lo:")[1].split()[0])


class TopTest(host.Test):
    def sampledAndUsed(self, busy, top):
        """The busy process's seconds, over more samples than the sampler takes before it starts anew."""
        before, moved, busy_seconds = received(), 0, 0
        samples = map(json.loads, top.stdout)
        next(samples)
        used = processorSeconds(busy.pid)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            for sample, number in zip(samples, range(1000)):
                moved += sample["network"]["inBytesPerSecond"] * sample["intervalSeconds"]
                (percent,) = [row["cpuPercent"] for row in sample["processes"] if row["pid"] == busy.pid]
                self.assertIsNotNone(percent, number)
                busy_seconds += percent / 100 * sample["intervalSeconds"]
                if number < 65:  # past the sixtieth
                    sender.sendto(bytes(1000), ("127.0.0.1", 9))
                elif round(moved) == received() - before:
                    break
        self.assertEqual(round(moved), received() - before)
        return busy_seconds, processorSeconds(busy.pid) - used

    def testNothingIsLostWhereTheSamplerStartsAnew(self):
        for _ in range(ATTEMPTS):
            busy = subprocess.Popen(["sh", "-c", "while :; do :; done"])
            top = subprocess.Popen([*TOP, "--json", "--interval", "0.01"], stdout=subprocess.PIPE)
            try:
                sampled, used = self.sampledAndUsed(busy, top)
            finally:
                for process in (busy, top):
                    process.kill()
                    process.communicate()
            if abs(sampled - used) <= used / 5:
                return
        self.fail(f"{sampled} s were sampled and {used} s used")

    def testWhatEndsIt(self):
        """A reader that goes, at once, and Ctrl-C alike with JSON and without."""
        for arguments, end in (
            (["--json"], lambda process: process.stdout.close()),
            (["--json"], lambda process: process.send_signal(signal.SIGINT)),
            ([], lambda process: process.send_signal(signal.SIGINT)),
        ):
            with subprocess.Popen(
                [*TOP, "-d", "100000", *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE
            ) as process:
                process.stdout.readline()
                end(process)
                self.assertEqual(process.stderr.read(), b"")
                self.assertEqual(process.wait(300), 0)


if __name__ == "__main__":
    if "VOLORN_TEST_NAMESPACE" in os.environ:
        host.raiseLoopback()
    host.main("--net")
