"""Who may read the state file: the folder's group, without a single write, and nobody else."""

import os
import re

import host

GROUP = host.OTHER_USER
READER = host.OTHER_USER + 1
COMMANDS = ["status", "metrics", "history", "metrics --format openmetrics"]
COMMANDS += ["status --json", "metrics --json", "history --json"]
OF_THE_MACHINE = ["summary", "memory", "top --count 1"]

# Every call that can change a file or a folder, with the arguments that do so.
CHANGE = re.compile(
    r"^\d+ +(?:(?:openat|open)\(.*O_(?:WRONLY|RDWR|CREAT|TRUNC)|"
    r"(?:creat|mkdir|rmdir|rename|link|symlink|unlink|truncate|ftruncate|fallocate|chmod|fchmod|"
    r"chown|fchown|lchown|utime|setxattr|fsetxattr|mknod|pwrite|copy_file|sendfile|splice)\w*\(|"
    r"writev?\((?!1,)|mmap\(.*PROT_WRITE.*MAP_SHARED(?!.*MAP_ANON))",
    re.MULTILINE,
)


class ReadersTest(host.Test):
    def setUp(self):
        super().setUp()
        host.restore({})
        os.chown(host.STATE, 0, GROUP)
        self.runDaemon()

    def read(self, groups, command):
        host.TRACE.touch()
        host.TRACE.chmod(0o666)
        traced = host.traced([host.reachable(host.VOLORNCTL), *command.split()])
        ended = host.run(*traced, user=READER, group=READER, extra_groups=groups, cwd="/", env={})
        return *ended, host.TRACE.read_text()

    def testAMemberOfTheGroupReadsAndWritesNothing(self):
        def look():
            return {path: (path.read_bytes(), path.stat().st_mtime_ns) for path in host.STATE.iterdir()}

        before = look()
        for command in COMMANDS + OF_THE_MACHINE:
            status, output, errors, trace = self.read([GROUP], command)
            self.assertEqual((status, errors), (0, ""), command)
            self.assertNotEqual(output, "", command)
            self.assertEqual(str(host.FILE) in trace, command in COMMANDS, command)
            self.assertEqual(CHANGE.findall(trace), [], command)
        self.assertEqual(look(), before)
        # That the look at the trace finds a write.
        own = host.LIB / "own"
        own.mkdir()
        os.chown(own, READER, READER)
        trace = self.read([GROUP], f"metrics --format openmetrics --output {own}/a.prom")[-1]
        self.assertTrue((own / "a.prom").exists())
        self.assertNotEqual(CHANGE.findall(trace), [])

    def testAnyoneElseIsToldWhoMay(self):
        told = f"volornctl: {host.FILE}: no right to read it; its owner and the members of its group have\n"
        for command in COMMANDS:
            self.assertEqual(self.read([], command)[:3], (1, "", told), command)


if not host.HAS_OTHER_USERS:
    del ReadersTest

if __name__ == "__main__":
    host.main()
