"""A machine of their own for tests that start the built programs.

The tests run in a mount namespace, as its root, so that an ordinary user may run them as well. There /var/lib
and /sys/class are theirs, and nothing listens to the system log, so that the daemon talks to standard error.
A test file ends with host.main(); its first argument is the folder of the built programs.
"""

import contextlib
import ctypes
import dataclasses
import fcntl
import os
import pathlib
import shutil
import socket
import sqlite3
import struct
import subprocess
import sys
import tempfile
import time
import unittest

sys.dont_write_bytecode = True

PROGRAMS = pathlib.Path(sys.argv[1]).resolve()
VOLORND = str(PROGRAMS / "volornd")
VOLORNCTL = str(PROGRAMS / "volornctl")
LIB = pathlib.Path("/var/lib")
STATE = LIB / "volorn"
FILE = STATE / "volorn.db"
SYS_CLASS = pathlib.Path("/sys/class")

DAY_SECONDS = 86400
REFERENCE_DATE = 978307200  # in seconds since 1970
JOB = "com.zorvik.volorn.logcreation"

PREFIX = "com.zorvik.snapshot."
KEYS = ("wakeupSecsSinceMidnight plannedSecsSinceMidnight nextSecsSinceMidnight thermalLevel "
        "battery.usageSecs100x battery.standbySecs100x battery.fullyChargedOnce battery.chargedPct100x "
        "battery.maxCapacity battery.pluggedIn battery.fullyCharged backlightLevel100x uptime.Secs100x "
        "uptime.load1Min100x uptime.load5Min100x uptime.load15Min100x jetsamLevel").split()
# Without battery; there is no planned time on the first day.
LATER_KEYS = [key for key in KEYS if key not in ("battery.chargedPct100x", "battery.maxCapacity")]
FIRST_KEYS = [key for key in LATER_KEYS if key != "plannedSecsSinceMidnight"]

# Readings that are the same on every machine when it shows no device.
WITHOUT_DEVICES = {
    "thermalLevel": 0, "battery.usageSecs100x": -100, "battery.standbySecs100x": -100,
    "battery.fullyChargedOnce": 0, "battery.pluggedIn": 0, "battery.fullyCharged": 0,
    "backlightLevel100x": 0,
}

NEW = ["WTD job doesn't exist",
       "No wakeupTime set in preferences - either first time, or first after an erase install"]
LATE = ["WTD job already exists",
        "Woke up too late, will mark that we were likely asleep at the time and exit"]
EARLY = ["WTD job already exists",
         "Woke up before 30.000000 seconds from due time, so not resetting planned wake up time",
         "wakeupstatus was wakeupstatus too early"]
HAS_ONE = "already dumped today!!"
AGAIN = "rescheduling current trigger and not dumping the log"

# A user besides root, where there can be one: an ordinary user's namespace may hold that user alone.
OTHER_USER = 4321
HAS_OTHER_USERS = sum(int(line.split()[2]) for line in open("/proc/self/uid_map")) > OTHER_USER


def lossOf(reason):
    return f"state file {FILE}: {reason}; nothing of this run is kept"


def dayOf(date):
    return int((date + REFERENCE_DATE) // DAY_SECONDS)


def today():
    return int(time.time() // DAY_SECONDS)


@contextlib.contextmanager
def mounted(*arguments):
    """A mount as mount(8) takes it, the target last."""
    subprocess.run(["mount", *arguments], check=True)
    try:
        yield
    finally:
        subprocess.run(["umount", "--lazy", arguments[-1]], check=True)


@dataclasses.dataclass
class State:
    """What a state file holds. Dates are seconds since the reference date."""
    preferences: dict = dataclasses.field(default_factory=dict)
    jobs: dict = dataclasses.field(default_factory=dict)  # name: window
    snapshots: list = dataclasses.field(default_factory=list)  # of (time taken, metrics in order)

    def metrics(self):
        return self.snapshots[-1][1]


@contextlib.contextmanager
def opened(file=FILE):
    connection = sqlite3.connect(file, isolation_level=None)
    connection.execute("PRAGMA journal_mode = PERSIST")  # the journal stays, as after the daemon's own runs
    try:
        yield connection
    finally:
        connection.close()


def readState(file=FILE):
    """Rolls back what a killed run left, as everyone does who may write the file; raises when it is damaged."""
    state = State()
    if not os.path.exists(file):
        return state
    with opened(file) as database:
        for check in ("integrity_check", "foreign_key_check"):
            verdict = database.execute(f"PRAGMA {check}").fetchall()
            if verdict not in ([("ok",)], []):
                raise AssertionError(f"{check}: {verdict}")
        if not database.execute("SELECT * FROM sqlite_schema").fetchall():
            return state
        state.preferences = dict(database.execute("SELECT key, value FROM preference"))
        state.jobs = {row[0]: row[1:] for row in database.execute("SELECT * FROM job")}
        for number, taken_at in database.execute("SELECT * FROM snapshot ORDER BY id").fetchall():
            rows = database.execute(
                "SELECT name, value FROM metric JOIN metric_key ON id = key_id WHERE snapshot_id = ? "
                "ORDER BY position", [number])
            state.snapshots.append((taken_at, {name.removeprefix(PREFIX): value for name, value in rows}))
    return state


def readCopy(files):
    """What everyone sees who opens these files, which stay as they are for the next start to mend."""
    with tempfile.TemporaryDirectory(dir=LIB) as copy:
        for name, content in files.items():
            (pathlib.Path(copy) / name).write_bytes(content)
        return readState(pathlib.Path(copy) / FILE.name)


def editState(*statements):
    with opened() as database:
        for statement in statements:
            database.execute(statement)


def age(days):
    """Makes everything in the state file older, the plan for tomorrow as well."""
    seconds = days * DAY_SECONDS
    editState(f"UPDATE preference SET value = value - iif(kind = 'date', {seconds}.0, {days})",
              f"UPDATE job SET window_start = window_start - {seconds}, window_end = window_end - {seconds}",
              f"UPDATE snapshot SET taken_at = taken_at - {seconds}")


def save(folder=STATE):
    """The folder's regular files, whatever else lies there."""
    files = [path for path in folder.iterdir() if path.is_file()] if folder.is_dir() else []
    return {path.name: path.read_bytes() for path in files}


def restore(files, owner=None):
    """The folder with these files and no others; none at all for None."""
    shutil.rmtree(STATE, ignore_errors=True)
    if files is None:
        return
    STATE.mkdir()
    for name, content in files.items():
        (STATE / name).write_bytes(content)
    for path in [STATE, *STATE.iterdir()] if owner else []:
        shutil.chown(path, owner, owner)


def owners():
    """Every pair of user and group that has anything in the folder, and the folder's own."""
    found = [path.stat() for path in [STATE, *STATE.iterdir()]]
    return {(status.st_uid, status.st_gid) for status in found}


class Test(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        for arguments in (["-t", "tmpfs", "-o", "mode=755", "lib", str(LIB)],
                          ["-t", "tmpfs", "-o", "mode=755", "class", str(SYS_CLASS)]):
            self.enterContext(mounted(*arguments))
        if os.path.exists("/dev/log"):
            self.enterContext(mounted("--bind", "/dev/null", os.path.realpath("/dev/log")))

    def runDaemon(self, command=(VOLORND,), **options):
        """Returns the lines of the log."""
        done = subprocess.run(list(command), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True, timeout=600, **options)
        self.assertEqual((done.returncode, done.stdout), (0, ""), done.stderr)
        return done.stderr.splitlines()

    def makeStateOf(self, days):
        """The state after one run so many days ago. Returns the files."""
        restore(None)
        self.runDaemon()
        age(days)
        return save()

    def checkRun(self, before, after):
        """That the state is `before` and one day's run, whole."""
        self.assertEqual(after.snapshots[:-1], before.snapshots)
        taken_at, metrics = after.snapshots[-1]
        self.assertEqual(list(metrics), LATER_KEYS if before.preferences else FIRST_KEYS)
        plan = after.preferences["nextPlannedWakeupTime"]
        self.assertEqual(after.preferences["lastLogDumpedDaySince1970"], dayOf(taken_at))
        self.assertEqual(dayOf(after.preferences["lastWakeupTime"]), dayOf(taken_at))
        self.assertEqual(dayOf(plan), dayOf(taken_at) + 1)
        self.assertEqual(after.jobs, {JOB: (plan, plan + 7 * DAY_SECONDS)})

    def isWholeRun(self, before, after):
        """False when nothing of a run is kept; fails for anything between."""
        if after == before:
            return False
        self.checkRun(before, after)
        return True


def enterOwnLib():
    """Gives a worker process of a test a /var/lib of its own."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(0x20000) != 0:  # CLONE_NEWNS
        raise OSError(ctypes.get_errno(), "unshare")
    subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "lib", str(LIB)], check=True)


def raiseLoopback():
    """In a network namespace, where it begins as down."""
    with socket.socket() as anything:
        fcntl.ioctl(anything, 0x8914, struct.pack("16sh14x", b"lo", 1))  # SIOCSIFFLAGS


def main(*more_namespaces):
    if "VOLORN_TEST_NAMESPACE" not in os.environ:
        os.environ["VOLORN_TEST_NAMESPACE"] = "entered"
        users = [] if os.geteuid() == 0 else ["--map-root-user"]
        if users and shutil.which("newuidmap"):
            users.append("--map-auto")
        os.execvp("unshare", ["unshare", "--mount", *more_namespaces, *users, sys.executable, *sys.argv])
    day = today()
    arguments = [sys.argv[0], *sys.argv[2:]]
    passed = unittest.main(argv=arguments, exit=False).result.wasSuccessful()
    if not passed and today() != day:  # a test saw two days
        passed = unittest.main(argv=arguments, exit=False).result.wasSuccessful()
    sys.exit(not passed)
