"""Whose files volornd touches, and who may touch its own."""

import itertools
import os
import pathlib
import shutil
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host

USER = host.OTHER_USER
REACHABLE = host.LIB / "volornd"  # by every user, wherever the build folder lies
PRECIOUS = host.LIB / "precious"

# Takes hold of whatever it can in the folder, tells what, and keeps it until its standard input ends.
STRANGER = """
import fcntl, os, sqlite3, sys
folder = sys.argv[1]
held = [os.open(folder, os.O_RDONLY)]
for name in sorted(os.listdir(folder)):
    for flags in os.O_RDONLY, os.O_WRONLY, os.O_RDWR:
        try:
            held.append(os.open(f"{folder}/{name}", flags))
            print(f"opened {name}")
        except PermissionError:
            pass
for fd in held:
    fcntl.flock(fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
try:
    reader = sqlite3.connect(f"file:{folder}/volorn.db?mode=ro", uri=True, isolation_level=None)
    reader.execute("BEGIN")
    reader.execute("SELECT * FROM preference").fetchone()
    print("read")
except sqlite3.OperationalError:
    pass
print("ready", flush=True)
sys.stdin.read()
"""


class OrdinaryUserTest(host.Test):
    """In a user namespace, root's own process is an ordinary user's."""

    def setUp(self):
        super().setUp()
        self.home = host.LIB / "home/of it"
        self.elsewhere = host.LIB / "elsewhere"
        self.elsewhere.mkdir()
        passwd = host.LIB / "passwd"
        passwd.touch()
        self.passwd = passwd
        self.enterContext(host.mounted("--bind", str(passwd), "/etc/passwd"))

    def runAsUser(self):
        return self.runDaemon(
            ["unshare", "--user", f"--map-user={USER}", f"--map-group={USER}", host.VOLORND],
            env={"PATH": os.environ["PATH"], "HOME": str(self.elsewhere), "XDG_STATE_HOME": str(self.elsewhere)})

    def testStateFolder(self):
        below_home = self.home / ".local/state/volorn"
        for name, home, folder in (("home", self.home, below_home),
                                   ("owner of the system's", self.home, host.STATE),
                                   ("root's home", pathlib.Path("/root"), host.STATE)):
            with self.subTest(name):
                self.passwd.write_text(f"root:x:0:0::/root:/bin/sh\nuser:x:{USER}:{USER}::{home}:/bin/sh\n")
                host.restore({} if folder == host.STATE else None)
                self.assertEqual(self.runAsUser(), host.NEW)
                self.checkRun(host.State(), host.readState(folder / "volorn.db"))
                self.assertEqual(list(self.elsewhere.iterdir()), [])
                self.assertEqual([path for path in (host.STATE, self.home) if path.exists()],
                                 [host.STATE if folder == host.STATE else self.home])
                shutil.rmtree(self.home, ignore_errors=True)

    def testNoHome(self):
        for name, line in (("no entry", ""), ("no folder in it", f"user:x:{USER}:{USER}:::/bin/sh"),
                           ("relative", f"user:x:{USER}:{USER}::elsewhere:/bin/sh")):
            with self.subTest(name):
                self.passwd.write_text(f"root:x:0:0::/root:/bin/sh\n{line}\n")
                loss, *rest = self.runAsUser()
                self.assertRegex(loss, "^state file .*no home folder.*; nothing of this run is kept$")
                self.assertEqual(rest, host.NEW)
                self.assertFalse(host.STATE.exists())
                self.assertEqual(list(self.elsewhere.iterdir()), [])


class OtherUserTest(host.Test):
    def setUp(self):
        super().setUp()
        shutil.copy(host.VOLORND, REACHABLE)

    def runAs(self, user):
        # The leak sanitizer cannot look into a process that has changed its user.
        return self.runDaemon([str(REACHABLE)], user=user, group=user, extra_groups=[],
                              env={"ASAN_OPTIONS": "detect_leaks=0"})

    def testStrangersHoldNothingUp(self):
        yesterday = self.makeStateOf(2)
        spoilt = {**yesterday, "volorn.db": os.urandom(20000)}
        for name, files in (("a state", yesterday), ("a spoilt file and a journal", spoilt)):
            with self.subTest(name):
                host.restore(None)
                self.runDaemon(umask=0)
                for file, content in files.items():  # into files of the daemon's own making
                    (host.STATE / file).write_bytes(content)
                for day in range(2):
                    before = host.readState() if day or files is yesterday else host.State()
                    stranger = subprocess.Popen(["/usr/bin/python3", "-c", STRANGER, str(host.STATE)], user=USER,
                                                group=USER, extra_groups=[], text=True, cwd="/",
                                                stdin=subprocess.PIPE, stdout=subprocess.PIPE)
                    self.assertEqual(stranger.stdout.readline(), "ready\n")
                    self.runDaemon()
                    stranger.communicate()
                    self.checkRun(before, host.readState())
                    host.age(2)

    def testRootAndOwnerTakeTurns(self):
        yesterday = self.makeStateOf(2)
        for start, files in (("empty", {}), ("yesterday", yesterday),
                             ("spoilt", {**yesterday, "volorn.db": os.urandom(20000)})):
            for first, second in ((0, USER), (USER, 0)):
                with self.subTest(f"{start}, first user {first}"):
                    host.restore(files, USER)
                    before = host.State() if start == "spoilt" else host.readState()
                    for user in (first, second, first):
                        self.runAs(user)
                        self.assertEqual(host.owners(), {(USER, USER)})
                        self.checkRun(before, host.readState())
                        host.age(2)
                        before = host.readState()

    def testOwnerLeadsRootToNoOtherFile(self):
        yesterday = self.makeStateOf(2)
        states = {"empty": {}, "yesterday": yesterday, "spoilt": {**yesterday, "volorn.db": os.urandom(20000)}}
        targets = {"text": b"root: secret\n", "empty": b"", "state file": yesterday["volorn.db"],
                   "journal": yesterday["volorn.db-journal"]}
        for state, target, link, mode, name in itertools.product(
                states, targets, (os.symlink, os.link), (0o600, 0o644),
                ("volorn.db", "volorn.db-journal", "volorn.lock")):
            with self.subTest(f"{name} is a {link.__name__} to root's {target}, {mode:o}, state {state}"):
                host.restore(states[state], USER)
                PRECIOUS.write_bytes(targets[target])
                PRECIOUS.chmod(mode)
                (host.STATE / name).unlink(missing_ok=True)
                link(PRECIOUS, host.STATE / name)
                before = PRECIOUS.stat()
                self.runAs(0)
                after = PRECIOUS.stat()
                self.assertEqual(PRECIOUS.read_bytes(), targets[target])
                for field in ("st_mode", "st_uid", "st_gid", "st_mtime_ns", "st_size"):
                    self.assertEqual(getattr(after, field), getattr(before, field), field)


if not host.HAS_OTHER_USERS:
    del OtherUserTest

if __name__ == "__main__":
    host.main()
