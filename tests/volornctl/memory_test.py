"""Compares the memory report of this machine with what readelf and /proc tell of its processes."""

import json
import os
import pathlib
import re
import resource
import subprocess

import host

STEPS = ("proc_name", "proc_pidinfo", "task_for_pid", "task_info_basic", "task_info_extmod")
FIRST_LINES = "\n            Name                <UUID>                                  rpages\n"

# Waits until nobody holds its standard input open.
SOURCE = '#include <unistd.h>\nint main(void) { char byte; write(1, "", 1); read(0, &byte, 1); }\n'
IDS = ("none", "0x1122334455667788", "0x" + "ab" * 16 + "cdcdcdcd", "0x" + "0123456789abcdef" * 4)


def executable(pid):
    """What the link leads to, as something that changes with it; none without a right to know or a link."""
    try:
        status = os.stat(f"/proc/{pid}/exe")
        return status.st_dev, status.st_ino, status.st_ctime_ns
    except OSError:
        return None


def inReport(build_id):
    return build_id.removeprefix("0x")[:32].ljust(32, "0")


def buildId(path):
    """As readelf tells it."""
    found = re.search(r"Build ID: ([0-9a-f]+)", host.run("readelf", "-n", path)[1])
    return inReport(found[1] if found else "")


def residentPages(pid):
    pages = int(pathlib.Path(f"/proc/{pid}/statm").read_text(encoding="ascii").split()[1])
    return pages * resource.getpagesize() // 4096


class MemoryTest(host.Test):
    def rows(self, program=host.VOLORNCTL, **options):
        status, output, errors = host.run(program, "memory", "--json", **options)
        self.assertEqual((status, errors), (0, ""))
        return {row["pid"]: row for row in json.loads(output)["processes"]}

    def start(self, name, build_id):
        """A process at rest."""
        path = host.LIB / name
        command = ["gcc", "-w", "-x", "c", "-", "-o", path, f"-Wl,--build-id={build_id}"]
        subprocess.run(command, input=SOURCE, text=True, check=True)
        child = subprocess.Popen([path], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.addCleanup(child.communicate)
        child.stdout.read(1)
        return child.pid

    def testIdentifiersAreThoseOfReadelf(self):
        made = {self.start(str(number), value): value for number, value in enumerate(IDS)}
        before = {int(name): executable(name) for name in os.listdir("/proc") if name.isdigit()}
        shown = self.rows()
        known = {}
        compared = 0
        for pid, row in shown.items():
            same = before.get(pid)
            if "uuid" not in row or same is None:
                continue
            expected = known.get(same) or buildId(f"/proc/{pid}/exe")
            if executable(pid) == same:  # else it may have ended before readelf looked
                known[same] = expected
                self.assertEqual(row["uuid"], expected, row)
                compared += 1
        self.assertGreater(compared, len(made))
        for pid, value in made.items():
            self.assertEqual(shown[pid]["uuid"], inReport(value.replace("none", "")))

    def testNameAndResidentPages(self):
        pid = self.start("one", "none")
        host.waitFor(lambda: self.rows()[pid]["rpages"] == residentPages(pid), seconds=30)
        row = self.rows()[pid]
        self.assertEqual((row["name"], row["rpages"]), ("one", residentPages(pid)))
        status, text, errors = host.run(host.VOLORNCTL, "memory")
        self.assertEqual((status, errors), (0, ""))
        self.assertTrue(text.startswith(FIRST_LINES))
        self.assertRegex(text, rf"(?m)^ *one  <0{{32}}>  {{1,20}}{row['rpages']}$")

    def testOthersProcessesAreErrorsToWhoMayNotLook(self):
        program = host.reachable(host.VOLORNCTL)
        drop = (
            {"user": host.OTHER_USER, "group": host.OTHER_USER, "extra_groups": []}
            if host.HAS_OTHER_USERS
            else {}
        )
        shown = self.rows(program, **drop)
        ours = os.getpid() if drop else 1
        self.assertEqual(shown[ours]["error"], "task_for_pid")
        self.assertTrue(all(row.get("error", "task_for_pid") in STEPS for row in shown.values()))
        status, text, _ = host.run(program, "memory", **drop)
        self.assertEqual(status, 0)
        self.assertRegex(text, rf"getMemoryData: task_for_pid returned error for pid: {ours}, name : \S")

    def testFewDescriptorsAreEnough(self):
        limit = (64, 64)
        shown = self.rows(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, limit))
        self.assertEqual(shown[os.getpid()]["uuid"], buildId(f"/proc/{os.getpid()}/exe"))

    def testWithoutProcessesThereIsNoReport(self):
        for arguments in ("", "--json"):
            script = f'mount -t tmpfs none /proc && exec "$0" memory {arguments}'
            # The sanitizers miss /proc too: their leak check is left out, and what they say is passed over.
            environment = {**os.environ, "ASAN_OPTIONS": "detect_leaks=0"}
            command = ["unshare", "--mount", "sh", "-c", script, host.VOLORNCTL]
            *ended, errors = host.run(*command, env=environment)
            self.assertEqual(ended, [1, ""])
            self.assertRegex(errors, r"(?m)^volornctl: the processes cannot be listed: .+$")


if __name__ == "__main__":
    host.main()
