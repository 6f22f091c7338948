"""Whose files volornd touches, and who may touch its own."""

import itertools
import os
import shutil
import subprocess

import host

USER = host.OTHER_USER
PRECIOUS = host.LIB / "precious"
HOME = host.LIB / "home/of it"
BELOW_HOME = HOME / ".local/state/volorn"

# Passwd entries of an ordinary user, whether the system's folder is theirs, and which one is used.
FOLDERS = [
    (f"user:x:{USER}:{USER}::{HOME}:/bin/sh", False, BELOW_HOME),
    (f"user:x:{USER}:{USER}::{HOME}:/bin/sh", True, host.STATE),
    (f"user:x:{USER}:{USER}::/root:/bin/sh", True, host.STATE),
    ("", False, None),
    (f"user:x:{USER}:{USER}:::/bin/sh", False, None),
    (f"user:x:{USER}:{USER}::elsewhere:/bin/sh", False, None),
]


class OrdinaryUserTest(host.Test):
    """In a user namespace, root's own process is an ordinary user's."""

    def testStateFolder(self):
        elsewhere = host.LIB / "elsewhere"
        elsewhere.mkdir()
        passwd = host.LIB / "passwd"
        passwd.touch()
        self.enterContext(host.mounted("--bind", str(passwd), "/etc/passwd"))
        environment = {"PATH": os.environ["PATH"], "HOME": elsewhere, "XDG_STATE_HOME": elsewhere}
        command = ["unshare", "--user", f"--map-user={USER}", f"--map-group={USER}", host.VOLORND]
        for entry, owns, folder in FOLDERS:
            with self.subTest(entry, owns=owns):
                passwd.write_text(f"root:x:0:0::/root:/bin/sh\n{entry}\n")
                host.restore({} if owns else None)
                *loss, one, other = self.runDaemon(command, env=environment)
                self.assertEqual([one, other], host.NEW)
                if folder:
                    self.assertEqual(loss, [])
                    self.checkRun(host.State(), host.readState(folder / "volorn.db"))
                else:
                    self.assertRegex(
                        " ".join(loss), "^state file .*no home folder.*; nothing of this run is kept$"
                    )
                self.assertEqual((host.STATE.exists(), HOME.exists()), (owns, folder == BELOW_HOME))
                self.assertEqual(list(elsewhere.iterdir()), [])
                shutil.rmtree(HOME, ignore_errors=True)


class OtherUserTest(host.Test):
    def testStrangersHoldNothingUp(self):
        """By a lock of all that anyone may open, the folder; that this is all, the files' modes show."""
        before = readable = None
        for step in ("first", "later", "spoilt"):
            with self.subTest(step):
                if step == "spoilt":
                    host.FILE.write_bytes(os.urandom(20000))
                host.STATE.mkdir(exist_ok=True)
                before = host.readState() if step != "spoilt" else host.State()
                stranger = subprocess.Popen(
                    ["flock", "--nonblock", str(host.STATE), "sh", "-c", "echo ready; cat"],
                    **{"user": USER, "group": USER, "extra_groups": [], "cwd": "/"},
                    **{"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "text": True},
                )
                self.assertEqual(stranger.stdout.readline(), "ready\n")
                self.runDaemon(umask=0)
                stranger.communicate()
                self.checkRun(before, host.readState())
                readable = [path for path in host.STATE.iterdir() if path.stat().st_mode & 0o007]
                self.assertEqual(readable, [])
                host.age(2)

    def testRootAndOwnerTakeTurns(self):
        yesterday = self.makeStateOf(2)
        for start, files in (
            ("yesterday", yesterday),
            ("spoilt", {**yesterday, "volorn.db": os.urandom(20000)}),
        ):
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
        states = [{}, yesterday, {**yesterday, "volorn.db": os.urandom(20000)}]
        targets = [b"root: secret\n", *yesterday.values()]
        links = (os.symlink, os.link)
        for state, content, link, mode, name in itertools.product(
            states, targets, links, (0o600, 0o644), ("volorn.db", "volorn.db-journal", "volorn.lock")
        ):
            what = f"{name} is a {link.__name__} to {len(content)} bytes of root's, {mode:o}, beside {list(state)}"
            with self.subTest(what):
                host.restore(state, USER)
                PRECIOUS.write_bytes(content)
                PRECIOUS.chmod(mode)
                (host.STATE / name).unlink(missing_ok=True)
                link(PRECIOUS, host.STATE / name)
                before = PRECIOUS.stat()
                self.runAs(0)
                after = PRECIOUS.stat()
                self.assertEqual(PRECIOUS.read_bytes(), content)
                for field in ("st_mode", "st_uid", "st_gid", "st_mtime_ns", "st_size"):
                    self.assertEqual(getattr(after, field), getattr(before, field), field)


if not host.HAS_OTHER_USERS:
    del OtherUserTest

if __name__ == "__main__":
    host.main()
