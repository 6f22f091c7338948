"""waketide note under real clocks that time namespaces part, and the daemon's run that reads its books."""

import fcntl
import itertools
import json
import os
import pathlib
import shutil
import subprocess
import time
import uuid

import host

WAKETIDE = str(host.PROGRAMS / "waketide")
NOTE = [WAKETIDE, "note"]
BOOT_ID = pathlib.Path("/proc/sys/kernel/random/boot_id")
UNKNOWN = [host.PREFIX + key for key in host.KEYS[4:7]]


class Machine:
    """A laptop whose clocks tell of sleeps that it never had, and what its sums should be."""

    def __init__(self, test):
        self.test = test
        self.offsets = {"boottime": 0, "monotonic": 0}
        self.years = itertools.cycle(["+0", "+1y"])  # by which its clock is wrong
        self.plugged_in = True
        self.usage = self.standby = 0
        self.slack = 1  # by how much a mark may come later than what it marks
        self.since = time.monotonic()
        supplies = host.SYS_CLASS / "power_supply"
        for name, kind in (("AC", "Mains"), ("BAT0", "Battery")):
            (supplies / name).mkdir(parents=True)
            (supplies / name / "type").write_text(kind)
        self.online, self.status = supplies / "AC" / "online", supplies / "BAT0" / "status"
        (supplies / "BAT0" / "capacity").write_text("50")
        self.plug(True)

    def command(self, *words):
        offsets = [f"--{clock}={seconds}" for clock, seconds in self.offsets.items()]
        return ["unshare", "--time", "--fork", *offsets, *words]

    def count(self):
        now = time.monotonic()
        if not self.plugged_in:
            self.usage += now - self.since
        self.since = now

    def plug(self, plugged_in, status=None):
        self.count()
        self.plugged_in = plugged_in
        self.online.write_text(str(int(plugged_in)))
        self.status.write_text(status or ("Charging" if plugged_in else "Discharging"))
        if status == "Full":
            self.usage = self.standby = 0

    def note(self, *words):
        began = time.monotonic()
        fake = {**os.environ, "FAKETIME_DONT_FAKE_MONOTONIC": "1"}
        ended = host.run("faketime", "-f", next(self.years), *self.command(*NOTE, *words), env=fake)
        self.test.assertEqual(ended, (0, "", ""))
        self.slack += time.monotonic() - began

    def sleep(self, seconds):
        self.offsets["boottime"] += seconds
        if not self.plugged_in:
            self.standby += seconds

    def reboot(self):
        """All its clocks begin at one second again."""
        for clock in self.offsets:
            number = getattr(time, f"CLOCK_{clock.upper()}")
            self.offsets[clock] = 1 - int(time.clock_gettime(number))
        other = host.LIB / "boot_id"
        other.write_text(f"{uuid.uuid4()}\n")
        self.test.enterContext(host.mounted("--bind", str(other), str(BOOT_ID)))

    def look(self):
        """What a day's run makes of it: usage and standby, or nothing."""
        if host.readState().snapshots:
            host.age(2)
        self.test.runDaemon(self.command(host.VOLORND))
        _, shown, _ = host.run(host.VOLORNCTL, "metrics", "--json")
        metrics, unknown = host.readState().metrics(), json.loads(shown)["unknown"]
        sums = [metrics[key] for key in host.KEYS[4:7]]
        if set(UNKNOWN) <= set(unknown):
            self.test.assertEqual(sums, [-100, -100, 0])
            return None
        self.test.assertEqual(sums.pop(), 1)
        return [hundredths / 100 for hundredths in sums]


class NoteTest(host.Test):
    def setUp(self):
        super().setUp()
        self.machine = Machine(self)

    def assertKnown(self):
        self.machine.count()
        least = self.machine.usage - self.machine.slack
        usage, standby = self.machine.look()
        self.machine.count()
        _, shown, _ = host.run(*self.machine.command(host.VOLORNCTL, "status"))
        self.assertRegex(shown, "On battery .* in use, .* in standby since the last full charge")
        self.assertTrue(least <= usage <= self.machine.usage + self.machine.slack, (least, usage))
        self.assertAlmostEqual(standby, self.machine.standby, delta=1)

    def begin(self, asleep=1000):
        """Unplugged after a full charge, and asleep for a while."""
        for status in ("Full", "Discharging"):
            self.machine.plug(status == "Full", status)
            self.machine.note()
        self.machine.sleep(asleep)
        self.machine.note()

    def testSums(self):
        """Over sleeps, a charger and a reboot; what nobody noted is not known."""
        machine = self.machine
        machine.note()
        self.assertIsNone(machine.look())
        self.begin()
        time.sleep(1.5)
        machine.plug(True)
        self.assertIsNone(machine.look())
        machine.note()
        machine.sleep(500)
        machine.note()
        machine.plug(False)
        machine.note()
        machine.sleep(7200)
        self.assertKnown()
        machine.note("--last")
        machine.reboot()
        self.assertIsNone(machine.look())
        machine.note()
        machine.since = time.monotonic()
        self.assertKnown()

    def testNothingNewIsNotWritten(self):
        self.begin()
        before = host.FILE.stat()
        for _ in range(3):
            self.machine.note()
        self.assertEqual(host.FILE.stat(), before)
        shutil.rmtree(host.SYS_CLASS / "power_supply" / "BAT0")
        host.restore({})
        self.machine.note()
        self.assertEqual(host.save()["volorn.db"], b"")

    def testLockThatIsHeld(self):
        self.begin()
        with open(host.STATE / "volorn.lock") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            started = time.monotonic()
            ends = [subprocess.Popen(self.machine.command(*NOTE), stderr=subprocess.PIPE) for _ in range(2)]
            self.assertEqual([note.wait() for note in ends], [1, 1])
            self.assertLess(time.monotonic() - started, 4)
            for note in ends:
                note.stderr.close()
        self.assertIsNone(self.machine.look())
        self.machine.note()
        self.assertIsNone(self.machine.look())
        self.begin()
        self.assertKnown()

    def testManyAtOnce(self):
        self.begin()
        self.machine.plug(True)
        notes = [subprocess.Popen(self.machine.command(*NOTE)) for _ in range(8)]
        self.assertEqual([note.wait() for note in notes], [0] * len(notes))
        self.assertKnown()

    def testKilledAtEachCall(self):
        """The mark is kept whole or lost whole, and then the next one knows."""
        self.begin(asleep=0)
        self.machine.plug(True)
        before, files = host.books(), host.save()
        host.run(*host.traced(NOTE))
        calls = list(host.tracedCalls(host.CHANGING))
        self.assertGreater(len(calls), 30, "a trace of a whole mark")
        seen = set()
        for call in calls:
            with self.subTest(call):
                host.restore(files)
                if not host.killedAt(NOTE, *call):
                    continue
                due = (host.STATE / "volorn.note").stat().st_size > 0
                kept = host.books()
                is_kept = kept.plugged_in == 1
                self.assertTrue(kept.usage >= before.usage if is_kept else kept == before, kept)
                seen.add((due, is_kept))
                self.machine.note()
                self.assertEqual(host.books().usage == -1, due)
        # Before it was due, lost, kept but not told so, and done.
        self.assertEqual(seen, {(due, is_kept) for due in (False, True) for is_kept in (False, True)})


if __name__ == "__main__":
    host.main()
