"""A machine of their own for tests that start the built programs.

The tests run in a mount namespace, as its root, so that an ordinary user may run them as well. There /var/lib
and /sys/class are theirs, and nothing listens to the system log, so that the daemon talks to standard error.
A test file ends with host.main(); its first argument is the folder of the built programs.
"""

import collections
import contextlib
import ctypes
import dataclasses
import fcntl
import multiprocessing
import os
import pathlib
import re
import shutil
import socket
import sqlite3
import struct
import subprocess
import sys
import tempfile
import time
import traceback
import unittest

sys.dont_write_bytecode = True

PROGRAMS = pathlib.Path(sys.argv[1]).resolve()
VOLORND = str(PROGRAMS / "volornd")
VOLORNCTL = str(PROGRAMS / "volornctl")
LIB = pathlib.Path("/var/lib")
STATE = LIB / "volorn"
FILE = STATE / "volorn.db"
TRACE = LIB / "trace"
SYS_CLASS = pathlib.Path("/sys/class")

DAY_SECONDS = 86400
REFERENCE_DATE = 978307200  # in seconds since 1970
JOB = "com.zorvik.volorn.logcreation"

PREFIX = "com.zorvik.snapshot."
KEYS = (
    "wakeupSecsSinceMidnight plannedSecsSinceMidnight nextSecsSinceMidnight thermalLevel "
    "battery.usageSecs100x battery.standbySecs100x battery.fullyChargedOnce battery.chargedPct100x "
    "battery.maxCapacity battery.pluggedIn battery.fullyCharged backlightLevel100x uptime.Secs100x "
    "uptime.load1Min100x uptime.load5Min100x uptime.load15Min100x jetsamLevel"
).split()
# Without battery; there is no planned time on the first day.
LATER_KEYS = [key for key in KEYS if key not in ("battery.chargedPct100x", "battery.maxCapacity")]
FIRST_KEYS = [key for key in LATER_KEYS if key != "plannedSecsSinceMidnight"]

# Readings that are the same on every machine when it shows no device.
WITHOUT_DEVICES = {
    "thermalLevel": 0,
    "battery.usageSecs100x": -100,
    "battery.standbySecs100x": -100,
    "battery.fullyChargedOnce": 0,
    "battery.pluggedIn": 0,
    "battery.fullyCharged": 0,
    "backlightLevel100x": 0,
}

NEW = [
    "WTD job doesn't exist",
    "No wakeupTime set in preferences - either first time, or first after an erase install",
]
LATE = [
    "WTD job already exists",
    "Woke up too late, will mark that we were likely asleep at the time and exit",
]
EARLY = "wakeupstatus was wakeupstatus too early"
HAS_ONE = "already dumped today!!"
CLEARS = "clearing it, so that the daemon plans anew"
STAYS = "it stays until the clock is synchronised or the machine has been up for 48 hours"

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


def waitFor(condition, seconds=300):
    """What the condition gives as soon as it is true; else its last answer."""
    deadline = time.monotonic() + seconds
    while not (answer := condition()) and time.monotonic() < deadline:
        time.sleep(0.005)
    return answer


def keepOffMidnight(seconds):
    """A row that stays open is started again then."""
    if (left := DAY_SECONDS - time.time() % DAY_SECONDS) < seconds:
        time.sleep(left + 1)


def run(*command, **options):
    """Its status, standard output and standard error."""
    options = {"stdin": subprocess.DEVNULL, "text": True, "timeout": 600, **options}
    done = subprocess.run(command, **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options})
    return done.returncode, done.stdout, done.stderr


def reachable(program):
    """A copy that every user may start, wherever the build folder lies."""
    copy = LIB / os.path.basename(program)
    if not copy.exists():
        shutil.copy(program, copy)
    return str(copy)


def traced(command, *rules):
    """The command under strace with these rules (trace=..., inject=...), and the paths that its calls are to touch."""
    words = [word for rule in rules for word in ("-P" if rule[0] == "/" else "-e", rule)]
    return ["strace", "-f", "-qq", "-o", str(TRACE), *words, *command]


def tracedCalls(names=r"\w+"):
    """(name, ordinal) of each, of those whose name is such."""
    seen = collections.Counter()
    for name in re.findall(rf"^\d+ +({names})\(", TRACE.read_text(), re.MULTILINE):
        seen[name] += 1
        yield name, seen[name]


# Names of the calls before which a kill leaves other files or locks than before the last.
CHANGING = (
    r"open\w*|mkdir\w*|write|pwrite64|f\w*sync|ftruncate|fallocate|rename\w*|unlink\w*|flock|fcntl|close"
)


def killedAt(command, name, ordinal, *rules):
    """Whether it met this call of its own, and ended there."""
    kill = f"inject={name}:signal=SIGKILL:when={ordinal}"
    status, _, errors = run(*traced(command, *(rules or [f"trace={name}"]), kill))
    if status not in (0, -9):
        raise AssertionError(errors)
    return status != 0


@dataclasses.dataclass
class State:
    """What a state file holds. Dates are seconds since the reference date."""

    preferences: dict = dataclasses.field(default_factory=dict)
    jobs: dict = dataclasses.field(default_factory=dict)  # name: window
    snapshots: list = dataclasses.field(default_factory=list)  # of (time taken, metrics in order)
    version: int = 0  # of its schema
    identity: bytes = None

    def metrics(self):
        return self.snapshots[-1][1]


# The tables that each version of the schema adds, as the daemon makes them.
SCHEMA = (pathlib.Path(__file__).parents[2] / "platform/linux/state/schema.cc").read_text()
VERSIONS = [text.split(";\n\n") for text in re.findall(r'R"sql\((.*?)\)sql"', SCHEMA, re.DOTALL)]
TO_FIRST_VERSION = (
    "DROP TABLE usage_books",
    "DROP TABLE file",
    "DROP TABLE stand_in",
    "PRAGMA user_version = 1",
)


def createTables(database):
    """In an empty one, within the transaction that is under way: the daemon takes no others for its own."""
    marks = [f"PRAGMA application_id = {0x766F6C6E}", f"PRAGMA user_version = {len(VERSIONS)}"]
    for statement in marks + sum(VERSIONS, []) + ["INSERT INTO file VALUES (randomblob(16), 1)"]:
        database.execute(statement)


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
        (state.version,) = database.execute("PRAGMA user_version").fetchone()
        if state.version > 1:
            (state.identity,) = database.execute("SELECT identity FROM file").fetchone()
        names = dict(database.execute("SELECT * FROM metric_key"))
        taken = dict(database.execute("SELECT * FROM snapshot ORDER BY id"))
        metrics = {number: {} for number in taken}
        for number, key, value in database.execute(
            "SELECT snapshot_id, key_id, value FROM metric ORDER BY snapshot_id, position"
        ):
            metrics[number][names[key].removeprefix(PREFIX)] = value
        state.snapshots = list(zip(taken.values(), metrics.values()))
    return state


Books = collections.namedtuple(
    "Books", "monotonic boottime plugged_in is_last fully_charged_once usage standby"
)


def books():
    """The newest mark's numbers, times in nanoseconds and -1 for none; None before the first mark."""
    try:
        with opened() as database:
            row = database.execute("SELECT books FROM usage_books").fetchone()
    except sqlite3.Error:
        return None
    return Books(*map(int, row[0].split()[:7])) if row else None


def readCopy(files):
    """What everyone sees who opens these files, which stay as they are for the next start to mend."""
    with tempfile.TemporaryDirectory(dir=LIB) as copy:
        fill(files, pathlib.Path(copy))
        return readState(pathlib.Path(copy) / FILE.name)


def editState(*statements):
    with opened() as database:
        for statement in statements:
            database.execute(statement)


def age(days):
    """Makes everything in the state file older, the plan for tomorrow as well."""
    seconds = days * DAY_SECONDS
    editState(
        f"UPDATE preference SET value = value - iif(kind = 'date', {seconds}.0, {days})",
        f"UPDATE job SET window_start = window_start - {seconds}, window_end = window_end - {seconds}",
        f"UPDATE snapshot SET taken_at = taken_at - {seconds}",
    )


def save(folder=STATE):
    """The folder's regular files, whatever else lies there."""
    files = [path for path in folder.iterdir() if path.is_file()] if folder.is_dir() else []
    return {path.name: path.read_bytes() for path in files}


def fill(files, folder=STATE):
    for name, content in files.items():
        (folder / name).write_bytes(content)


def restore(files, owner=None):
    """The folder with these files and no others; none at all for None."""
    shutil.rmtree(STATE, ignore_errors=True)
    if files is None:
        return
    STATE.mkdir()
    fill(files)
    for path in [STATE, *STATE.iterdir()] if owner else []:
        shutil.chown(path, owner, owner)


def setAside():
    """The content of each state file that a run found damaged."""
    return [path.read_bytes() for path in STATE.glob("volorn.db.damaged-????????T??????Z")]


def owners():
    """Every pair of user and group that has anything in the folder, and the folder's own."""
    found = [path.stat() for path in [STATE, *STATE.iterdir()]]
    return {(status.st_uid, status.st_gid) for status in found}


class Test(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        for arguments in (
            ["-t", "tmpfs", "-o", "mode=755", "lib", str(LIB)],
            ["-t", "tmpfs", "-o", "mode=755", "class", str(SYS_CLASS)],
        ):
            self.enterContext(mounted(*arguments))
        if os.path.exists("/dev/log"):
            self.enterContext(mounted("--bind", "/dev/null", os.path.realpath("/dev/log")))

    def runDaemon(self, command=(VOLORND,), **options):
        """Returns the lines of the log."""
        *ended, errors = run(*command, **options)
        self.assertEqual(ended, [0, ""], errors)
        return errors.splitlines()

    def runAt(self, date, zone="UTC0"):
        """At this moment, which no zone changes."""
        fake = {"FAKETIME_DONT_FAKE_MONOTONIC": "1", "FAKETIME_FMT": "%s", "TZ": zone}
        command = ["faketime", "-f", f"{date + REFERENCE_DATE:.0f}", VOLORND]
        return self.runDaemon(command, env={**os.environ, **fake})

    def runAs(self, user):
        # The leak sanitizer cannot look into a process that has changed its user.
        environment = {"ASAN_OPTIONS": "detect_leaks=0"}
        return self.runDaemon([reachable(VOLORND)], user=user, group=user, extra_groups=[], env=environment)

    def makeStateOf(self, days):
        """The state after one run so many days ago. Returns the files."""
        restore(None)
        self.runDaemon()
        age(days)
        return save()

    def checkRun(self, before, after):
        """That the state is `before` and one day's run, whole; of 4,000 snapshots the oldest goes."""
        self.assertEqual(after.snapshots[:-1], before.snapshots[-3999:])
        self.assertEqual(after.version, len(VERSIONS))
        self.assertEqual(after.identity, before.identity or after.identity)
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


def attempt(work, case):
    try:
        return work(*case), None
    except Exception:
        return None, f"{case[0]}, {case[3:]}:\n{traceback.format_exc()}"


def tryAll(work, cases):
    """What each gives and, as text, why it failed; by several processes with a /var/lib each."""
    with multiprocessing.Pool(os.cpu_count(), enterOwnLib) as pool:
        return pool.starmap(attempt, [(work, case) for case in cases], chunksize=4)


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
