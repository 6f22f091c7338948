"""Whole devices, from the first boot until the package is purged: each scenario tells what it saw, or why it failed.

    lab.py FOLDER [SCENARIO ...]      FOLDER holds what scripts/lab makes"""

import argparse
import base64
import calendar
import io
import pathlib
import re
import subprocess
import sys
import tarfile
import tempfile
import time
import traceback

sys.path.append(str(pathlib.Path(__file__).parents[1] / "system"))
import host
import machine

FIRST_BOOT = calendar.timegm((2027, 3, 5, 11, 0, 0))
DAY = host.DAY_SECONDS
BOOTED = (
    "systemctl is-system-running --wait || systemctl --failed --no-legend; systemctl list-jobs --no-legend"
)
BUSY = "systemctl list-units --plain --no-legend --state=activating volorn.service volorn-arm.service volorn-guard.service"


class Device:
    """A machine that is up, and what it keeps, which we look at with programs of ours, not of its own."""

    def __init__(self, folder, disk, log):
        self.folder, self.disk, self.log = folder, disk, log
        self.switch_on(FIRST_BOOT)

    def switch_on(self, at, **options):
        began = time.monotonic()
        self.machine = machine.Machine(self.folder, self.disk, at, self.log, **options)
        self.run, self.set = self.machine.run, self.machine.set
        said = " ".join(self.run(BOOTED).split())
        print(f"up after {time.monotonic() - began:.0f} s: {said}", flush=True)
        assert said == "running", said

    def files(self):
        packed = self.run(
            "cd /var/lib/volorn && tar -c --ignore-failed-read volorn.db* volorn.note 2>/dev/null | base64"
        )
        with tarfile.open(fileobj=io.BytesIO(base64.b64decode(packed))) as archive:
            return {file.name: archive.extractfile(file).read() for file in archive if file.isfile()}

    def state(self):
        return state_of(self.files())

    def books(self, **expected):
        """Once a mark tells this."""
        for _ in range(60):
            books = self.state().books
            if books and expected.items() <= books.items():
                return books
            self.run("sleep 0.5")
        raise AssertionError(f"books: {books}, not {expected}")

    def now(self):
        return float(self.run("date +%s.%N"))

    def clocks(self):
        """Monotonic and of the boot, in seconds."""
        listed = self.run("cat /proc/timer_list | head -n5; cat /proc/uptime")
        return int(re.search(r"now at (\d+)", listed)[1]) / 1e9, float(listed.splitlines()[-1].split()[0])

    def started(self):
        """When the last run was, by the service manager."""
        path = "/org/freedesktop/systemd1/unit/volorn_2eservice org.freedesktop.systemd1.Unit"
        asked = f"busctl get-property org.freedesktop.systemd1 {path} InactiveExitTimestamp"
        return int(self.run(asked).split()[1]) / 1e6

    def step(self, seconds_since_1970):
        self.run(f"date -s @{seconds_since_1970:.3f}")

    def sleep(self, seconds):
        """Until its clock wakes it; that clock goes on as ours does."""
        self.run(f"rtcwake -m no -s {seconds} && systemctl suspend && sleep 3")

    def change(self, **values):
        """And wait for the kernel's events."""
        heard = self.run("cat /sys/kernel/uevent_seqnum").strip()
        self.set(**values)
        self.wait(f'test "$(cat /sys/kernel/uevent_seqnum)" -ge {int(heard) + 2}')
        self.run("udevadm settle; sleep 1")

    def wait(self, condition, seconds=120):
        """Until the shell says so; the device's seconds."""
        ends = f"echo never: '{condition}'; exit 1"
        self.run(f"for i in $(seq {seconds}); do if {condition}; then exit 0; fi; sleep 1; done; {ends}")

    def snapshot(self, number):
        """The state as soon as it holds so many snapshots, and nothing is at work any more."""
        self.wait(
            f'test "$(volornctl history --json | grep -o takenAt | wc -l)" -ge {number} && test -z "$({BUSY})"'
        )
        return self.state()

    def next_day(self):
        """The readings of another day, by stepping the clock to the plan."""
        state = self.state()
        number = len(state.snapshots) + 1
        self.step(plan_of(state) - 1)
        return check_day(self.snapshot(number), number)


def state_of(files):
    with tempfile.TemporaryDirectory() as copy:
        host.fill(files, pathlib.Path(copy))
        file = pathlib.Path(copy) / "volorn.db"
        state = host.readState(file)
        if file.exists():
            with host.opened(file) as database:
                rows = database.execute("SELECT books FROM usage_books").fetchall()
            names = "monotonic boottime plugged last full_once usage standby boot".split()
            state.books = dict(zip(names, rows[0][0].split())) if rows else None
        return state


def plan_of(state):
    return state.preferences["nextPlannedWakeupTime"] + host.REFERENCE_DATE


def check(name, seen, expected, within=0):
    assert abs(seen - expected) <= within if within else seen == expected, f"{name}: {seen}, not {expected}"
    return seen


def check_day(state, number):
    """That the newest snapshot is the day's only one, whole, and the plan lies in the next."""
    days = [host.dayOf(taken) for taken, _ in state.snapshots]
    assert len(set(days)) == len(days) == number, f"snapshots of the days {days}"
    taken, metrics = state.snapshots[-1]
    lacks = [
        key for key in host.KEYS if key not in metrics and not (number == 1 and key.startswith("planned"))
    ]
    assert not lacks, f"a snapshot without {lacks}"
    plan = state.preferences["nextPlannedWakeupTime"]
    check("day of the plan", host.dayOf(plan), days[-1] + 1)
    check("job", state.jobs, {host.JOB: (plan, plan + 7 * DAY)})
    return metrics


def running(device):
    """Installed at first boot; the planned second comes while it runs. The device's clock counts its instructions, so
    that it stands still while the emulator is slow; that programs are slow to wake there is told by one that sleeps.
    """
    check("charge", check_day(device.snapshot(1), 1)["battery.chargedPct100x"], 6000)
    plan = plan_of(device.state())
    device.step(plan - 15)
    woke = float(device.run(f"sleep $(({plan:.0f} - $(date +%s))); date +%s.%N"))
    metrics = check_day(device.snapshot(2), 2)
    started = device.started()
    check("start", started, max(plan, woke), within=2)
    check(
        "second of the day", metrics["wakeupSecsSinceMidnight"], metrics["plannedSecsSinceMidnight"], within=4
    )
    return f"a program that slept woke {woke - plan:.2f} s after the plan, the run began {started - plan:.2f} s after it"


FULL = {"plug": 1, "state0": 0, "now0": 50_000}
PACKS = (  # as the driver shows them, and keys 8 to 11
    ("discharging", {"plug": 0, "state0": 1, "now0": 20_000}, (4000, 50_000_000, 0, 0)),
    ("plugged", {"plug": 1, "state0": 2, "now0": 25_000}, (5000, 50_000_000, 1, 0)),
    ("full", FULL, (10000, 50_000_000, 1, 1)),
    ("two packs", {"there1": 1, "state1": 2, "now1": 6_000, "full1": 20_000}, (8000, 70_000_000, 1, 0)),
    ("a pack pulled out", {"there1": 0}, (10000, 50_000_000, 1, 1)),
)


def battery(device):
    keys = [f"battery.{name}" for name in ("chargedPct100x", "maxCapacity", "pluggedIn", "fullyCharged")]
    for name, values, expected in PACKS:
        device.change(**values)
        metrics = device.next_day()
        check(name, tuple(metrics[key] for key in keys), expected)
        check(
            f"{name}: full once",
            metrics["battery.fullyChargedOnce"],
            int(name not in ("discharging", "plugged")),
        )
    return f"{len(PACKS)} states"


def usage(device):
    """Awake and asleep on battery since a full charge; the marks are taken on the word of real change events."""
    device.change(**FULL)
    device.books(plugged="1", full_once="1", usage="0", standby="0")
    device.change(plug=0, state0=1, now0=49_000)
    device.books(plugged="0")
    before = device.clocks()
    device.run("sleep 20")
    device.sleep(30)
    device.run("sleep 5")
    device.change(**{**FULL, "now0": 49_500, "state0": 2})
    books = device.books(plugged="1")
    monotonic, boottime = (after - before for before, after in zip(before, device.clocks()))
    # What goes by while we look at the books and change the plug.
    seen = check("usage", int(books["usage"]) / 1e9, monotonic, within=15)
    check("standby", int(books["standby"]) / 1e9, boottime - monotonic, within=1.5)
    assert boottime - monotonic > 15, "it has not slept"
    return f"{seen:.0f} s awake of {monotonic:.0f}, {int(books['standby']) / 1e9:.1f} s asleep of {boottime - monotonic:.1f}"


def thermal(device):
    for celsius, level in ((85, 2), (103, 3), (40, 0)):
        device.set(temp=machine.kelvin(celsius))
        device.wait(f'test "$(cat /sys/class/thermal/thermal_zone0/temp)" = {celsius}000')
        check(f"level at {celsius} degrees", device.next_day()["thermalLevel"], level)
    return "three temperatures"


def days(device):
    """Three of them, with the clock stepped to and fro around each midnight."""
    for _ in range(3):
        number = len(device.state().snapshots)
        midnight = (device.now() // DAY + 1) * DAY
        for seconds in (-2, -3, 1):
            device.step(midnight + seconds)
            device.run("sleep 4")
        check("snapshots after midnight", len(device.state().snapshots), number)
        device.next_day()
    return "three snapshots"


SCENARIOS = {function.__name__: function for function in (running, battery, usage, thermal, days)}


def attempt(name, scenario, device):
    """Whether it came out as it should."""
    began = time.monotonic()
    try:
        verdict, seen = "green", scenario(device)
    except AssertionError as error:
        verdict, seen = "red", repr(error)
        traceback.print_exc()
    print(f"{name}: {verdict} after {time.monotonic() - began:.0f} s: {seen}", flush=True)
    return verdict == "green"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("scenarios", nargs="*", metavar="SCENARIO")
    given = parser.parse_args()
    names = given.scenarios or list(SCENARIOS)
    disk = given.folder / "shipped.ext4"
    log = given.folder / "console.log"
    log.unlink(missing_ok=True)
    with tempfile.TemporaryDirectory(dir=given.folder) as folder:
        copy = pathlib.Path(folder) / "disk"
        subprocess.run(["cp", "--sparse=always", disk, copy], check=True)
        device = Device(given.folder, copy, log)
        try:
            failed = [name for name in names if not attempt(name, SCENARIOS[name], device)]
        finally:
            device.machine.cut()
    sys.exit(f"not as it should be: {', '.join(failed)}" if failed else 0)


if __name__ == "__main__":
    main()
