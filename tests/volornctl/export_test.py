"""The file of metrics: replaced as a whole or not at all, whatever happens to who replaces it."""

import os
import shutil
import subprocess

import host

FOLDER = host.LIB / "textfile"
EXPORT = FOLDER / "volorn.prom"
DRAFT = FOLDER / ".volorn.prom.new"
PRECIOUS = host.LIB / "precious"
OLD = b"old content\n"
COMMAND = [host.VOLORNCTL, "metrics", "--format", "openmetrics", "--output", str(EXPORT)]
TOUCHES = [str(path) for path in (FOLDER, EXPORT, DRAFT)]


class ExportTest(host.Test):
    def setUp(self):
        super().setUp()
        self.runDaemon()
        FOLDER.mkdir()
        EXPORT.write_bytes(OLD)
        self.expected = subprocess.run(COMMAND[:-2], check=True, stdout=subprocess.PIPE).stdout
        self.assertTrue(self.expected.endswith(b"\n# EOF\n"))

    def export(self, command=COMMAND, **options):
        status, output, errors = host.run(*command, **options)
        self.assertEqual(output, "")
        return status, errors

    def checkFolder(self, *others):
        self.assertEqual(sorted(path.name for path in FOLDER.iterdir()), sorted(["volorn.prom", *others]))

    def checkExported(self, owner=0):
        self.assertEqual(EXPORT.read_bytes(), self.expected)
        status = EXPORT.lstat()
        self.assertEqual((status.st_mode, status.st_uid, status.st_gid), (0o100644, owner, owner))
        self.checkFolder()

    def testReplaced(self):
        for owner in (0, host.OTHER_USER) if host.HAS_OTHER_USERS else (0,):
            os.chown(FOLDER, owner, owner)
            for umask in (0, 0o777):
                self.assertEqual(self.export(umask=umask), (0, ""))
                self.checkExported(owner)
        EXPORT.unlink()
        self.assertEqual(self.export(), (0, ""))
        self.checkExported(owner)
        relative = subprocess.run([*COMMAND[:-1], "volorn.prom"], cwd=FOLDER, check=False)
        self.assertEqual(relative.returncode, 0)
        self.checkExported(owner)

    def testKilledAtEveryCall(self):
        self.export(host.traced(COMMAND, *TOUCHES))
        calls = list(host.tracedCalls())
        self.assertLessEqual({"write", "fchmod", "fsync", "renameat"}, {name for name, _ in calls})
        kept = set()
        for call in calls:
            with self.subTest(call):
                EXPORT.write_bytes(OLD)
                self.assertTrue(host.killedAt(COMMAND, *call, *TOUCHES))
                kept.add(EXPORT.read_bytes())
                self.assertEqual(self.export(), (0, ""))
                self.checkExported()
        self.assertEqual(kept, {OLD, self.expected})

    def testEveryFailureLeavesTheOldFile(self):
        for failure in (
            "write:error=ENOSPC",
            "fsync:error=EIO",
            "fchmod:error=EPERM",
            "renameat:error=EROFS",
        ):
            with self.subTest(failure):
                status, text = self.export(host.traced(COMMAND, *TOUCHES, f"inject={failure}:when=1"))
                self.assertEqual(status, 1)
                self.assertRegex(text, rf"\Avolornctl: {EXPORT}: .+\n\Z")
                self.assertEqual(EXPORT.read_bytes(), OLD)
                self.checkFolder()

    def testManyAtOnce(self):
        for _ in range(5):
            DRAFT.write_bytes(b"left by a killed one")
            writers = [subprocess.Popen(COMMAND, stderr=subprocess.PIPE) for _ in range(16)]
            for writer in writers:
                _, errors = writer.communicate(timeout=600)
                self.assertEqual((writer.returncode, errors), (0, b""))
            self.checkExported()

    def testNoOtherFileIsTouched(self):
        def fifo(_, path):
            os.mkfifo(path)

        for what, make in (("link", os.symlink), ("folder", lambda _, path: path.mkdir()), ("FIFO", fifo)):
            PRECIOUS.write_bytes(OLD)
            EXPORT.unlink()
            make(PRECIOUS, EXPORT)
            self.assertEqual(self.export(), (1, f"volornctl: {EXPORT}: not a regular file\n"), what)
            self.assertEqual(PRECIOUS.read_bytes(), OLD)
            self.checkFolder()
            shutil.rmtree(FOLDER)
            FOLDER.mkdir()
            EXPORT.write_bytes(OLD)
        named = subprocess.run([*COMMAND[:-1], f"{FOLDER}/"], stderr=subprocess.PIPE, text=True, check=False)
        self.assertEqual((named.returncode, named.stderr), (1, f"volornctl: {FOLDER}/: not a regular file\n"))
        # In the place of the draft.
        for make, status in ((os.symlink, 1), (os.link, 0), (fifo, 0)):
            make(PRECIOUS, DRAFT)
            self.assertEqual(self.export()[0], status)
            DRAFT.unlink(missing_ok=True)
            self.assertEqual((PRECIOUS.read_bytes(), PRECIOUS.stat().st_nlink), (OLD, 1))
            self.assertEqual(EXPORT.read_bytes(), OLD if status else self.expected)
            EXPORT.write_bytes(OLD)

    def testWithoutSnapshotTheOldFileStays(self):
        host.restore(None)
        status, text = self.export()
        self.assertEqual((status, text), (3, f"volornctl: {host.FILE}: no run has kept anything yet\n"))
        self.assertEqual(EXPORT.read_bytes(), OLD)
        self.checkFolder()


if __name__ == "__main__":
    host.main()
