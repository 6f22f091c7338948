"""Who may read the state file: the folder's group, without a single write, and nobody else."""

import os
import pathlib
import re
import shutil
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "system"))
import host

GROUP = host.OTHER_USER
READER = host.OTHER_USER + 1
REACHABLE = host.LIB / "volornctl"  # by every user, wherever the build folder lies
COMMANDS = [["status"], ["metrics"], ["metrics", "--format", "openmetrics"], ["history"]]
COMMANDS += [[command, "--json"] for command in ("status", "metrics", "history")]
OF_THE_MACHINE = [["summary"], ["memory"], ["top", "--count", "1"]]

# Every call that can change a file or a folder, with the arguments that do so.
CHANGE = re.compile(r"^\d+ +(?:(?:openat|open)\(.*O_(?:WRONLY|RDWR|CREAT|TRUNC)|"
                    r"(?:creat|mkdir|rmdir|rename|link|symlink|unlink|truncate|ftruncate|fallocate|chmod|fchmod|"
                    r"chown|fchown|lchown|utime|setxattr|fsetxattr|mknod|pwrite|copy_file|sendfile|splice)\w*\(|"
                    r"writev?\((?!1,)|mmap\(.*PROT_WRITE.*MAP_SHARED(?!.*MAP_ANON))", re.MULTILINE)


class ReadersTest(host.Test):
    def setUp(self):
        super().setUp()
        shutil.copy(host.VOLORNCTL, REACHABLE)
        host.STATE.mkdir()
        os.chown(host.STATE, 0, GROUP)
        self.runDaemon()

    def runAs(self, groups, command):
        trace = host.LIB / "trace"
        trace.touch()
        trace.chmod(0o666)
        done = subprocess.run(["strace", "-f", "-o", str(trace), str(REACHABLE), *command], user=READER, group=READER,
                              extra_groups=groups, cwd="/", env={}, text=True, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, timeout=600, check=False)
        return done.returncode, done.stdout, done.stderr, trace.read_text()

    def testAMemberOfTheGroupReadsAndWritesNothing(self):
        def look():
            return {path: (path.read_bytes(), path.stat().st_mtime_ns) for path in host.STATE.iterdir()}

        before = look()
        for command in COMMANDS + OF_THE_MACHINE:
            status, output, errors, trace = self.runAs([GROUP], command)
            self.assertEqual((status, errors), (0, ""), command)
            self.assertNotEqual(output, "", command)
            self.assertEqual(str(host.FILE) in trace, command in COMMANDS, command)
            self.assertEqual(CHANGE.findall(trace), [], command)
        self.assertEqual(look(), before)
        # That the look at the trace finds a write.
        own = host.LIB / "own"
        own.mkdir()
        os.chown(own, READER, READER)
        _, _, _, trace = self.runAs([GROUP], ["metrics", "--format", "openmetrics", "--output", str(own / "a.prom")])
        self.assertTrue((own / "a.prom").exists())
        self.assertNotEqual(CHANGE.findall(trace), [])

    def testAnyoneElseIsToldWhoMay(self):
        for command in COMMANDS:
            status, output, errors, _ = self.runAs([], command)
            self.assertEqual((status, output), (1, ""), command)
            self.assertEqual(errors, f"volornctl: {host.FILE}: no right to read it; its owner and the members of its "
                                     "group have\n")


if not host.HAS_OTHER_USERS:
    del ReadersTest

if __name__ == "__main__":
    host.main()
